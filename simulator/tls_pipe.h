// TLS over a connected socket whose output is gathered: every write becomes records at once, and what has gathered goes
// out with one send. So a burst of small records costs few system calls.
#pragma once

#include "simulator/record_sealer.h"

#include <boost/asio/async_result.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/role.hpp>
#include <openssl/ssl.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace quenmark::simulator {

class TlsPipe {
 public:
  using Socket = boost::asio::ip::tcp::socket;
  using executor_type = Socket::executor_type;
  using Completion = std::function<void(boost::system::error_code, std::size_t)>;

  // Takes over a finished handshake: `ssl` is shared, and reads and writes nothing by any other way from here on.
  TlsPipe(Socket socket, SSL* ssl);
  ~TlsPipe();
  TlsPipe(const TlsPipe&) = delete;
  TlsPipe& operator=(const TlsPipe&) = delete;

  // What holds this pipe; kept alive while something is being sent.
  void OwnedBy(std::weak_ptr<void> owner) { m_owner = std::move(owner); }
  executor_type get_executor() { return m_socket.get_executor(); }
  Socket& Lowest() { return m_socket; }

  // `data` as records of its own, gathered. False when the connection is over.
  bool Write(std::string_view data);
  // Gathered bytes that are not with the system yet.
  std::size_t Waiting() const { return m_output.size() + m_waiting.size(); }
  bool Sending() const { return m_sending; }
  bool Failed() const { return m_failed; }
  // Sends what has gathered, and what gathers meanwhile.
  void Flush();
  // Called whenever everything has been handed to the system, or cannot be any more.
  void OnDrained(std::function<void()> drained) { m_drained = std::move(drained); }
  // Gathers the notice that nothing follows (RFC 8446 §6.1).
  void Notify();
  void Close();

  // What Boost.Beast asks of a stream. Writing gathers and flushes.
  template <typename Buffers, typename Handler>
  auto async_read_some(const Buffers& buffers, Handler&& handler) {
    return boost::asio::async_initiate<Handler, void(boost::system::error_code, std::size_t)>(
        [this](auto done, const Buffers& into) {
          boost::asio::mutable_buffer room;
          for (auto at = boost::asio::buffer_sequence_begin(into); at != boost::asio::buffer_sequence_end(into); ++at) {
            room = *at;
            if (room.size() != 0) break;
          }
          Read(room, Shared(std::move(done)));
        },
        handler, buffers);
  }
  template <typename Buffers, typename Handler>
  auto async_write_some(const Buffers& buffers, Handler&& handler) {
    return boost::asio::async_initiate<Handler, void(boost::system::error_code, std::size_t)>(
        [this](auto done, const Buffers& from) {
          std::string bytes(boost::asio::buffer_size(from), '\0');
          boost::asio::buffer_copy(boost::asio::buffer(bytes), from);
          WriteAll(bytes, Shared(std::move(done)));
        },
        handler, buffers);
  }

 private:
  // Handlers can be moved only, std::function wants copies.
  template <typename Handler>
  static Completion Shared(Handler handler) {
    auto shared = std::make_shared<Handler>(std::move(handler));
    return [shared](boost::system::error_code error, std::size_t count) { std::move (*shared)(error, count); };
  }
  void Read(boost::asio::mutable_buffer room, Completion done);
  void WriteAll(const std::string& bytes, const Completion& done);
  bool Fail();
  void TakeWritten();
  void Finish(const Completion& done, boost::system::error_code error, std::size_t count);

  Socket m_socket;
  SSL* m_ssl;
  BIO* m_received;  // owned by m_ssl, as is m_written
  BIO* m_written;
  std::unique_ptr<RecordSealer> m_sealer;  // writes in libssl's place; may be null
  std::vector<char> m_input;
  std::string m_output;   // being sent
  std::string m_waiting;  // to be sent then
  std::weak_ptr<void> m_owner;
  bool m_sending = false;
  bool m_failed = false;
  std::function<void()> m_drained;
};

// How Boost.Beast drops a connection.
inline void beast_close_socket(TlsPipe& pipe) {
  pipe.Close();
}

// The end of a WebSocket connection whose closing handshake is done.
template <typename Handler>
void async_teardown(boost::beast::role_type, TlsPipe& pipe, Handler&& handler) {
  pipe.Notify();
  pipe.Flush();
  boost::asio::post(pipe.get_executor(),
                    [done = std::forward<Handler>(handler)]() mutable { done(boost::system::error_code{}); });
}

}  // namespace quenmark::simulator
