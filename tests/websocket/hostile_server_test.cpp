// Servers that vanish, stall, stop half-way or send what nobody should: the component over sockets, and feeder-probe.
#include "platform/clock.h"
#include "tests/support/certificate.h"
#include "tests/support/child_process.h"
#include "tests/support/plain_socket.h"
#include "tests/support/temporary_folder.h"
#include "tests/websocket/websocket_fixture.h"
#include "websocket/tls_transport.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>

#include <exception>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace quenmark::test {
namespace {

namespace asio = boost::asio;
using testing::HasSubstr;

enum class End { kFinish, kReset, kStall };

// A client's connection, with TLS when there is a certificate.
class Stream {
 public:
  Stream(int client, const std::string& pem)
      : m_socket(m_context, asio::ip::tcp::v4(), client), m_secured(!pem.empty()) {
    m_socket.set_option(asio::ip::tcp::no_delay(true));  // a reset overtakes what Nagle's algorithm holds back
    if (!m_secured) return;
    m_tls.use_certificate_chain_file(pem);
    m_tls.use_private_key_file(pem, asio::ssl::context::pem);
    m_stream.emplace(m_socket, m_tls);
    m_stream->handshake(asio::ssl::stream_base::server);
  }
  void Send(const std::string& data) {
    m_secured ? asio::write(*m_stream, asio::buffer(data)) : asio::write(m_socket, asio::buffer(data));
  }
  // What has come; throws at the end.
  std::string Receive() {
    char data[65536];
    return {data, m_secured ? m_stream->read_some(asio::buffer(data)) : m_socket.read_some(asio::buffer(data))};
  }
  void Reset() {
    m_socket.set_option(asio::socket_base::linger(true, 0));
    m_socket.close();
  }

 private:
  asio::io_context m_context;
  asio::ip::tcp::socket m_socket;
  const bool m_secured;
  asio::ssl::context m_tls{asio::ssl::context::tls_server};
  std::optional<asio::ssl::stream<asio::ip::tcp::socket&>> m_stream;
};

// Takes one client, sends the pieces one by one and ends. Stalling lasts until the client goes. A "101" in front of
// everything is made into the answer that fits the request.
class Script {
 public:
  Script(std::vector<std::string> pieces, End end, std::string pem = {})
      : m_pem(std::move(pem)), m_thread([this, pieces = std::move(pieces), end] {
          try {
            Run(pieces, end);
          } catch (const std::exception&) {
            // the client has gone
          }
        }) {}
  ~Script() { m_thread.join(); }

  std::string Address() const {
    return fmt::format("ws{}://localhost:{}/", m_pem.empty() ? "" : "s", PortOf(m_listener));
  }

 private:
  void Run(const std::vector<std::string>& pieces, End end) {
    Stream client(PlainAccept(m_listener), m_pem);
    std::string request;
    while (request.find("\r\n\r\n") == std::string::npos) request += client.Receive();
    for (const std::string& piece : pieces)
      client.Send(piece == "101" ? UpgradeAnswer(request, "Sec-WebSocket-Extensions: permessage-deflate\r\n") : piece);
    if (end == End::kReset) client.Reset();
    while (end == End::kStall) client.Receive();
  }

  const std::string m_pem;
  Descriptor m_listener{PlainListener()};
  std::thread m_thread;
};

std::vector<std::string> ByteByByte(const std::string& bytes) {
  std::vector<std::string> pieces{"101"};
  for (const char byte : bytes) pieces.emplace_back(1, byte);
  return pieces;
}

TEST(HostileServer, EveryEndIsTold) {
  const std::string refused = "error 1007 Cannot connect! Incoming Header Data Corrupted. Please try again.";
  const std::string reset =
      "error 1016 Event Type: Close 10054:  Description: An existing connection was forcibly closed by the remote "
      "host.";
  const std::string closed = "close 1000 Normal Closure.";
  const std::string tooBig = "error 1009 A Message was To Large or Corrupted.";
  const struct {
    std::vector<std::string> pieces;
    End end;
    std::vector<std::string> log;
  } rows[] = {
      {{}, End::kFinish, {closed}},
      {{}, End::kReset, {reset}},
      {{"HTTP/1.1 101 Sw"}, End::kStall, {refused}},
      {{"\x16\x03\x01 no web server at all"}, End::kStall, {refused}},
      {{"101"}, End::kFinish, {"connect", closed}},
      {{"101"}, End::kReset, {"connect", reset}},
      {{"101", ServerFrame(0x81, "half of this").substr(0, 8)}, End::kFinish, {"connect", closed}},
      {ByteByByte(ServerFrame(0x81, "one") + ServerFrame(0x01, "tw") + ServerFrame(0x89, "") + ServerFrame(0x80, "o") +
                  ServerFrame(0x88, "\x03\xE9 bye")),
       End::kStall,
       {"connect", "message 1 one", "message 1 two", "close 1001  bye"}},
      {{"101", LongHeader(0x82, 0x80000000) + "some of it"}, End::kStall, {"connect", tooBig}},
      {{"101", std::string(1000, '\xFF')}, End::kStall, {"connect", tooBig}},
  };
  const TemporaryFolder folder;
  MakeCertificate(folder.File("both.pem"), folder.File("certificate.pem"));
  for (std::size_t i = 0; i < 2 * std::size(rows); ++i) {
    const auto& row = rows[i / 2];
    const bool useTls = i % 2 == 1;
    SCOPED_TRACE(fmt::format("row {} tls {}", i / 2, useTls));
    Script server(row.pieces, row.end, useTls ? folder.File("both.pem") : "");
    platform::SystemClock clock;
    platform::MessageLoop loop{clock};
    std::vector<std::string> log;
    websocket::WebsocketEvents events = LineHandlers([&](const Line& line) { log.push_back(line()); });
    events.OnConnect = [&](const auto&...) { log.emplace_back("connect"); };
    const auto services =
        websocket::MakeWebsocketServices(loop, tls::MakeCertificateServices(loop), folder.File("certificate.pem"));
    websocket::Websocket socket(loop, services, events);
    socket.Connect(server.Address());
    EXPECT_TRUE(
        loop.WaitUntil([&] { return log.size() >= row.log.size(); }, clock.Monotonic() + std::chrono::seconds(20)));
    loop.RunQueued();
    socket.Disconnect();  // a second time for the ones that failed
    socket.Disconnect();
    EXPECT_EQ(socket.readyState(), 0);
    EXPECT_EQ(log, row.log);
  }
}

struct Outcome {
  int status = -1;
  std::string output;
  std::string errors;
};

// With that much address space, in KB.
Outcome RunProbe(std::vector<std::string> arguments, int memory = 0) {
  std::string command = memory == 0 ? "" : fmt::format("ulimit -v {}; ", memory);
  arguments.insert(arguments.begin(), {"-c", command + "exec \"$0\" ws \"$@\"", BIN_DIR "/feeder-probe"});
  ChildProcess probe("/bin/sh", arguments);
  Outcome outcome;
  outcome.output = probe.ReadAll();
  outcome.status = probe.Wait().value_or(-1);
  outcome.errors = probe.ErrorText();
  return outcome;
}

// The limits of 64 MB hold for the whole process; a sanitizer's own memory forbids the measurement.
TEST(HostileServer, MemoryStaysBounded) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "address space is not limited under a sanitizer";
#endif
  const std::string bomb = ServerFrame(0xC2, Deflated(std::string(std::size_t{80} << 20, '\0')));
  std::string endless;  // fragments of 1 MB without an end
  for (int i = 0; i < 80; ++i) endless += ServerFrame(i == 0 ? 0x02 : 0x00, std::string(std::size_t{1} << 20, 'x'));
  std::string pings;  // while nobody reads the pongs
  for (int i = 0; i < 100; ++i) pings += ServerFrame(0x89, std::string(std::size_t{1} << 20, 'p'));
  pings += ServerFrame(0x88, "\x03\xE9");
  const struct {
    std::string frames;
    std::string expected;
    int memory = 320 * 1024;
  } rows[] = {
      {std::move(pings), "closed 1001 Server is Going Away.", 160 * 1024},
      {bomb + bomb, "error 1011 Orvaline was unable to decompress incoming data."},
      {endless, "error 1009 A Message was To Large or Corrupted."},
      {LongHeader(0x82, 0x7FFFFFFF), "error 1009 A Message was To Large or Corrupted."},
  };
  const TemporaryFolder folder;
  MakeCertificate(folder.File("both.pem"), folder.File("certificate.pem"));
  for (std::size_t i = 0; i < 2 * std::size(rows); ++i) {
    const auto& row = rows[i / 2];
    Script server({"101", row.frames}, End::kStall, i % 2 == 1 ? folder.File("both.pem") : "");
    const Outcome outcome =
        RunProbe({server.Address(), "--compress", "--ca", folder.File("certificate.pem")}, row.memory);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr(row.expected));
    EXPECT_EQ(outcome.output, "");
  }
}

TEST(FeederProbe, OptionsOutputAndStatus) {
  const std::string talk = ServerFrame(0x81, "one\xE2\x82\xAC") + ServerFrame(0x82, std::string("\x00\xFF", 2)) +
                           ServerFrame(0x8A, "p\x1B") + ServerFrame(0x81, "") + ServerFrame(0x83, "!");
  const std::string bye = ServerFrame(0x88, "\x03\xE8");
  const std::string away = ServerFrame(0x88, "\x03\xE9");
  const struct {
    std::vector<std::string> pieces;
    std::vector<std::string> arguments;
    int status;
    std::string output;
    std::string errors;  // a part
  } rows[] = {
      {{"101", talk + bye}, {}, 0, "one\xE2\x82\xAC\n00ff\n\n21\n", "pong p \nclosed 1000 Normal Closure.\n"},
      {{"101", talk + away}, {"--count", "9"}, 1, "one\xE2\x82\xAC\n00ff\n\n21\n", "closed 1001 Server is Going Away."},
      {{"101", talk}, {"--count", "2"}, 0, "one\xE2\x82\xAC\n00ff\n", "connected host=localhost"},
      {{"101"}, {"--timeout", "50"}, 0, "", "connected"},
      {{"101"}, {"--timeout", "50", "--count", "1"}, 1, "", "timed out"},
      {{}, {"--timeout", "50"}, 1, "", "timed out"},
      {{"HTTP/1.1 404 No\r\n\r\n"}, {}, 1, "", "error 1002 404: Resource Not Found.\n"},
      {{"HTTP/1.1 305 No\r\n\r\n"}, {}, 1, "", "closed 1014 The server requires a proxy"},
  };
  for (const auto& row : rows) {
    Script server(row.pieces, End::kStall);
    std::vector<std::string> arguments{server.Address()};
    arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
    const Outcome outcome = RunProbe(arguments);
    EXPECT_EQ(outcome.status, row.status) << outcome.errors;
    EXPECT_EQ(outcome.output, row.output);
    EXPECT_THAT(outcome.errors, HasSubstr(row.errors));
  }
  const std::vector<std::string> misuses[] = {{},
                                              {"ws://h/", "--no-such"},
                                              {"ws://h/", "--header", "no colon"},
                                              {"ws://h/", "--header", "A: b\r\nC: d"},
                                              {"ws://h/", "--ca", "/no/such/file"},
                                              {"ws://h/", "--binary", "/no/such/file"},
                                              {"ws://h/", "--count", "0"}};
  for (const auto& misuse : misuses) EXPECT_EQ(RunProbe(misuse).status, 2) << testing::PrintToString(misuse);
  EXPECT_EQ(RunProbe({"http://h/"}).status, 1);
}

}  // namespace
}  // namespace quenmark::test
