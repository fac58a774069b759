#include "simulator/tls_pipe.h"

#include <boost/asio/error.hpp>
#include <boost/asio/write.hpp>
#include <openssl/bio.h>
#include <openssl/err.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace quenmark::simulator {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;

constexpr std::size_t kInputSize = std::size_t{16} << 10;

}  // namespace

TlsPipe::TlsPipe(Socket socket, SSL* ssl)
    : m_socket(std::move(socket)),
      m_ssl(ssl),
      m_received(BIO_new(BIO_s_mem())),
      m_written(BIO_new(BIO_s_mem())),
      m_sealer(RecordSealer::Take(ssl)),
      m_input(kInputSize) {
  if (m_received == nullptr || m_written == nullptr) throw std::runtime_error("out of memory");
  BIO_set_mem_eof_return(m_received, -1);
  SSL_up_ref(m_ssl);
  SSL_set_bio(m_ssl, m_received, m_written);
}

TlsPipe::~TlsPipe() {
  SSL_free(m_ssl);
}

bool TlsPipe::Fail() {
  ERR_clear_error();
  m_failed = true;
  return false;
}

bool TlsPipe::Write(std::string_view data) {
  while (!m_failed && !data.empty()) {
    const std::string_view piece = data.substr(0, RecordSealer::kMostPlaintext);
    data.remove_prefix(piece.size());
    if (m_sealer) {
      if (!m_sealer->Seal(RecordSealer::kApplicationData, piece, m_waiting)) return Fail();
    } else {
      if (SSL_write(m_ssl, piece.data(), static_cast<int>(piece.size())) <= 0) return Fail();
      TakeWritten();
    }
  }
  return !m_failed;
}

// What libssl wrote. Once its place is taken it has nothing to say that the client could read.
void TlsPipe::TakeWritten() {
  char* begin = nullptr;
  const auto size = static_cast<std::size_t>(BIO_get_mem_data(m_written, &begin));
  if (size == 0) return;
  if (m_sealer) {
    m_failed = true;
  } else {
    m_waiting.append(begin, size);
  }
  static_cast<void>(BIO_reset(m_written));
}

void TlsPipe::Flush() {
  if (m_sending || m_failed || m_waiting.empty()) return;
  m_output.swap(m_waiting);
  m_sending = true;
  asio::async_write(m_socket, asio::buffer(m_output), [this, owner = m_owner.lock()](error_code error, std::size_t) {
    m_sending = false;
    m_output.clear();
    if (error) m_failed = true;
    Flush();
    if (!m_sending && m_drained) m_drained();
  });
}

void TlsPipe::Notify() {
  constexpr std::string_view kCloseNotify{"\1\0", 2};  // a warning
  if (m_failed) return;
  if (m_sealer) {
    if (!m_sealer->Seal(RecordSealer::kAlert, kCloseNotify, m_waiting)) Fail();
  } else {
    SSL_shutdown(m_ssl);
    ERR_clear_error();
    TakeWritten();
  }
}

void TlsPipe::Close() {
  m_failed = true;
  error_code ignored;
  m_socket.close(ignored);
}

void TlsPipe::Finish(const Completion& done, error_code error, std::size_t count) {
  asio::post(m_socket.get_executor(), [done, error, count] { done(error, count); });
}

void TlsPipe::Read(asio::mutable_buffer room, Completion done) {
  constexpr std::size_t kMost = std::numeric_limits<int>::max();
  if (room.size() == 0) return Finish(done, {}, 0);
  const int count = SSL_read(m_ssl, room.data(), static_cast<int>(std::min(room.size(), kMost)));
  if (count > 0) return Finish(done, {}, static_cast<std::size_t>(count));
  const int reason = SSL_get_error(m_ssl, count);
  ERR_clear_error();
  TakeWritten();
  if (reason == SSL_ERROR_ZERO_RETURN) return Finish(done, asio::error::eof, 0);
  if (reason != SSL_ERROR_WANT_READ) return Finish(done, asio::error::connection_reset, 0);
  Flush();  // an answer to the handshake message just read
  m_socket.async_read_some(asio::buffer(m_input),
                           [this, room, done = std::move(done)](error_code error, std::size_t bytes) {
                             if (error) return done(error, 0);
                             BIO_write(m_received, m_input.data(), static_cast<int>(bytes));
                             Read(room, done);
                           });
}

void TlsPipe::WriteAll(const std::string& bytes, const Completion& done) {
  const bool written = Write(bytes);
  Flush();
  Finish(done, written ? error_code{} : asio::error::connection_reset, written ? bytes.size() : 0);
}

}  // namespace quenmark::simulator
