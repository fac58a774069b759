// TLS sockets against the command-line programs of OpenSSL and GnuTLS, in both roles, over loopback. RSA-PSS keys are
// left out: the installed gnutls-serv does not take one for TLS 1.2.
#include "tests/support/eventually.h"
#include "tests/tls/tls_socket_fixture.h"
#include "tests/tls/tool.h"

#include <fstream>

namespace quenmark::test {
namespace {

using Words = std::vector<std::string>;

struct Row {
  const char* suite;
  KeyKind key;
  const char* exchange;  // the rest in the words of GnuTLS; TLS 1.3 when empty
  const char* cipher;
  const char* mac;
  const char* groups;

  std::string Priority() const {
    const bool tls13 = *exchange == '\0';
    return fmt::format("NONE:+SIGN-ALL:+CTYPE-ALL:+COMP-NULL:+{}:+{}:+{}:+{}", tls13 ? "VERS-TLS1.3" : "VERS-TLS1.2",
                       cipher, mac, groups) +
           (tls13 ? "" : fmt::format(":+{}", exchange));
  }
};

constexpr auto kP256 = KeyKind::kP256;
constexpr auto kRsa = KeyKind::kRsa2048;
constexpr const char* kEcdsa = "ECDHE-ECDSA";
constexpr const char* kEcRsa = "ECDHE-RSA";
constexpr const char* kX25519 = "GROUP-X25519:+GROUP-SECP256R1";
constexpr const char* kSecp256 = "GROUP-SECP256R1";
constexpr const char* kSecp384 = "GROUP-SECP384R1:+GROUP-SECP256R1";
// clang-format off
constexpr Row kRows[] = {
    {"TLS_AES_128_GCM_SHA256",        kP256,              "",     "AES-128-GCM",       "AEAD", "GROUP-X25519"},
    {"TLS_AES_256_GCM_SHA384",        kRsa,               "",     "AES-256-GCM",       "AEAD", kSecp256},
    {"TLS_CHACHA20_POLY1305_SHA256",  KeyKind::kP384,     "",     "CHACHA20-POLY1305", "AEAD", "GROUP-SECP384R1"},
    {"TLS_AES_256_GCM_SHA384",        KeyKind::kRsa4096,  "",     "AES-256-GCM",       "AEAD", "GROUP-X25519"},
    {"ECDHE-ECDSA-AES128-GCM-SHA256", kP256,              kEcdsa, "AES-128-GCM",       "AEAD", kX25519},
    {"ECDHE-ECDSA-AES256-GCM-SHA384", kP256,              kEcdsa, "AES-256-GCM",       "AEAD", kSecp256},
    {"ECDHE-ECDSA-CHACHA20-POLY1305", kP256,              kEcdsa, "CHACHA20-POLY1305", "AEAD", kX25519},
    {"ECDHE-ECDSA-AES128-SHA",        kP256,              kEcdsa, "AES-128-CBC",       "SHA1", kSecp384},
    {"ECDHE-ECDSA-AES256-SHA",        kP256,              kEcdsa, "AES-256-CBC",       "SHA1", kX25519},
    {"ECDHE-RSA-AES128-GCM-SHA256",   kRsa,               kEcRsa, "AES-128-GCM",       "AEAD", kX25519},
    {"ECDHE-RSA-AES256-GCM-SHA384",   kRsa,               kEcRsa, "AES-256-GCM",       "AEAD", kSecp256},
    {"ECDHE-RSA-CHACHA20-POLY1305",   kRsa,               kEcRsa, "CHACHA20-POLY1305", "AEAD", kX25519},
    {"ECDHE-RSA-AES128-SHA",          kRsa,               kEcRsa, "AES-128-CBC",       "SHA1", kSecp384},
    {"ECDHE-RSA-AES256-SHA",          kRsa,               kEcRsa, "AES-256-CBC",       "SHA1", kX25519},
    {"AES128-GCM-SHA256",             kRsa,               "RSA",  "AES-128-GCM",       "AEAD", kX25519},
    {"AES256-GCM-SHA384",             kRsa,               "RSA",  "AES-256-GCM",       "AEAD", kX25519},
    {"AES128-SHA",                    kRsa,               "RSA",  "AES-128-CBC",       "SHA1", kX25519},
    {"AES256-SHA",                    kRsa,               "RSA",  "AES-256-CBC",       "SHA1", kX25519},
};
// clang-format on

std::string Line(std::size_t size) {
  std::string line(size, '\n');
  for (std::size_t i = 0; i + 1 < size; ++i) line[i] = static_cast<char>('a' + i % 26);
  return line;
}

class TlsSocketInterop : public testing::Test, protected TlsSocketFixture {
 protected:
  TlsSocketInterop() {
    m_owner->certificate = [this](cTlsSocket&) {
      m_socket->SetLocalCertificates({IdentityOf(m_clientKey).certificate});
      m_socket->SetLocalPrivateKey(IdentityOf(m_clientKey).privateKey);
      return true;
    };
  }
  std::string PemOf(KeyKind key) {
    const std::string path = m_folder.File(KindName(key) + ".pem");
    std::ofstream(path) << IdentityOf(key).certificatePem << IdentityOf(key).privateKeyPem;
    return path;
  }
  static void PutPort(Words& words, int port) {
    for (std::string& word : words) {
      if (const std::size_t at = word.find("@PORT"); at != std::string::npos) word.replace(at, 5, std::to_string(port));
    }
  }
  // Starts a server program, its port put in place of "@PORT", and connects to it.
  ::testing::AssertionResult ConnectTo(Words words) {
    m_listener = Descriptor(PlainListener());
    const int port = PortOf(m_listener);
    m_listener.Close();  // a port that is free now
    PutPort(words, port);
    m_tool = std::make_unique<Tool>(std::move(words));
    m_owner->events.clear();
    m_owner->received.clear();
    const bool connected = Eventually([&] {
      m_socket = NewSocket();
      return m_socket->SyncConnect("localhost", port, 5000) || m_socket->Engine().lastError.number != 0;
    });
    if (connected && !m_socket->IsClosed()) return testing::AssertionSuccess();
    return testing::AssertionFailure() << m_socket->LastError().description << m_tool->Process().ErrorText();
  }
  void ConnectToOpenssl(KeyKind key, const Words& more) {
    Words words = {"openssl", "s_server", "-accept", "@PORT", "-cert", PemOf(key), "-key", PemOf(key), "-naccept", "1"};
    words.insert(words.end(), more.begin(), more.end());
    ASSERT_TRUE(ConnectTo(words));
  }
  void ConnectToGnutls(KeyKind key, const std::string& priority, const std::string& client = "--disable-client-cert") {
    ASSERT_TRUE(ConnectTo({"gnutls-serv", "--echo", "--x509certfile", PemOf(key), "--x509keyfile", PemOf(key),
                           "--priority", priority, "-p", "@PORT", client}));
  }
  // Listens, starts a client program, its port put in place of "@PORT", and waits until it is connected.
  void AcceptFrom(KeyKind key, Words words) {
    m_owner->events.clear();
    m_owner->received.clear();
    m_socket.reset();
    m_server = NewSocket();
    std::string address;
    std::int32_t port = 0;
    const Identity& own = IdentityOf(key);
    ASSERT_TRUE(m_server->Create() && m_server->Bind("127.0.0.1", 0) && m_server->Listen() &&
                m_server->GetSockName(address, port) &&
                m_server->InitServerTls({}, {}, {}, {own.certificate}, own.privateKey, "one|two"));
    m_owner->act = [this](cTlsSocket& socket, const std::string& event) {
      if (event == "OnAccept" && socket.Accept(m_socket)) m_socket->SetEvents(m_owner);
    };
    PutPort(words, port);
    m_tool = std::make_unique<Tool>(std::move(words));
    ASSERT_TRUE(WaitFor("OnConnect")) << m_tool->Process().ErrorText();
  }
  // What is sent comes back.
  void ExpectEcho(std::size_t size) {
    m_owner->received.clear();
    ASSERT_TRUE(m_socket->SendText(Line(size)));
    EXPECT_TRUE(Wait([&] { return m_owner->received == Line(size); }))
        << m_owner->received.size() << m_socket->LastError().description;
  }
  // The program's user types a line here and reads one there.
  void ExpectTalk(const std::string& text) {
    m_owner->received.clear();
    m_tool->Type("to us " + text + "\n");
    EXPECT_TRUE(Wait([&] { return m_owner->received == "to us " + text + "\n"; }))
        << m_owner->received << m_socket->LastError().description;
    ASSERT_TRUE(m_socket->SendText("from us " + text + "\n"));
    EXPECT_TRUE(m_tool->Prints("from us " + text)) << m_tool->Process().ErrorText();
  }
  std::ptrdiff_t Count(std::string_view event) const {
    return std::count(m_owner->events.begin(), m_owner->events.end(), event);
  }

  TemporaryFolder m_folder;
  KeyKind m_clientKey = kP256;
  std::unique_ptr<Tool> m_tool;
  std::shared_ptr<cTlsSocket> m_server;
};

TEST_F(TlsSocketInterop, GnutlsWithEverySuiteInBothRoles) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.Priority() + " " + KindName(row.key));
    ConnectToGnutls(row.key, row.Priority());
    if (HasFatalFailure()) return;
    EXPECT_EQ(m_socket->Engine().cipherSuite->name, row.suite);
    ExpectEcho(2000);

    AcceptFrom(row.key, {"gnutls-cli", "--insecure", "--logfile=/dev/null", "--priority", row.Priority(), "-p", "@PORT",
                         "localhost"});
    if (HasFatalFailure()) return;
    EXPECT_EQ(m_socket->Engine().cipherSuite->name, row.suite);
    ExpectTalk(row.suite);
    m_socket->Close_();
    EXPECT_TRUE(Wait([&] { return !m_tool->Process().Running(); }));
  }
}

TEST_F(TlsSocketInterop, OpensslInBothRoles) {
  struct Case {
    Words words;
    const char* group;
    std::uint16_t version;
  };
  const Case kCases[] = {{{"-tls1_2"}, "X25519", 0x0303},
                         {{"-tls1_3"}, "X25519", 0x0304},
                         {{"-tls1_3", "-groups", "P-384"}, "secp384r1", 0x0304},  // by way of a HelloRetryRequest
                         {{"-tls1_2", "-cipher", "AES256-SHA"}, nullptr, 0x0303}};
  for (const Case& one : kCases) {
    ConnectToOpenssl(kRsa, one.words);
    if (HasFatalFailure()) return;
    EXPECT_EQ(m_socket->Engine().protocolVersion, one.version);
    ExpectTalk("as a client");
    m_socket->Close_();
    EXPECT_TRUE(WaitFor("OnClose 0"));

    Words words = {"openssl", "s_client", "-connect", "localhost:@PORT", "-alpn", "two", "-noservername"};
    words.insert(words.end(), one.words.begin(), one.words.end());
    AcceptFrom(kRsa, words);
    if (HasFatalFailure()) return;
    EXPECT_EQ(m_socket->Engine().protocolVersion, one.version);
    EXPECT_EQ(m_socket->AlpnNegotiated(), "two");
    ExpectTalk("as a server");
    m_tool->Type("Q\n");
    EXPECT_TRUE(WaitFor("OnClose 0"));
    EXPECT_TRUE(m_socket->PeerClosedCleanly());
  }
}

TEST_F(TlsSocketInterop, ClientCertificates) {
  for (const KeyKind key : {kP256, KeyKind::kP384, kRsa}) {
    m_clientKey = key;
    for (const std::string version : {"1.2", "1.3"}) {
      SCOPED_TRACE(version + " " + KindName(key));
      ConnectToGnutls(kRsa, "NORMAL:-VERS-ALL:+VERS-TLS" + version, "--require-client-cert");
      if (HasFatalFailure()) return;
      EXPECT_EQ(Count("OnClientCertificate"), 1);
      ExpectEcho(50);
      ConnectToOpenssl(kRsa, {"-Verify", "1", version == "1.2" ? "-tls1_2" : "-tls1_3"});
      if (HasFatalFailure()) return;
      EXPECT_EQ(Count("OnClientCertificate"), 1);
      ExpectTalk("known");
    }
  }
}

TEST_F(TlsSocketInterop, PostHandshakeAuthentication) {
  ConnectToGnutls(kRsa, "NORMAL:-VERS-ALL:+VERS-TLS1.3");
  ASSERT_TRUE(m_socket->SendText("**REAUTH**\n"));
  ASSERT_TRUE(WaitFor("OnClientCertificate"));
  ASSERT_TRUE(Wait([&] { return !m_owner->received.empty(); }));
  ExpectEcho(50);

  ConnectToOpenssl(kRsa, {"-tls1_3"});
  m_tool->Type("c\n");
  ASSERT_TRUE(WaitFor("OnClientCertificate"));
  ExpectTalk("known");
}

// Not with gnutls-serv, which answers the command with application data in the middle of the handshake.
TEST_F(TlsSocketInterop, Renegotiation) {
  ConnectToOpenssl(kRsa, {"-tls1_2"});
  int rounds = 1;
  for (const char* command : {"r\n", "R\n"}) {  // the second one asks for a certificate
    m_tool->Type(command);
    ++rounds;
    ASSERT_TRUE(Wait([&] { return m_judge->asked == rounds; }));
    ExpectTalk("again");
  }
  EXPECT_EQ(Count("OnClientCertificate"), 1);
  EXPECT_EQ(Count("OnConnect"), 1);
}

TEST_F(TlsSocketInterop, KeyUpdates) {
  const auto secret = [&] { return ToHex(m_socket->Engine().remote.trafficSecret.View()); };
  const auto expectNewKeys = [&](const std::string& command) {
    SCOPED_TRACE(command);
    const std::string before = secret();
    m_tool->Type(command);
    EXPECT_TRUE(Wait([&] { return secret() != before; }));
    ExpectTalk("renewed");
  };
  ConnectToOpenssl(kP256, {"-tls1_3"});
  expectNewKeys("k\n");
  expectNewKeys("K\n");
  AcceptFrom(kP256, {"openssl", "s_client", "-tls1_3", "-connect", "localhost:@PORT"});
  expectNewKeys("k\n");
  expectNewKeys("K\n");
  AcceptFrom(kP256, {"gnutls-cli", "--insecure", "--inline-commands", "--logfile=/dev/null", "--priority",
                     "NORMAL:-VERS-ALL:+VERS-TLS1.3", "-p", "@PORT", "localhost"});
  expectNewKeys("^rekey^\n");
  expectNewKeys("^rekey1^\n");
}

}  // namespace
}  // namespace quenmark::test
