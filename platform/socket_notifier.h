// Readiness of sockets as window messages, after the model of WSAAsyncSelect.
//
// For every selected socket a message (the caller's number; wParam: the handle; lParam: the event in the low half, a
// Winsock code in the high half) is posted when
//   READ     data is waiting: once, and again after a receive call that leaves data
//   WRITE    the connection is made, and later when there is room again after a send that would have blocked
//   OOB      urgent data is waiting: once, and again after a receive call for such data
//   ACCEPT   a connection is waiting: once, and again after an accept call that leaves one
//   CONNECT  a connect call under way has ended: once, with its code
//   CLOSE    the peer has closed and all data has been taken: once, with the code of a reset
// While a message is queued no second one for the same event is, so a socket has at most six queued messages. Because
// the calls re-enable the messages, a selected socket is to be used through this class only. Notifications cost no
// allocation.
#pragma once

#include "platform/message_loop.h"
#include "platform/socket_api.h"

#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace quenmark::platform {

inline constexpr std::int32_t kFdRead = 1;
inline constexpr std::int32_t kFdWrite = 2;
inline constexpr std::int32_t kFdOutOfBand = 4;
inline constexpr std::int32_t kFdAccept = 8;
inline constexpr std::int32_t kFdConnect = 16;
inline constexpr std::int32_t kFdClose = 32;
inline constexpr std::int32_t kFdAll = 63;

class SocketNotifier {
 public:
  // Both must outlive it.
  SocketNotifier(MessageLoop& loop, SocketApi& api);
  ~SocketNotifier();
  SocketNotifier(const SocketNotifier&) = delete;
  SocketNotifier& operator=(const SocketNotifier&) = delete;

  // Makes the socket non-blocking and posts the events of `mask` from now on, those that hold at this moment included;
  // replaces an earlier selection. A mask of 0 ends it. Fails for a socket whose connect call has failed unheard.
  SocketResult Select(SocketHandle handle, WindowId window, std::uint32_t message, std::int32_t mask);
  // Ends the selection and forgets everything about the handle. Required before the socket is closed.
  void Forget(SocketHandle handle);
  bool IsSelected(SocketHandle handle) const { return Find(handle) != nullptr; }
  // The receiver of the messages says here that it has taken one from the queue.
  void Taken(SocketHandle handle, std::int32_t lParam);

  SocketResult Listen(SocketHandle handle, std::int32_t backlog);
  SocketResult Connect(SocketHandle handle, const InetAddress& address);
  SocketResult Accept(SocketHandle handle, InetAddress* peer);
  SocketResult ShutDown(SocketHandle handle, std::int32_t how);
  SocketResult Receive(SocketHandle handle, std::span<std::uint8_t> buffer, std::int32_t flags);
  SocketResult ReceiveFrom(SocketHandle handle, std::span<std::uint8_t> buffer, std::int32_t flags,
                           std::optional<InetAddress>& sender);
  SocketResult Send(SocketHandle handle, std::span<const std::uint8_t> data, std::int32_t flags);
  SocketResult SendTo(SocketHandle handle, std::span<const std::uint8_t> data, std::int32_t flags,
                      const InetAddress& address);
  // Bytes waiting, at least 1 at a mark of urgent data that more lies behind; of a datagram socket those of the next
  // datagram, empty ones before it being dropped.
  SocketResult Available(SocketHandle handle);
  // The error that waits to be fetched, 0 when there is none. The system gives it once; CONNECT and CLOSE tell it
  // still.
  SocketResult PendingError(SocketHandle handle);
  // Re-enables READ without a receive call.
  void Rearm(SocketHandle handle);

 private:
  enum class State { kIdle, kConnecting, kConnected, kListening, kDatagram };

  struct Entry {
    WatchId watch = 0;
    WindowId window = 0;
    std::uint32_t message = 0;
    std::int32_t mask = 0;
    State state = State::kIdle;
    std::int32_t enabled = kFdAll;  // events that may be posted
    std::int32_t queued = 0;        // events posted and not taken
    std::int32_t resetCode = 0;     // what CLOSE and later calls report; while connecting, what CONNECT will
    std::int32_t counted = 0;       // bytes known to wait in a stream, at least
    bool readable = false;          // data or connections may be waiting
    bool writable = false;
    bool urgent = false;
    bool urgentSeen = false;
    bool hangUp = false;  // no more data will come
    bool failed = false;  // an error waits to be fetched
    bool closePosted = false;
    bool sendShut = false;     // by our side
    bool receiveShut = false;  // by our side
    WatchId retry = 0;
    std::optional<MessageLoop::OutsideWork> connecting;
  };

  const Entry* Find(SocketHandle handle) const;
  Entry* Find(SocketHandle handle);
  SocketResult FindState(SocketHandle handle, Entry& entry);
  void OnReady(SocketHandle handle, Readiness readiness);
  void ReportAnew(const Entry& entry);
  void Evaluate(SocketHandle handle, Entry& entry);
  void EndConnect(SocketHandle handle, Entry& entry);
  void EvaluateConnection(SocketHandle handle, Entry& entry);
  void EvaluateDatagrams(SocketHandle handle, Entry& entry);
  std::int32_t FetchError(SocketHandle handle, const Entry& entry);
  bool HasData(SocketHandle handle, Entry& entry);
  SocketResult CountStream(SocketHandle handle, Entry* entry);
  SocketResult CountDatagram(SocketHandle handle);
  bool IsReadable(SocketHandle handle);
  SocketResult AfterReceive(SocketHandle handle, SocketResult result, std::size_t wanted, std::int32_t flags);
  SocketResult AfterSend(SocketHandle handle, SocketResult result);
  static void TellReset(const Entry& entry, SocketResult& result);
  void NoteFailedConnect(SocketHandle handle, Entry& entry, SocketResult& result);
  bool NoteReset(Entry& entry, SocketResult& result);
  bool PostEvent(SocketHandle handle, Entry& entry, std::int32_t event, std::int32_t error = 0);

  MessageLoop& m_loop;
  SocketApi& m_api;
  std::vector<std::unique_ptr<Entry>> m_entries;  // by handle
};

}  // namespace quenmark::platform
