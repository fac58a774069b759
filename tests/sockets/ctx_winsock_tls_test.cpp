// The control against TLS programs of other makes.
#include "tests/sockets/ctx_winsock_fixture.h"
#include "tests/support/certificate.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

namespace quenmark::test {
namespace {

class CtxWinsockTls : public CtxWinsockTest {
 protected:
  CtxWinsockTls() {
    MakeCertificate(m_pem, m_folder.File("certificate.pem"));
    m_listener = Descriptor(PlainListener());
    m_port = PortOf(m_listener);
    m_listener.Close();
    m_client.control->Protocol(sockets::kProtocolTls);
    m_client.control->RemoteHost("localhost");
    m_client.control->RemotePort(m_port);
  }
  // The peer needs a moment until it listens.
  bool ConnectAgainAndAgain() {
    return Wait([&] {
      if (m_client.Saw("Connect")) return true;
      if (m_client.control->State() == 9 || m_client.control->State() == 0) {
        m_client.control->Connect({}, 0, kAnyCertificate);
      }
      return false;
    });
  }

  TemporaryFolder m_folder;
  const std::string m_pem = m_folder.File("both.pem");  // key and certificate
  int m_port = 0;
};

TEST_F(CtxWinsockTls, ClientOfOtherServers) {
  const std::string port = std::to_string(m_port);
  const Names servers[] = {
      {"openssl", "s_server", "-quiet", "-accept", port, "-cert", m_pem, "-rev"},
      {"gnutls-serv", "--echo", "--port", port, "--x509certfile", m_pem, "--x509keyfile", m_pem,
       "--disable-client-cert"},
  };
  for (const Names& command : servers) {
    ChildProcess server(command[0], {command.begin() + 1, command.end()});
    ASSERT_TRUE(ConnectAgainAndAgain()) << command[0];
    m_client.control->SendData("level\n");
    ASSERT_TRUE(Wait([&] { return m_client.received == "level\n"; })) << command[0];
    EXPECT_TRUE(m_client.Saw("SendComplete"));
    m_client.control->Close_();

    // A server that nobody vouches for is an error, and no connection.
    Logged strict(New());
    strict.control->Protocol(sockets::kProtocolTls);
    strict.control->Connect("localhost", m_port, 15);
    ASSERT_TRUE(WaitFor(strict, "Error 0 80040000")) << command[0];
    EXPECT_EQ(strict.description, "The certificate or certificate chain is based on an untrusted root");
    EXPECT_FALSE(strict.Saw("Connect"));
    m_client.events.clear();
    m_client.received.clear();
  }
}

TEST_F(CtxWinsockTls, ServerOfOtherClients) {
  ASSERT_EQ(mkfifo(m_folder.File("typed").c_str(), 0600), 0);
  const Descriptor typed(open(m_folder.File("typed").c_str(), O_RDWR | O_CLOEXEC));
  for (const bool own : {true, false}) {  // a certificate of its own making or from a file
    const std::string port = std::to_string(Listen(
        sockets::kProtocolTls, [this] { Accept(); }, own ? "" : m_pem));
    const Names clients[] = {{"openssl", "s_client", "-quiet", "-connect", "127.0.0.1:" + port},
                             {"gnutls-cli", "--insecure", "--logfile=/dev/null", "--port", port, "127.0.0.1"}};
    for (const Names& command : clients) {
      ASSERT_EQ(write(typed, "question\n", 9), 9);
      m_client.reads = false;
      std::string first;
      m_client.act = [&](const std::string& event) {
        if (!event.starts_with("DataArrival")) return;
        if (first.empty()) {
          first = m_client.Get(3);  // the rest stays and arrives again
          return;
        }
        m_client.received += m_client.Get();
        if (!m_client.received.ends_with("\n")) return;
        m_client.control->SendData("answer\n");
        m_client.control->Close_();
      };
      std::string line = fmt::format("exec <'{}'", m_folder.File("typed"));  // with more to come
      for (const std::string& word : command) line += (&word == &command[0] ? "; exec " : " ") + word;
      ChildProcess peer("sh", {"-c", line});
      ASSERT_TRUE(Wait([&] { return !m_client.received.empty(); }))
          << command[0] << testing::PrintToString(m_client.events) << m_client.description << peer.ErrorText();
      EXPECT_EQ(first + m_client.received, "question\n");
      EXPECT_THAT(peer.ReadAll(), testing::EndsWith("answer\n")) << command[0];
      EXPECT_EQ(m_client.Count("Connect"), 1);
      m_client.events.clear();
      m_client.received.clear();
    }
    m_server.control->Close_();
  }
}

// A client that sends its data and close_notify in one segment, after a word from the server when it is told to wait.
constexpr const char* kOneSegmentClient = R"(
import socket, ssl, sys
received, sent = ssl.MemoryBIO(), ssl.MemoryBIO()
context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
transport = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
tls = context.wrap_bio(received, sent)
def complete(step):
  while True:
    try:
      return step()
    except ssl.SSLWantReadError:
      transport.sendall(sent.read())
      received.write(transport.recv(65536))
complete(tls.do_handshake)
transport.sendall(sent.read())
if sys.argv[2] == "wait": complete(lambda: tls.read(2))
tls.write(b"question\n")
try: tls.unwrap()
except ssl.SSLError: pass
transport.sendall(sent.read())
while transport.recv(65536): pass
)";

// Whoever reads when the data and the end of the connection arrive: nothing is lost, and Close comes last.
TEST_F(CtxWinsockTls, DataComesBeforeTheEndThatArrivesWithIt) {
  std::string text;
  const auto go = [&] { m_client.control->SendData("go"); };
  const auto readSome = [&] { text += m_client.Get(4); };
  const auto readAll = [&] { text += m_client.Get(); };
  struct Case {
    const char* name;
    std::function<void()> request, connect, arrival;
  };
  const Case cases[] = {
      {"nobody waits", {}, go, readSome},
      {"GetData waits",
       {},
       [&] {
         go();
         readSome();
       },
       readAll},
      {"PeekData waits",
       {},
       [&] {
         go();
         EXPECT_EQ(m_client.Peek(4), "ques");
       },
       readAll},
      {"the handler of the request reads", [&] { text = m_server.Get(4); }, [] {}, readAll},
      {"PeekData and GetData by turns",
       {},
       go,
       [&] {
         EXPECT_EQ(m_client.Peek(3), "que");
         EXPECT_EQ(m_client.Peek(), "stion\n");
         readSome();
         EXPECT_EQ(text, "ques");
         readAll();
       }},
  };
  m_client.reads = false;
  for (const Case& each : cases) {
    const int port = Listen(sockets::kProtocolTls, [&] {
      if (each.request) each.request();
      Accept();
    });
    m_client.act = [&](const std::string& event) {
      if (event == "Connect") each.connect();
      if (event.starts_with("DataArrival")) each.arrival();
    };
    const ChildProcess peer("/usr/bin/python3",
                            {"-c", kOneSegmentClient, std::to_string(port), each.request ? "" : "wait"});
    ASSERT_TRUE(WaitFor(m_client, "Close")) << each.name;
    EXPECT_EQ(text, "question\n") << each.name;
    EXPECT_EQ(m_client.Count("Connect"), 1) << each.name;
    EXPECT_EQ(m_client.events.back(), "Close") << each.name;
    text.clear();
    m_client.events.clear();
    m_server.control->Close_();
  }
}

// Everything a TLS socket has taken is out before SendComplete, also when the peer reads no further for a while.
TEST_F(CtxWinsockTls, CompleteOnlyWhenEverythingIsOut) {
  ChildProcess server("openssl", {"s_server", "-quiet", "-accept", std::to_string(m_port), "-cert", m_pem, "-rev"});
  m_client.reads = false;
  ASSERT_TRUE(ConnectAgainAndAgain());
  m_client.control->SockOpt(platform::kSoReceiveBuffer, platform::kSolSocket, 32 * 1024);
  m_client.control->SockOpt(platform::kSoSendBuffer, platform::kSolSocket, 32 * 1024);
  constexpr int kLines = 5000;
  std::string text;
  for (int i = 0; i < kLines; ++i) text += fmt::format("{:04}{}\n", i, std::string(3995, 'x'));
  m_client.control->SendData(text);
  m_loop.Sleep(std::chrono::milliseconds{100});
  EXPECT_FALSE(m_client.Saw("SendComplete"));  // the peer waits until its echo is taken
  m_client.reads = true;
  m_client.received = m_client.Get();
  ASSERT_TRUE(Wait([&] { return m_client.received.size() == text.size(); }));
  EXPECT_EQ(m_client.Count("SendComplete"), 1);
  EXPECT_TRUE(m_client.received.ends_with("9994\n"));
}

}  // namespace
}  // namespace quenmark::test
