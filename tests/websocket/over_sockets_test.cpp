// The component over this system's sockets against a Boost.Beast echo server on loopback.
#include "platform/clock.h"
#include "tests/websocket/websocket_fixture.h"
#include "websocket/tls_transport.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket.hpp>

#include <thread>

namespace quenmark::test {
namespace {

namespace beast = boost::beast;
using boost::asio::ip::tcp;

class OverSockets : public testing::Test {
 protected:
  OverSockets() {
    m_server = std::thread([this] {
      beast::websocket::stream<tcp::socket> stream(m_acceptor.accept());
      beast::websocket::permessage_deflate options;
      options.server_enable = true;
      stream.set_option(options);
      stream.read_message_max(64 << 20);
      beast::error_code error;
      stream.accept(error);
      beast::flat_buffer buffer;
      for (;;) {
        stream.read(buffer, error);
        if (error) return;
        stream.binary(stream.got_binary());
        stream.write(buffer.data(), error);
        if (error) return;
        buffer.consume(buffer.size());
      }
    });
    websocket::WebsocketEvents events;
    events.OnMessage = [this](const websocket::MessageData& data, std::int32_t type) {
      received.emplace_back(type, data.Text());
    };
    events.OnClose = [this](std::int32_t code, const std::string&) { closed = code; };
    events.OnError = [](std::int32_t code, const std::string& text) { ADD_FAILURE() << code << " " << text; };
    socket =
        std::make_unique<websocket::Websocket>(loop, websocket::MakeWebsocketServices(loop, {}), std::move(events));
  }
  ~OverSockets() override {
    socket.reset();
    m_server.join();
  }
  void Connect() {
    socket->Connect(fmt::format("ws://127.0.0.1:{}/echo", m_acceptor.local_endpoint().port()));
    Await([this] { return socket->readyState() == 1; });
  }
  void Await(const std::function<bool()>& done) {
    ASSERT_TRUE(loop.WaitUntil(done, clock.Monotonic() + std::chrono::seconds(60)));
  }

  platform::SystemClock clock;
  platform::MessageLoop loop{clock};
  std::unique_ptr<websocket::Websocket> socket;
  std::vector<std::pair<std::int32_t, std::string>> received;
  std::int32_t closed = 0;

 private:
  boost::asio::io_context m_context;
  tcp::acceptor m_acceptor{m_context, {boost::asio::ip::address_v4::loopback(), 0}};
  std::thread m_server;
};

// More than the socket takes at once, in both directions.
TEST_F(OverSockets, LargeMessagesComeBackWhole) {
  Connect();
  std::string data(std::size_t{16} << 20, '\0');
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 2654435761u >> 24);
  socket->SetChunkSize(100000);
  socket->Send(websocket::Bytes(data.begin(), data.end()));
  socket->Send("behind it");
  Await([this] { return received.size() == 2; });
  EXPECT_EQ(received[0].first, 2);
  EXPECT_TRUE(received[0].second == data);
  EXPECT_EQ(received[1], (std::pair<std::int32_t, std::string>{1, "behind it"}));
}

TEST_F(OverSockets, ManyCompressedMessagesThenClose) {
  socket->SetUseCompression(true);
  Connect();
  for (int i = 0; i < 500; ++i) socket->Send(fmt::format("message {} {}", i, std::string(300, 'x')));
  Await([this] { return received.size() == 500; });
  EXPECT_EQ(received[499].second, "message 499 " + std::string(300, 'x'));
  socket->Disconnect();
  Await([this] { return socket->readyState() == 0; });
  EXPECT_EQ(closed, 1000);
}

}  // namespace
}  // namespace quenmark::test
