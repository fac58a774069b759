// A client of the market-events stream, on Boost.Beast.
#pragma once

#include "tests/simulator/curl_simulator.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <string>
#include <vector>

namespace quenmark::test {

class EventClient {
 public:
  // Error() tells the outcome. Port 0 is the simulator's first one with TLS.
  explicit EventClient(const Simulator& simulator, bool deflate = false, int port = 0) {
    namespace asio = boost::asio;
    m_tls.load_verify_file(simulator.CaFile());
    m_ws.next_layer().set_verify_mode(asio::ssl::verify_peer);
    m_ws.next_layer().set_verify_callback(asio::ssl::host_name_verification("localhost"));
    boost::beast::websocket::permessage_deflate offer;
    offer.client_enable = deflate;
    m_ws.set_option(offer);
    m_ws.read_message_max(0);
    auto& socket = m_ws.next_layer().next_layer();
    socket.connect(
        {asio::ip::address_v4::loopback(), static_cast<unsigned short>(port != 0 ? port : simulator.HttpsPort())});
    socket.set_option(asio::ip::tcp::no_delay{true});
    m_ws.next_layer().handshake(asio::ssl::stream_base::client, m_error);
    if (!m_error) m_ws.handshake(m_response, "localhost", "/v1/markets/events", m_error);
  }

  void Send(const std::string& text) { m_ws.write(boost::asio::buffer(text), m_error); }
  void Subscribe(const Words& symbols, const std::string& session) {
    Send(Json{{"symbols", symbols}, {"sessionid", session}, {"linebreak", true}}.dump());
  }
  // The next message; empty with Error() set when there is none.
  std::string Read() {
    boost::beast::flat_buffer buffer;
    m_ws.read(buffer, m_error);
    return m_error ? std::string{} : boost::beast::buffers_to_string(buffer.data());
  }
  std::vector<std::string> Read(std::size_t count) {
    std::vector<std::string> messages;
    for (; count > 0; --count) messages.push_back(Read());
    return messages;
  }
  // What comes between now and the answer to a ping.
  std::vector<std::string> UntilPong() {
    std::vector<std::string> messages;
    bool answered = false;
    bool done = false;  // like the buffer, in use until the last read has ended below
    m_ws.control_callback([&](boost::beast::websocket::frame_type kind, boost::beast::string_view) {
      answered = answered || kind == boost::beast::websocket::frame_type::pong;
    });
    m_ws.ping({}, m_error);
    boost::beast::flat_buffer buffer;
    while (!answered && !m_error) {
      done = false;
      m_ws.async_read(buffer, [&](boost::system::error_code error, std::size_t) {
        m_error = error;
        done = true;
      });
      while (!done && !answered) m_io.run_one();
      if (!done) break;
      messages.push_back(boost::beast::buffers_to_string(buffer.data()));
      buffer.clear();
      m_io.restart();
    }
    boost::beast::get_lowest_layer(m_ws).close();
    m_io.restart();
    m_io.run();
    return messages;
  }

  // Of the chain of certificates, whatever host they are for.
  long Verdict() { return SSL_get_verify_result(m_ws.next_layer().native_handle()); }
  boost::system::error_code Error() const { return m_error; }
  boost::beast::websocket::close_reason Reason() const { return m_ws.reason(); }
  const boost::beast::websocket::response_type& Response() const { return m_response; }

 private:
  boost::asio::io_context m_io;
  boost::asio::ssl::context m_tls{boost::asio::ssl::context::tls_client};
  boost::beast::websocket::stream<boost::asio::ssl::stream<boost::asio::ip::tcp::socket>> m_ws{m_io, m_tls};
  boost::beast::websocket::response_type m_response;
  boost::system::error_code m_error;
};

inline std::string NewSession(const Simulator& simulator) {
  return simulator.Get("/v1/markets/events/session", {"-X", "POST"}).Parsed()["stream"]["sessionid"];
}

// The lines of that kind in an event log: its texts, line breaks as TABs.
inline std::vector<std::string> EventLogTexts(const std::string& name, const std::string& kind) {
  std::vector<std::string> texts;
  std::ifstream file{name};
  for (std::string line; std::getline(file, line) && !file.eof();) {
    const std::size_t stream = line.find('\t') + 1;
    const std::size_t begin = line.find('\t', stream) + 1;
    const std::size_t text = line.find('\t', begin) + 1;
    if (line.substr(begin, text - begin - 1) == kind) texts.push_back(line.substr(text));
  }
  return texts;
}

}  // namespace quenmark::test
