// The WebSocket connection that an EventStream is sent on.
#pragma once

#include "simulator/event_stream.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <openssl/ssl.h>

#include <memory>

namespace quenmark::simulator {

// Answers the opening handshake `request`, then sends until either side ends it; lives as long as its connection and
// holds `connection` meanwhile. `ssl` stands on the socket, its handshake done; it is shared.
void StartEventSocket(boost::asio::ip::tcp::socket socket, SSL* ssl,
                      boost::beast::http::request<boost::beast::http::string_body> request,
                      std::shared_ptr<EventStream> events, std::shared_ptr<int> connection);

}  // namespace quenmark::simulator
