// HTTP/1.1 on 127.0.0.1, with or without TLS, in front of a Service. Everything runs on the io_context's thread.
#pragma once

#include "simulator/service.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace quenmark::simulator {

inline constexpr std::uint32_t kHeadLimit = 160 * 1024;        // bytes of request line and headers; 431 beyond
inline constexpr std::uint64_t kRequestBodyLimit = 1'048'576;  // bytes; 413 beyond
inline constexpr long kConnectionLimit = 512;                  // per server; more are closed at once

class HttpServer {
 public:
  // Listens at once. Port 0 takes a free one. `tls` null serves plain HTTP. io, tls and service must outlive the
  // server. Throws boost::system::system_error when the port is taken.
  HttpServer(boost::asio::io_context& io, boost::asio::ssl::context* tls, std::uint16_t port, Service& service);

  std::uint16_t Port() const;

 private:
  void Accept();

  boost::asio::io_context& m_io;
  boost::asio::ssl::context* m_tls;
  Service& m_service;
  boost::asio::ip::tcp::acceptor m_acceptor;
  std::shared_ptr<int> m_connections = std::make_shared<int>(0);  // its owners beside this one are the open connections
};

}  // namespace quenmark::simulator
