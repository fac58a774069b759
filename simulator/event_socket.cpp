#include "simulator/event_socket.h"

#include "simulator/tls_pipe.h"

#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <boost/beast/websocket/stream.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace quenmark::simulator {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kReceiveLimit = 1'048'576;                   // bytes of a client's message
constexpr std::size_t kGathered = std::size_t{128} << 10;          // bytes of records that go out with one send
constexpr std::chrono::microseconds kLeastPause{200};              // between two rounds at a rate
constexpr std::chrono::milliseconds kIdlePause{10};                // while nothing moves
constexpr std::chrono::milliseconds kLinger{2'000};                // for the client's close frame
constexpr std::size_t kHugeMessage = 50'000'000;                   // bytes
constexpr std::string_view kGarbage = "\xFF\x07 no frame at all";  // reserved bits and operation code

// RFC 6455 §5.2: final, not masked. Right-aligned in ten bytes; the header's size is returned.
std::size_t WriteHeader(char* ten, unsigned char opcode, std::uint64_t size) {
  const std::size_t extended = size < 126 ? 0 : size < 65'536 ? 2 : 8;
  char* at = ten + 10;
  for (std::size_t byte = 0; byte < extended; ++byte, size >>= 8U) *--at = static_cast<char>(size & 0xFFU);
  *--at = extended == 0 ? static_cast<char>(size) : extended == 2 ? char{126} : char{127};
  *--at = static_cast<char>(0x80U | opcode);
  return extended + 2;
}
constexpr std::size_t kHeaderRoom = 10;
constexpr unsigned char kText = 1;

class EventSocket : public std::enable_shared_from_this<EventSocket> {
 public:
  EventSocket(asio::ip::tcp::socket socket, SSL* ssl, std::shared_ptr<EventStream> events,
              std::shared_ptr<int> connection)
      : m_ws(std::move(socket), ssl),
        m_timer(m_ws.get_executor()),
        m_events(std::move(events)),
        m_connection(std::move(connection)) {}

  void Start(beast::http::request<beast::http::string_body> request) {
    Pipe().OwnedBy(weak_from_this());
    websocket::permessage_deflate deflate;
    deflate.server_enable = m_events->Options().deflate;
    m_ws.set_option(deflate);
    m_ws.set_option(websocket::stream_base::decorator([this](websocket::response_type& response) {
      m_deflates = response.count(beast::http::field::sec_websocket_extensions) != 0;
    }));
    m_ws.auto_fragment(false);
    m_ws.text(true);
    m_ws.read_message_max(kReceiveLimit);
    m_request = std::move(request);
    m_ws.async_accept(m_request, [self = shared_from_this()](error_code error) { self->OnAccepted(error); });
  }

 private:
  TlsPipe& Pipe() { return m_ws.next_layer(); }

  void OnAccepted(error_code error) {
    if (error) return End("handshake");
    m_begun = Clock::now();
    const std::weak_ptr<EventSocket> weak = weak_from_this();
    const auto pump = [weak] {
      if (const auto self = weak.lock()) self->Pump();
    };
    Pipe().OnDrained(pump);
    m_events->OnWaiting([pump, executor = m_ws.get_executor()] { asio::post(executor, pump); });
    Read();
  }

  void Read() {
    m_ws.async_read(m_buffer, [self = shared_from_this()](error_code error, std::size_t) { self->OnRead(error); });
  }

  void OnRead(error_code error) {
    if (error == websocket::error::closed) return End("client " + std::to_string(m_ws.reason().code));
    if (error) return End("client");
    if (m_stopped) {
      m_buffer.clear();
      return Read();
    }
    m_events->Receive(beast::buffers_to_string(m_buffer.data()));
    m_buffer.clear();
    Read();
  }

  // One round: sends what is due, then waits for the socket or for the next message's time.
  void Pump() {
    if (m_ended || m_stopped || m_compressing || Pipe().Sending()) return;
    if (Pipe().Failed()) return End("client");
    while (const std::optional<std::string> text = m_events->TakeWaiting()) {
      if (m_deflates) return Compress(*text);
      m_frame.assign(kHeaderRoom, '\0');
      m_frame += *text;
      SendFrame();
    }
    if (m_deflates) {
      PumpCompressed();
    } else {
      PumpFrames();
    }
  }

  void PumpFrames() {
    m_events->ReadClocks();
    std::int64_t due = Due();
    while (due > 0 && m_events->Running() && Pipe().Waiting() < kGathered) {
      if (const std::optional<Fault> fault = m_events->DueFault(); fault && fault->kind != FaultKind::kDrip) {
        return Commit(*fault);
      }
      m_frame.assign(kHeaderRoom, '\0');
      m_events->AppendMessage(m_frame);
      SendFrame();
      --due;
      ++m_sent;
    }
    m_events->FlushLog();
    Pipe().Flush();
    if (!Pipe().Sending()) Pause();
  }

  void PumpCompressed() {
    m_events->ReadClocks();
    if (Due() <= 0 || !m_events->Running()) return Pause();
    if (const std::optional<Fault> fault = m_events->DueFault()) return Commit(*fault);
    std::string text;
    m_events->AppendMessage(text);
    m_events->FlushLog();
    ++m_sent;
    Compress(text);
  }

  // Beast keeps the compression's state.
  void Compress(std::string text) {
    m_compressing = true;
    m_frame = std::move(text);
    m_ws.async_write(asio::buffer(m_frame), [self = shared_from_this()](error_code error, std::size_t) {
      self->m_compressing = false;
      if (error) return self->End("client");
      self->Pump();
    });
  }

  // Messages that may go out now. While nothing is sent their time passes.
  std::int64_t Due() {
    const double rate = m_events->Options().rate;
    if (rate != m_rate || !m_events->Running()) {
      m_rate = rate;
      m_begun = Clock::now();
      m_sent = 0;
    }
    if (rate == 0) return INT64_MAX;
    const std::chrono::duration<double> passed = Clock::now() - m_begun;
    return static_cast<std::int64_t>(passed.count() * rate) - m_sent;
  }

  void Pause() {
    if (m_events->Running() && m_rate != 0) {
      const std::chrono::duration<double> next{static_cast<double>(m_sent + 1) / m_rate};
      m_timer.expires_at(std::max(m_begun + std::chrono::duration_cast<Clock::duration>(next),
                                  Clock::now() + std::min<Clock::duration>(kLeastPause, Interval())));
    } else {
      m_timer.expires_after(kIdlePause);
    }
    m_timer.async_wait([self = shared_from_this()](error_code stopped) {
      if (!stopped) self->Pump();
    });
  }
  Clock::duration Interval() const {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>{1 / m_rate});
  }

  // m_frame, its payload behind kHeaderRoom.
  void SendFrame() {
    const std::size_t header = WriteHeader(m_frame.data(), kText, m_frame.size() - kHeaderRoom);
    std::string_view bytes{m_frame};
    bytes.remove_prefix(kHeaderRoom - header);
    const std::optional<Fault> fault = m_events->DueFault();
    const std::size_t piece = fault && fault->kind == FaultKind::kDrip ? 1 : bytes.size();
    for (; !bytes.empty(); bytes.remove_prefix(piece)) Pipe().Write(bytes.substr(0, piece));
  }

  // After this nothing but the closing handshake is sent.
  void Commit(const Fault& fault) {
    m_stopped = true;
    std::string_view reason = FaultName(fault.kind);
    switch (fault.kind) {
      case FaultKind::kClose:
        return CloseWith(fault.closeCode);
      case FaultKind::kGarbage:
        Pipe().Write(kGarbage);
        break;
      case FaultKind::kHuge:
        m_frame.assign(kHeaderRoom, '\0');
        m_events->AppendMessage(m_frame);
        m_frame.resize(kHugeMessage + kHeaderRoom, ' ');
        SendFrame();
        break;
      case FaultKind::kHalfFrame:
        m_frame.assign(kHeaderRoom, '\0');
        m_events->AppendPartial(m_frame);
        SendHalf();
        break;
      case FaultKind::kTlsClose:
        Pipe().Notify();
        break;
      default:
        break;
    }
    m_events->FlushLog();
    Pipe().Flush();
    const bool stays =
        fault.kind == FaultKind::kStall || fault.kind == FaultKind::kGarbage || fault.kind == FaultKind::kHuge;
    if (stays) return;
    if (fault.kind == FaultKind::kReset) {
      error_code ignored;
      Pipe().Lowest().set_option(asio::socket_base::linger{true, 0}, ignored);
    }
    if (!Pipe().Sending()) return End(reason);
    Pipe().OnDrained([weak = weak_from_this(), reason = std::string{reason}] {
      if (const auto self = weak.lock()) self->End(reason);
    });
  }

  void SendHalf() {
    const std::size_t header = WriteHeader(m_frame.data(), kText, m_frame.size() - kHeaderRoom);
    std::string_view bytes{m_frame};
    bytes.remove_prefix(kHeaderRoom - header);
    Pipe().Write(bytes.substr(0, bytes.size() / 2));
  }

  void CloseWith(std::uint16_t code) {
    m_events->FlushLog();
    m_ws.async_close(websocket::close_reason{static_cast<websocket::close_code>(code), "simulated"},
                     [self = shared_from_this()](error_code) { self->End("close"); });
    m_timer.expires_after(kLinger);
    m_timer.async_wait([self = shared_from_this()](error_code stopped) {
      if (!stopped) self->End("close");
    });
  }

  void End(std::string_view reason) {
    if (std::exchange(m_ended, true)) return;
    m_events->Close(reason);
    m_timer.cancel();
    Pipe().Flush();
    if (!Pipe().Sending()) return Pipe().Close();
    Pipe().OnDrained([this] { Pipe().Close(); });  // the pipe keeps its owner alive until then
  }

  websocket::stream<TlsPipe> m_ws;
  asio::steady_timer m_timer;
  std::shared_ptr<EventStream> m_events;
  std::shared_ptr<int> m_connection;
  beast::http::request<beast::http::string_body> m_request;
  beast::flat_buffer m_buffer;
  std::string m_frame;
  bool m_deflates = false;
  bool m_compressing = false;
  bool m_stopped = false;  // a fault was committed
  bool m_ended = false;
  double m_rate = -1;  // since m_begun
  Clock::time_point m_begun;
  std::int64_t m_sent = 0;  // messages since m_begun
};

}  // namespace

void StartEventSocket(asio::ip::tcp::socket socket, SSL* ssl, beast::http::request<beast::http::string_body> request,
                      std::shared_ptr<EventStream> events, std::shared_ptr<int> connection) {
  std::make_shared<EventSocket>(std::move(socket), ssl, std::move(events), std::move(connection))
      ->Start(std::move(request));
}

}  // namespace quenmark::simulator
