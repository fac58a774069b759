// The component against Boost.Beast's server, in memory: an implementation that nobody here wrote.
#include "tests/websocket/websocket_fixture.h"

#include <boost/asio/io_context.hpp>
#include <boost/beast/_experimental/test/stream.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket.hpp>

#include <random>

namespace quenmark::test {
namespace {

namespace beast = boost::beast;
namespace net = boost::asio;

class BeastPeer : public WebsocketFixture {
 protected:
  using Server = beast::websocket::stream<beast::test::stream>;

  // Connects the component and has the server accept it. `options` as the server has them.
  void Accept(const beast::websocket::permessage_deflate& options, bool useCompression,
              const std::string& extensions = "") {
    beast::test::stream far{m_context};
    m_wire.emplace(m_context);
    m_wire->connect(far);
    m_server.emplace(std::move(far));
    m_server->set_option(options);
    m_server->read_message_max(64 << 20);
    m_server->auto_fragment(false);
    socket->SetUseCompression(useCompression);
    socket->Connect("ws://host:81/path?q=1", "", "chat", extensions);
    Wire().Establish();
    ToServer();
    m_server->accept();
    FromServer();
  }
  void ToServer() {
    const std::string bytes = Wire().TakeSent();
    beast::error_code error;
    m_wire->write_some(net::buffer(bytes), error);
  }
  // Everything the server has sent, in pieces of random size.
  void FromServer() {
    std::string bytes(m_wire->str());
    m_wire->clear();
    if (socket->readyState() == 2) return Wire().Deliver(bytes);
    while (!bytes.empty()) {
      const std::size_t size = std::min<std::size_t>(bytes.size(), 1 + m_random() % 5000);
      Wire().Deliver(bytes.substr(0, size));
      bytes.erase(0, size);
    }
  }
  std::string RandomData(std::size_t size) {
    std::string data(size, '\0');
    for (char& c : data) c = static_cast<char>('a' + m_random() % 20);
    return data;
  }

  net::io_context m_context;
  std::optional<beast::test::stream> m_wire;
  std::optional<Server> m_server;
  std::mt19937 m_random{5};
};

beast::websocket::permessage_deflate DeflateOptions(bool enable, bool serverNoContext = false, int serverBits = 15,
                                                    int clientBits = 15) {
  beast::websocket::permessage_deflate options;
  options.server_enable = enable;
  options.server_no_context_takeover = serverNoContext;
  options.server_max_window_bits = serverBits;
  options.client_max_window_bits = clientBits;
  return options;
}

TEST_F(BeastPeer, EchoWithEveryKindOfDeflate) {
  const struct {
    beast::websocket::permessage_deflate options;
    bool useCompression;
    std::string extensions;
  } rows[] = {
      {DeflateOptions(false), false, ""},
      {DeflateOptions(false), true, ""},
      {DeflateOptions(true), false, ""},
      {DeflateOptions(true), true, ""},
      {DeflateOptions(true, true), true, ""},
      {DeflateOptions(true, false, 9), true, "permessage-deflate; server_max_window_bits=9"},
      {DeflateOptions(true), true, "permessage-deflate"},  // the server keeps its context
      {DeflateOptions(true, false, 15, 9), true, "permessage-deflate; client_max_window_bits"},
  };
  for (const auto& row : rows) {
    Accept(row.options, row.useCompression, row.extensions);
    ASSERT_EQ(socket->readyState(), 1);
    const bool compressed = socket->Extensions().find("permessage-deflate") != std::string::npos;
    SCOPED_TRACE(socket->Extensions());
    for (const std::size_t size : {1u, 2u, 125u, 126u, 4088u, 4089u, 65535u, 65536u}) {
      for (const bool binary : {false, true}) {
        const std::string data = RandomData(size);
        log.clear();
        if (binary) {
          socket->Send(websocket::Bytes(data.begin(), data.end()));
        } else {
          socket->Send(data);
        }
        ToServer();
        log.clear();  // progress
        beast::flat_buffer buffer;
        m_server->read(buffer);
        EXPECT_EQ(m_server->got_binary(), binary);
        ASSERT_EQ(beast::buffers_to_string(buffer.data()), data);
        m_server->binary(binary);
        m_server->auto_fragment(size % 2 == 0);
        m_server->write(buffer.data());
        FromServer();
        ASSERT_EQ(log.size(), 1u);
        ASSERT_EQ(log[0], fmt::format("message {} {}", binary ? 2 : 1, data));
      }
    }
    EXPECT_EQ(compressed, row.options.server_enable && row.useCompression);
  }
}

TEST_F(BeastPeer, ControlFrames) {
  Accept(DeflateOptions(false), false);
  std::string pinged;
  m_server->control_callback([&](beast::websocket::frame_type kind, beast::string_view payload) {
    pinged += fmt::format("{} {};", static_cast<int>(kind), std::string(payload));
  });
  socket->Ping("from here");
  socket->Send("data");
  ToServer();
  beast::flat_buffer buffer;
  m_server->read(buffer);
  m_server->ping("from there");
  FromServer();
  EXPECT_EQ(log.back(), "pong from here");
  socket->Send("more");
  ToServer();
  m_server->read(buffer);
  EXPECT_EQ(pinged, "1 from here;2 from there;");
}

TEST_F(BeastPeer, CloseFromHere) {
  Accept(DeflateOptions(false), false);
  log.clear();
  socket->Disconnect();
  ToServer();
  beast::flat_buffer buffer;
  beast::error_code error;
  m_server->read(buffer, error);
  EXPECT_EQ(error, beast::websocket::error::closed);
  FromServer();
  EXPECT_THAT(log, testing::ElementsAre("close 1000 Normal Closure."));
  EXPECT_EQ(socket->readyState(), 0);
}

}  // namespace
}  // namespace quenmark::test
