#include "tests/support/simulator_process.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <nlohmann/json.hpp>

#include <stdexcept>

namespace quenmark::test {
namespace {

namespace http = boost::beast::http;

std::string Exchange(int port, http::verb verb, std::string_view path, std::string_view body) {
  boost::asio::io_context context;
  boost::beast::tcp_stream stream(context);
  stream.connect({boost::asio::ip::address_v4::loopback(), static_cast<unsigned short>(port)});
  http::request<http::string_body> request{verb, {path.data(), path.size()}, 11};
  request.set(http::field::host, "127.0.0.1");
  request.body() = body;
  request.prepare_payload();
  http::write(stream, request);
  boost::beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(64u << 20);
  http::read(stream, buffer, parser);
  if (parser.get().result_int() != 200) throw std::runtime_error("the simulator refused " + std::string(path));
  return parser.get().body();
}

}  // namespace

SimulatorProcess::SimulatorProcess(std::vector<std::string> arguments) : m_process(BIN_DIR "/feeder-sim", arguments) {
  const auto line = m_process.ReadLine();
  if (!line) throw std::runtime_error("the simulator does not start: " + m_process.ErrorText());
  const auto ports = nlohmann::json::parse(*line);
  m_httpsPort = ports.at("https").get<int>();
  m_httpPort = ports.at("http").get<int>();
  m_wssPort = ports.at("wss").get<int>();
  m_caFile = ports.at("ca").get<std::string>();
}

std::string SimulatorProcess::PlainBase() const {
  return "http://127.0.0.1:" + std::to_string(m_httpPort);
}
std::string SimulatorProcess::SecureBase() const {
  return "https://localhost:" + std::to_string(m_httpsPort);
}

std::string SimulatorProcess::Get(std::string_view path) const {
  return Exchange(m_httpPort, http::verb::get, path, {});
}
std::string SimulatorProcess::Post(std::string_view path, std::string_view body) const {
  return Exchange(m_httpPort, http::verb::post, path, body);
}

}  // namespace quenmark::test
