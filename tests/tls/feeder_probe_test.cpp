// feeder-probe tls and tls-server against the OpenSSL program and curl.
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/plain_socket.h"
#include "tests/support/temporary_folder.h"
#include "tests/tls/peers.h"
#include "tests/tls/tool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <fstream>

namespace quenmark::test {
namespace {

using testing::HasSubstr;
using Words = std::vector<std::string>;

constexpr const char* kProbe = BIN_DIR "/feeder-probe";

Words operator+(Words words, const Words& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

struct Outcome {
  int status;
  std::string output;
  std::string error;
};

class FeederProbe : public testing::Test {
 protected:
  FeederProbe() {
    // Certificates that name the host, unlike those of the other tests.
    Run("openssl", {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", m_key,
                    "-out", m_certificate, "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost"});
    std::ofstream(m_password) << "secret\n";
    Run("openssl", {"pkcs12", "-export", "-in", m_certificate, "-inkey", m_key, "-passout", "file:" + m_password,
                    "-out", m_pkcs12});
  }
  static Outcome Run(const std::string& program, const Words& words, const std::string& input = {}) {
    ChildProcess child(program, words, {{}, {}, input});
    const std::string output = child.ReadAll();
    const int status = child.Wait().value_or(-1);
    return {status, output, child.ErrorText()};
  }
  static Outcome Probe(const Words& words, const std::string& input = {}) { return Run(kProbe, words, input); }

  // Starts `feeder-probe tls-server 0`.
  void Serve(const Words& more) {
    m_server = std::make_unique<ChildProcess>(kProbe, Words{"tls-server", "0"} + more);
    const auto port = m_server->ReadLine();
    ASSERT_TRUE(port) << m_server->ErrorText();
    m_port = *port;
  }
  std::string Port() const { return "localhost:" + m_port; }
  // openssl s_server on a port of its choice, until the process is replaced.
  void ServeOpenssl(const Words& more) {
    const std::string accept = "ACCEPT 127.0.0.1:";
    m_server = std::make_unique<ChildProcess>(
        "openssl", Words{"s_server", "-accept", "127.0.0.1:0", "-cert", m_certificate, "-key", m_key} + more);
    auto line = m_server->ReadLine();
    while (line && !line->starts_with(accept)) line = m_server->ReadLine();
    ASSERT_TRUE(line) << m_server->ErrorText();
    m_port = line->substr(accept.size());
  }

  TemporaryFolder m_folder;
  const std::string m_certificate = m_folder.File("own.pem");
  const std::string m_key = m_folder.File("own.key");
  const std::string m_identity = m_certificate + "|" + m_key;
  const std::string m_pkcs12 = m_folder.File("own.p12");
  const std::string m_password = m_folder.File("password");
  std::unique_ptr<ChildProcess> m_server;
  std::string m_port;
};

TEST_F(FeederProbe, ClientSaysHowItWent) {
  const std::string request = "GET / HTTP/1.0\r\n\r\n";
  const std::string missing = m_folder.File("missing");
  struct Case {
    Words server;
    Words client;
    int status;
    const char* error;
  };
  const Words ca = {"--ca", m_certificate};
  const Case kCases[] = {
      {{"-www"},
       ca,
       0,
       "version=1.3 suite=TLS_AES_128_GCM_SHA256 group=Curve25519 scheme=ECDSA_SECP256R1_SHA256 alpn=- chain=valid"},
      {{"-www", "-alpn", "b"},
       ca + Words{"--alpn", "a|b", "--versions", "1.2", "--timeout", "20000"},
       0,
       "version=1.2 suite=ECDHE-ECDSA-AES128-GCM-SHA256 group=Curve25519 scheme=ECDSA_SECP256R1_SHA256 alpn=b "
       "chain=valid"},
      {{"-www"}, {"--insecure"}, 0, "chain=unchecked"},
      {{"-www"},
       {},
       1,
       "chain=invalid\nfeeder-probe: The certificate or certificate chain is based on an untrusted root\n"},
      {{"-www"},
       ca + Words{"--name", "other"},
       1,
       "feeder-probe: No certificate subject name matches target host name\n"},
      {{"-www", "-tls1_2"}, ca + Words{"--versions", "1.3"}, 1, "alert=Protocol version"},
      {{"-www", "-Verify", "1", "-verify_return_error", "-CAfile", m_certificate},
       ca + Words{"--pkcs12", m_pkcs12, "--password-file", m_password},
       0,
       "chain=valid"},
      {{"-www", "-Verify", "1"}, ca, 1, "alert=Certificate required"},
      {{"-rev"}, ca + Words{"--timeout", "300"}, 3, "feeder-probe: timed out\n"},
      {{}, ca + Words{"--pkcs12", m_pkcs12}, 2, "feeder-probe: "},
      {{}, ca + Words{"--pkcs12", m_pkcs12, "--password-file", missing}, 2, "the password file cannot be read"},
      {{}, {"--ca", missing}, 2, "feeder-probe: "},
      {{}, {"--versions", "1.1"}, 2, "--versions"},
      {{}, {"--unknown"}, 2, "--unknown"},
  };
  for (const Case& one : kCases) {
    SCOPED_TRACE(testing::PrintToString(one.server + one.client));
    ServeOpenssl(one.server);
    if (HasFatalFailure()) return;
    // Nothing is sent to a server that refuses: its reset could overtake its alert.
    const Outcome outcome = Probe(Words{"tls", Port()} + one.client, one.status == 0 ? request : "");
    EXPECT_EQ(outcome.status, one.status) << outcome.error;
    EXPECT_THAT(outcome.error, HasSubstr(one.error));
    EXPECT_THAT(outcome.output, HasSubstr(one.status == 0 ? "HTTP/1.0 200 ok" : ""));
    EXPECT_THAT(outcome.error, testing::Not(HasSubstr("secret")));
  }
  m_server.reset();
  EXPECT_EQ(Probe({"tls", Port()}).status, 3);  // nobody listens
  EXPECT_EQ(Probe({"tls", "localhost"}).status, 2);
  EXPECT_EQ(Probe({"tls", "127.0.0.1:1x"}).status, 2);
}

TEST_F(FeederProbe, ClientSeesATruncatedStream) {
  const Descriptor listener(PlainListener());
  ChildProcess probe(kProbe, {"tls", "localhost:" + std::to_string(PortOf(listener)), "--insecure"});
  {
    const Descriptor connection(PlainAccept(listener));
    LibsslPeer peer({.identity = &IdentityOf(KeyKind::kP256), .version = TLS1_2_VERSION});
    tls::Bytes part(16384);
    while (!peer.Ready()) {
      const ssize_t count = recv(connection, part.data(), part.size(), 0);
      ASSERT_GT(count, 0);
      peer.Feed(tls::BytesView(part).first(static_cast<std::size_t>(count)));
      if (peer.Ready()) peer.Send(Pattern(1000));
      const tls::Bytes output = peer.TakeOutput();
      PlainSend(connection, {reinterpret_cast<const char*>(output.data()), output.size()});
    }
  }
  EXPECT_EQ(probe.ReadAll().size(), 1000u);
  EXPECT_EQ(probe.Wait(), 1);
  EXPECT_THAT(probe.ErrorText(), HasSubstr("without close_notify"));
}

TEST_F(FeederProbe, ServerEchoes) {
  for (const Words& identity :
       {Words{"--cert", m_identity}, Words{"--pkcs12", m_pkcs12, "--password-file", m_password}}) {
    Serve(identity + Words{"--once", "--alpn", "a|b"});
    if (HasFatalFailure()) return;
    Tool client(
        {"openssl", "s_client", "-connect", Port(), "-CAfile", m_certificate, "-verify_return_error", "-alpn", "b"});
    EXPECT_TRUE(client.Prints("ALPN protocol: b")) << client.Process().ErrorText();
    client.Type("hello\n");
    EXPECT_TRUE(client.Prints("hello"));
    client.Type("Q\n");
    EXPECT_EQ(m_server->Wait(), 0) << m_server->ErrorText();
  }
}

TEST_F(FeederProbe, ServerDiscards) {
  Serve({"--mode", "discard", "--once", "--cert", m_identity});
  const std::string much(3'000'000, 'x');
  const Outcome client = Run("openssl", {"s_client", "-connect", Port(), "-nocommands"}, much);
  EXPECT_EQ(client.status, 0);
  // Not just "xx": the output also has the certificate's base64 text.
  EXPECT_EQ(client.output.find(std::string(100, 'x')), std::string::npos);
  EXPECT_EQ(m_server->Wait(), 0) << m_server->ErrorText();
}

TEST_F(FeederProbe, ServerAnswersCurl) {
  Serve({"--mode", "http", "--cert", m_identity});
  for (const Words& version : {Words{"--tlsv1.3"}, Words{"--tls-max", "1.2"}}) {
    const Outcome answer =
        Run("curl", Words{"-sS", "--cacert", m_certificate, "-w", "%{http_code}", "https://" + Port() + "/"} + version);
    EXPECT_EQ(answer.status, 0) << answer.error;
    EXPECT_EQ(answer.output, "ok\n200");
  }
  m_server->Signal(SIGTERM);
  EXPECT_EQ(m_server->Wait(), 0);
  Serve({"--mode", "http", "--cert", m_identity, "--once"});
  EXPECT_EQ(Run("curl", {"-sS", "--cacert", m_certificate, "https://" + Port() + "/"}).output, "ok\n");
  EXPECT_EQ(m_server->Wait(), 0) << m_server->ErrorText();
}

TEST_F(FeederProbe, ServerSaysHowItWent) {
  const std::string missing = m_folder.File("missing");
  EXPECT_EQ(Probe({"tls-server", "0", "--cert", missing}).status, 2);
  EXPECT_EQ(Probe({"tls-server", "0", "--pkcs12", m_pkcs12}).status, 2);
  EXPECT_EQ(Probe({"tls-server", "0", "--mode", "other"}).status, 2);
  EXPECT_EQ(Probe({"tls-server"}).status, 2);
  const Descriptor taken(PlainListener());
  EXPECT_EQ(Probe({"tls-server", std::to_string(PortOf(taken)), "--cert", m_identity}).status, 3);

  Serve({"--once", "--cert", m_identity, "--versions", "1.3"});
  Run("openssl", {"s_client", "-connect", Port(), "-tls1_2"});
  EXPECT_EQ(m_server->Wait(), 1);
  EXPECT_THAT(m_server->ErrorText(), HasSubstr("alert=Protocol version"));

  // A close_notify that anybody could have sent.
  Serve({"--once", "--cert", m_identity});
  const Descriptor stranger(PlainConnect(std::stoi(m_port)));
  PlainSend(stranger, std::string("\x15\3\3\0\2\1\0", 7));
  EXPECT_EQ(m_server->Wait(), 1);
}

TEST_F(FeederProbe, ClientSaysThatItsOutputIsLost) {
  Serve({"--cert", m_identity});
  const Outcome outcome =
      Run("sh", {"-c", std::string(kProbe) + " tls " + Port() + " --insecure >/dev/full"}, std::string(100'000, 'x'));
  EXPECT_EQ(outcome.status, 3);
  EXPECT_THAT(outcome.error, HasSubstr("standard output cannot be written"));
}

TEST_F(FeederProbe, VerifiesAChain) {
  struct Case {
    Words words;
    int status;
    const char* text;
  };
  const Case kCases[] = {
      {{"--host", "localhost", "--roots", m_certificate, m_certificate}, 0, "valid\n"},
      {{"--host", "other", m_certificate}, 1, "No certificate subject name matches target host name\n"},
      {{"--host", "localhost", "--roots", m_certificate, "--time", "2101-01-01T00:00:00Z", m_certificate},
       1,
       "The certificate has expired\n"},
      {{"--host", "localhost", m_folder.File("missing")}, 2, ""},
      {{"--host", "localhost", "--time", "tomorrow", m_certificate}, 2, ""},
  };
  for (const Case& one : kCases) {
    const Outcome outcome = Probe(Words{"verify"} + one.words);
    EXPECT_EQ(outcome.status, one.status) << outcome.error;
    EXPECT_EQ(outcome.output, one.text);
    EXPECT_EQ(outcome.error.empty(), one.status != 2);
  }
}

}  // namespace
}  // namespace quenmark::test
