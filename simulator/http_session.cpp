#include "simulator/http_session.h"

#include "simulator/event_socket.h"
#include "simulator/http_server.h"
#include "simulator/quote_stream.h"

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <fmt/format.h>
#include <sys/socket.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace quenmark::simulator {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::system::error_code;

using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

constexpr std::chrono::seconds kEndLimit{2};
constexpr std::chrono::seconds kIdleLimit{120};  // for a handshake, a request or an answer to make progress

// Blanks for padded answers, sent over and over.
const std::string& PaddingBlock() {
  static const std::string block(1'000'000, ' ');
  return block;
}

std::string Head(const HttpAnswer& answer, bool keepAlive) {
  const std::string reason = http::obsolete_reason(static_cast<http::status>(answer.status)).to_string();
  const std::string length = answer.stream || answer.chunked
                                 ? "Transfer-Encoding: chunked"
                                 : fmt::format("Content-Length: {}", answer.body.size() + answer.padding);
  std::string head = fmt::format("{} {} {}\r\nContent-Type: {}\r\n{}\r\nConnection: {}\r\n", answer.version,
                                 answer.status, reason, answer.contentType, length, keepAlive ? "keep-alive" : "close");
  if (!answer.contentEncoding.empty()) head += "Content-Encoding: " + answer.contentEncoding + "\r\n";
  return head + "\r\n";
}

// RFC 9112 §7.1
std::string Chunk(const std::string& bytes) {
  return fmt::format("{:x}\r\n{}\r\n", bytes.size(), bytes);
}
constexpr std::string_view kLastChunk = "0\r\n\r\n";

std::string Chunked(const std::string& body) {
  constexpr std::size_t kSize = 1'000;
  std::string chunks;
  for (std::size_t begin = 0; begin < body.size(); begin += kSize) chunks += Chunk(body.substr(begin, kSize));
  return chunks + std::string{kLastChunk};
}

template <typename Stream>
class HttpSession : public std::enable_shared_from_this<HttpSession<Stream>> {
 public:
  HttpSession(Stream stream, Service& service, std::shared_ptr<int> connection)
      : m_stream(std::move(stream)),
        m_service(service),
        m_connection(std::move(connection)),
        m_timer(m_stream.get_executor()) {}

  void Start() {
    if constexpr (kTls) {
      Lowest().expires_after(kIdleLimit);
      m_stream.async_handshake(asio::ssl::stream_base::server, [self = this->shared_from_this()](error_code error) {
        if (!error) self->Read();
      });
    } else {
      Read();
    }
  }

 private:
  static constexpr bool kTls = std::is_same_v<Stream, TlsStream>;

  beast::tcp_stream& Lowest() { return beast::get_lowest_layer(m_stream); }

  void Read() {
    m_parser.emplace();
    m_parser->header_limit(kHeadLimit);
    m_parser->body_limit(kRequestBodyLimit);
    Lowest().expires_after(kIdleLimit);
    http::async_read(m_stream, m_buffer, *m_parser,
                     [self = this->shared_from_this()](error_code error, std::size_t) { self->OnRead(error); });
  }

  void OnRead(error_code error) {
    if (error == http::error::end_of_stream) return Shutdown();
    if (error == http::error::header_limit || error == http::error::buffer_overflow) return Refuse(431);
    if (error == http::error::body_limit) return Refuse(413);
    if (error.category() == http::make_error_code(http::error::bad_method).category()) return Refuse(400);
    if (error) return;

    const auto& message = m_parser->get();
    m_request = {};
    m_request.scheme = kTls ? "https" : "http";
    m_request.method = message.method_string().to_string();
    m_request.target = message.target().to_string();
    for (const auto& field : message) {
      m_request.headers.emplace_back(field.name_string().to_string(), field.value().to_string());
    }
    m_request.body = message.body();
    m_keepAlive = message.keep_alive();
    m_fault = m_service.Begin(m_request);
    if (!m_fault || m_fault->delay.count() == 0) return Answer();
    m_timer.expires_after(m_fault->delay);
    m_timer.async_wait([self = this->shared_from_this()](error_code stopped) {
      if (!stopped) self->Answer();
    });
  }

  // The client closed, or sent what only a closing client sends here, while its answer was held back.
  bool ClientLeft() {
    char byte = 0;
    return recv(Lowest().socket().native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
  }

  void Answer() {
    if (m_fault && m_fault->delay.count() != 0 && ClientLeft()) return m_service.Abandon(m_request, m_fault);
    HttpAnswer answer = m_service.Answer(m_request, m_fault);
    if (answer.events) return Upgrade(answer.events);
    Send(std::move(answer));
  }

  // The connection leaves HTTP, and this session ends.
  void Upgrade(const std::shared_ptr<EventStream>& events) {
    if constexpr (kTls) {
      SSL* ssl = m_stream.native_handle();
      StartEventSocket(Lowest().release_socket(), ssl, m_parser->release(), events, m_connection);
    } else {
      events->Close("client");
    }
  }

  void Refuse(int status) {
    HttpAnswer answer;
    answer.status = status;
    answer.contentType = "text/plain";
    m_keepAlive = false;
    Send(std::move(answer));
  }

  void Send(HttpAnswer answer) {
    m_answer = std::move(answer);
    if (m_answer.reset) return Reset();
    if (m_answer.close) m_keepAlive = false;
    if (m_answer.chunked) m_answer.body = Chunked(m_answer.body);
    m_head = Head(m_answer, m_keepAlive);
    std::vector<asio::const_buffer> pieces{asio::buffer(m_head)};
    if (m_answer.cut) {
      pieces.push_back(asio::buffer(m_answer.body, m_answer.body.size() / 2));
    } else {
      pieces.push_back(asio::buffer(m_answer.body));
      for (std::size_t left = m_answer.padding; left > 0;) {
        pieces.push_back(asio::buffer(PaddingBlock(), left));
        left -= pieces.back().size();
      }
    }
    Lowest().expires_after(kIdleLimit);
    asio::async_write(m_stream, pieces,
                      [self = this->shared_from_this()](error_code error, std::size_t) { self->OnSent(error); });
  }

  void Reset() {
    error_code ignored;
    Lowest().socket().set_option(asio::socket_base::linger{true, 0}, ignored);
    Lowest().close();
  }

  void OnSent(error_code error) {
    if (m_answer.stream) return error ? EndStream("client") : BeginStream();
    if (error) return;
    if (m_answer.cut) return Lowest().close();
    Finish();
  }

  void Finish() {
    m_answer = {};
    if (m_keepAlive) return Read();
    Shutdown();
  }

  void BeginStream() {
    m_begun = std::chrono::steady_clock::now();
    m_watching = true;
    Lowest().socket().async_wait(asio::ip::tcp::socket::wait_read, [self = this->shared_from_this()](error_code) {
      if (self->m_watching) self->EndStream("client");  // its close, or what only a closing client sends here
    });
    AwaitPiece();
  }

  // Also in the middle of a write, whose end then finds no stream.
  void EndStream(std::string_view reason) {
    m_watching = false;
    m_answer.stream->Close(reason);
    m_answer = {};
    m_timer.cancel();
    Lowest().close();
  }

  void AwaitPiece() {
    m_timer.expires_at(m_begun + m_answer.stream->Due());
    m_timer.async_wait([self = this->shared_from_this()](error_code) {
      if (self->m_answer.stream) self->SendPiece();
    });
  }

  void SendPiece() {
    m_piece = m_answer.stream->Next();
    m_nextChunk = 0;
    // A client may ask again as soon as it has the end.
    if (m_piece.then == StreamPiece::Then::kEnd) Unwatch();
    SendChunks();
  }

  void Unwatch() {
    m_watching = false;
    Lowest().socket().cancel();
  }

  void SendChunks() {
    m_head.clear();
    while (m_nextChunk < m_piece.chunks.size()) {
      m_head += Chunk(m_piece.chunks[m_nextChunk++]);
      if (m_piece.apart) break;
    }
    const bool done = m_nextChunk == m_piece.chunks.size();
    if (done && m_piece.then == StreamPiece::Then::kEnd) m_head += kLastChunk;
    if (m_head.empty()) return AfterPiece();
    Lowest().expires_after(kIdleLimit);
    asio::async_write(m_stream, asio::buffer(m_head),
                      [self = this->shared_from_this(), done](error_code error, std::size_t) {
                        if (!self->m_answer.stream) return;
                        if (error) return self->EndStream("client");
                        if (done) return self->AfterPiece();
                        self->SendChunks();
                      });
  }

  void AfterPiece() {
    switch (m_piece.then) {
      case StreamPiece::Then::kGoOn:
        return AwaitPiece();
      case StreamPiece::Then::kEnd:
        m_answer.stream->Close("end");
        return Finish();
      case StreamPiece::Then::kDrop:
        return EndStream("cut");
      case StreamPiece::Then::kStall:
        return;
    }
  }

  // A client that does not end its side in time is left.
  void Shutdown() {
    Lowest().expires_after(kEndLimit);
    if constexpr (kTls) {
      m_stream.async_shutdown([self = this->shared_from_this()](error_code) {});
    } else {
      error_code ignored;
      m_stream.socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    }
  }

  Stream m_stream;
  Service& m_service;
  std::shared_ptr<int> m_connection;
  asio::steady_timer m_timer;
  beast::flat_buffer m_buffer{kHeadLimit + kRequestBodyLimit};
  std::optional<http::request_parser<http::string_body>> m_parser;
  HttpRequest m_request;
  std::optional<Fault> m_fault;
  HttpAnswer m_answer;
  std::string m_head;
  bool m_keepAlive = false;
  // While m_answer.stream is set:
  std::chrono::steady_clock::time_point m_begun;
  StreamPiece m_piece;
  std::size_t m_nextChunk = 0;
  bool m_watching = false;  // for the client's leaving
};

}  // namespace

void StartPlainSession(asio::ip::tcp::socket socket, Service& service, std::shared_ptr<int> connection) {
  std::make_shared<HttpSession<PlainStream>>(PlainStream{std::move(socket)}, service, std::move(connection))->Start();
}

void StartTlsSession(asio::ip::tcp::socket socket, asio::ssl::context& tls, Service& service,
                     std::shared_ptr<int> connection) {
  std::make_shared<HttpSession<TlsStream>>(TlsStream{std::move(socket), tls}, service, std::move(connection))->Start();
}

}  // namespace quenmark::simulator
