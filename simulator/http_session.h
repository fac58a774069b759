// One connection: reads requests, hands them to the Service and writes the answers, until either side ends it.
#pragma once

#include "simulator/service.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include <memory>

namespace quenmark::simulator {

// A session lives as long as its connection and holds `connection` meanwhile. `service` and `tls` must outlive it.
void StartPlainSession(boost::asio::ip::tcp::socket socket, Service& service, std::shared_ptr<int> connection);
void StartTlsSession(boost::asio::ip::tcp::socket socket, boost::asio::ssl::context& tls, Service& service,
                     std::shared_ptr<int> connection);

}  // namespace quenmark::simulator
