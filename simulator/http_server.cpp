#include "simulator/http_server.h"

#include "simulator/http_session.h"

#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include <chrono>
#include <utility>

namespace quenmark::simulator {
namespace {

using boost::asio::ip::tcp;

constexpr std::chrono::milliseconds kAcceptPause{50};  // after a failed accept, when descriptors are short

}  // namespace

HttpServer::HttpServer(boost::asio::io_context& io, boost::asio::ssl::context* tls, std::uint16_t port,
                       Service& service)
    : m_io(io),
      m_tls(tls),
      m_service(service),
      m_acceptor(io, tcp::endpoint{boost::asio::ip::address_v4::loopback(), port}) {
  Accept();
}

std::uint16_t HttpServer::Port() const {
  return m_acceptor.local_endpoint().port();
}

void HttpServer::Accept() {
  m_acceptor.async_accept([this](boost::system::error_code error, tcp::socket socket) {
    if (error == boost::asio::error::operation_aborted) return;
    if (error) {
      auto pause = std::make_shared<boost::asio::steady_timer>(m_io, kAcceptPause);
      pause->async_wait([this, pause](boost::system::error_code stopped) {
        if (!stopped) Accept();
      });
      return;
    }
    if (m_connections.use_count() <= kConnectionLimit) {
      boost::system::error_code ignored;
      socket.set_option(tcp::no_delay{true}, ignored);
      if (m_tls != nullptr) {
        StartTlsSession(std::move(socket), *m_tls, m_service, m_connections);
      } else {
        StartPlainSession(std::move(socket), m_service, m_connections);
      }
    }
    Accept();
  });
}

}  // namespace quenmark::simulator
