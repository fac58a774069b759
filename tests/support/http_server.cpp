#include "tests/support/http_server.h"

#include "tests/support/certificate.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string_view>
#include <thread>

namespace quenmark::test {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

std::string Chunk(const std::string& body) {
  std::array<char, 20> size{};
  std::snprintf(size.data(), size.size(), "%zx\r\n", body.size());
  return size.data() + body + "\r\n";
}

std::string Wire(const HttpAnswer& answer, bool withBody) {
  std::string wire = "HTTP/1.1 " + std::to_string(answer.status) + " Answer\r\n";
  for (const auto& [name, value] : answer.headers) wire += name + ": " + value + "\r\n";
  const bool chunked = answer.chunked || answer.endless;
  wire += chunked ? "Transfer-Encoding: chunked\r\n\r\n"
                  : "Content-Length: " + std::to_string(answer.body.size()) + "\r\n\r\n";
  if (!withBody) return wire;
  if (!chunked) return wire + answer.body;
  wire += Chunk(answer.body);
  return answer.endless ? wire : wire + "0\r\n\r\n";
}

}  // namespace

struct HttpServer::State {
  asio::io_context context;
  tcp::acceptor acceptor{context, {asio::ip::make_address("127.0.0.1"), 0}};
  std::optional<asio::ssl::context> tls;

  mutable std::mutex mutex;
  std::condition_variable changed;  // `stop` or `seen`
  bool stop = false;
  std::map<std::string, HttpAnswer> answers;
  std::vector<HttpSeen> seen;
  std::set<int> open;  // descriptors of living connections
  int connections = 0;
  std::vector<std::thread> threads;  // one per connection; grows in the accepting thread alone
  std::thread accepting;

  void Accept() {
    for (;;) {
      boost::system::error_code error;
      tcp::socket socket(context);
      acceptor.accept(socket, error);
      const std::lock_guard lock(mutex);
      if (stop || error) return;
      open.insert(socket.native_handle());
      const int number = ++connections;
      threads.emplace_back([this, number, moved = std::make_shared<tcp::socket>(std::move(socket))] {
        const int descriptor = moved->native_handle();
        Converse(std::move(*moved), number, descriptor);
      });
    }
  }

  void Converse(tcp::socket socket, int number, int descriptor) {
    try {
      if (tls) {
        asio::ssl::stream<tcp::socket&> stream(socket, *tls);
        stream.handshake(asio::ssl::stream_base::server);
        Serve(stream, number);
      } else {
        Serve(socket, number);
      }
    } catch (const std::exception&) {
      // The client went away, or did not trust the certificate.
    }
    const std::lock_guard lock(mutex);
    open.erase(descriptor);
    boost::system::error_code ignored;
    socket.close(ignored);
  }

  template <typename Stream>
  void Serve(Stream& stream, int number) {
    boost::beast::flat_buffer buffer;
    for (bool goOn = true; goOn;) {
      http::request_parser<http::string_body> parser;
      parser.header_limit(1u << 20);
      parser.body_limit(std::uint64_t{1} << 30);
      http::read(stream, buffer, parser);
      goOn = Reply(stream, Note(parser.get(), number));
    }
  }

  HttpSeen Note(const http::request<http::string_body>& request, int number) {
    HttpSeen one{std::string(request.method_string()), std::string(request.target()), {}, request.body(), number};
    for (const auto& field : request) {
      one.headers[Lower({field.name_string().data(), field.name_string().size()})] = std::string(field.value());
    }
    const std::lock_guard lock(mutex);
    seen.push_back(one);
    changed.notify_all();
    return one;
  }

  bool HasSeen(const std::string& path) const {
    return std::any_of(seen.begin(), seen.end(), [&path](const HttpSeen& one) { return one.target == path; });
  }

  // False when the connection has been used up.
  template <typename Stream>
  bool Reply(Stream& stream, const HttpSeen& request) {
    HttpAnswer answer;
    answer.status = 404;
    {
      std::unique_lock lock(mutex);
      const auto found = answers.find(request.target.substr(0, request.target.find('?')));
      if (found != answers.end()) answer = found->second;
      changed.wait(lock, [&] { return stop || answer.after.empty() || HasSeen(answer.after); });
      if (changed.wait_for(lock, answer.delay, [this] { return stop; })) return false;
    }
    std::string wire = answer.raw.empty() ? Wire(answer, request.method != "HEAD") : answer.raw;
    if (answer.cutAfter) wire.resize(std::min(wire.size(), *answer.cutAfter));
    asio::write(stream, asio::buffer(wire));
    const std::string piece = Chunk(answer.body);
    while (answer.endless) asio::write(stream, asio::buffer(piece));
    return answer.raw.empty() && !answer.cutAfter;
  }
};

HttpServer::HttpServer(Security security) : m_state(std::make_unique<State>()) {
  if (security == Security::kTls) {
    MakeCertificate(m_folder.File("both.pem"), CertificateFile());
    m_state->tls.emplace(asio::ssl::context::tls_server);
    m_state->tls->use_certificate_chain_file(m_folder.File("both.pem"));
    m_state->tls->use_private_key_file(m_folder.File("both.pem"), asio::ssl::context::pem);
  }
  m_state->accepting = std::thread([this] { m_state->Accept(); });
}

HttpServer::~HttpServer() {
  {
    const std::lock_guard lock(m_state->mutex);
    m_state->stop = true;
    for (const int descriptor : m_state->open) shutdown(descriptor, SHUT_RDWR);
  }
  m_state->changed.notify_all();
  shutdown(m_state->acceptor.native_handle(), SHUT_RDWR);
  m_state->accepting.join();
  for (std::thread& thread : m_state->threads) thread.join();
}

int HttpServer::Port() const {
  return m_state->acceptor.local_endpoint().port();
}

std::string HttpServer::Address(const std::string& path) const {
  return (m_state->tls ? "https://localhost:" : "http://127.0.0.1:") + std::to_string(Port()) + path;
}

void HttpServer::Put(const std::string& path, HttpAnswer answer) {
  const std::lock_guard lock(m_state->mutex);
  m_state->answers[path] = std::move(answer);
}

std::vector<HttpSeen> HttpServer::Seen() const {
  const std::lock_guard lock(m_state->mutex);
  return m_state->seen;
}

std::string HttpServer::CertificateFile() const {
  return m_folder.File("certificate.pem");
}

}  // namespace quenmark::test
