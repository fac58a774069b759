#include "tests/websocket/beast_server.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <atomic>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>

namespace quenmark::test {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;

int Hex(char c) {
  return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
}

std::map<std::string, std::string> Asked(std::string_view target) {
  std::map<std::string, std::string> asked;
  target.remove_prefix(std::min(target.find('?'), target.size() - 1) + 1);
  while (!target.empty()) {
    const std::string_view pair = target.substr(0, target.find('&'));
    target.remove_prefix(std::min(pair.size() + 1, target.size()));
    const std::size_t equals = std::min(pair.find('='), pair.size() - 1);
    std::string& value = asked[std::string(pair.substr(0, equals))];
    for (std::size_t i = equals + 1; i < pair.size(); ++i) {
      const bool encoded = pair[i] == '%' && i + 2 < pair.size();
      value += encoded ? static_cast<char>(Hex(pair[i + 1]) * 16 + Hex(pair[i + 2])) : pair[i];
      if (encoded) i += 2;
    }
  }
  return asked;
}

beast::websocket::permessage_deflate Deflate(const std::string& kind) {
  beast::websocket::permessage_deflate options;
  options.server_enable = !kind.empty() && kind != "off";
  options.server_no_context_takeover = kind == "server_no_context_takeover";
  options.client_no_context_takeover = kind == "client_no_context_takeover";
  if (kind == "server_max_window_bits=9") options.server_max_window_bits = 9;
  if (kind == "client_max_window_bits=10") options.client_max_window_bits = 10;
  return options;
}

template <typename Stream>
void Echo(beast::websocket::stream<Stream>& socket) {
  std::mt19937 random{7};
  beast::flat_buffer buffer;
  for (;;) {
    socket.read(buffer);
    socket.binary(socket.got_binary());
    auto left = buffer.data();
    while (random() % 5 != 0 && left.size() > 0) {
      const std::size_t size = random() % left.size();
      socket.write_some(false, asio::buffer(left, size));
      socket.ping("between");
      left += size;
    }
    socket.write_some(true, left);
    buffer.consume(buffer.size());
  }
}

template <typename Stream>
void Serve(Stream stream) {
  beast::flat_buffer buffer;
  http::request<http::empty_body> request;
  http::read(stream, buffer, request);
  auto asked = Asked({request.target().data(), request.target().size()});
  if (asked.count("status") != 0) {
    http::response<http::empty_body> response;
    response.result(static_cast<unsigned>(std::stoi(asked["status"])));
    if (asked.count("to") != 0) response.set(http::field::location, asked["to"]);
    response.prepare_payload();
    http::write(stream, response);
    return;
  }
  beast::websocket::stream<Stream> socket(std::move(stream));
  socket.set_option(Deflate(asked["deflate"]));
  socket.read_message_max(64 << 20);
  socket.auto_fragment(false);
  std::string offered(request[http::field::sec_websocket_protocol]);
  socket.set_option(beast::websocket::stream_base::decorator([&offered](beast::websocket::response_type& response) {
    if (offered.empty()) return;
    response.set(http::field::sec_websocket_protocol, offered.substr(offered.rfind(' ') + 1));
  }));
  socket.accept(request);
  if (asked.count("vanish") != 0) return;
  if (asked.count("close") != 0) {
    const auto code = static_cast<beast::websocket::close_code>(std::stoi(asked["close"]));
    return socket.close({code, beast::string_view(asked["reason"])});
  }
  Echo(socket);
}

}  // namespace

struct BeastServer::State {
  explicit State(const std::string& pemFile) {
    tls.use_certificate_chain_file(pemFile);
    tls.use_private_key_file(pemFile, asio::ssl::context::pem);
  }
  // One connection after the other, until the owner's own.
  void Run(tcp::acceptor& acceptor, bool useTls) {
    for (;;) {
      tcp::socket socket = acceptor.accept();
      if (stopping) return;
      try {
        if (!useTls) {
          Serve(std::move(socket));
          continue;
        }
        asio::ssl::stream<tcp::socket> stream(std::move(socket), tls);
        stream.handshake(asio::ssl::stream_base::server);
        Serve(std::move(stream));
      } catch (const std::exception&) {
        // the client has gone
      }
    }
  }

  asio::io_context context;
  asio::ssl::context tls{asio::ssl::context::tls_server};
  std::atomic<bool> stopping{false};
  tcp::acceptor acceptors[2] = {{context, {asio::ip::address_v4::loopback(), 0}},
                                {context, {asio::ip::address_v4::loopback(), 0}}};
  std::thread threads[2] = {std::thread([this] { Run(acceptors[0], false); }),
                            std::thread([this] { Run(acceptors[1], true); })};
};

BeastServer::BeastServer(const std::string& pemFile) : m_state(std::make_unique<State>(pemFile)) {}

BeastServer::~BeastServer() {
  m_state->stopping = true;
  for (const bool useTls : {false, true}) {
    tcp::socket knock(m_state->context);
    beast::error_code ignored;
    knock.connect(m_state->acceptors[useTls].local_endpoint(), ignored);
    m_state->threads[useTls].join();
  }
}

int BeastServer::Port(bool useTls) const {
  return m_state->acceptors[useTls].local_endpoint().port();
}

}  // namespace quenmark::test
