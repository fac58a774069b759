// Notifications to events, and the waits that hold them back.
#include "platform/winsock_errors.h"
#include "sockets/async_socket.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

namespace quenmark::sockets {

using platform::kFdClose;
using platform::kFdRead;
using platform::Message;
using platform::MonotonicTime;

template <typename Handler, typename... Arguments>
void cAsyncSocket::pvRaise(Handler handler, Arguments&&... arguments) {
  if (const auto events = m_events.lock()) (events.get()->*handler)(*this, std::forward<Arguments>(arguments)...);
}

// --- Dispatch --------------------------------------------------------------------------------------------------------

void cAsyncSocket::pvOnNotification(std::shared_ptr<cAsyncSocket> socket, const NotifyRecord& record) {
  cAsyncSocket& self = *socket;
  const Keep keep(std::move(socket));
  if (record.wParam != self.m_handle) return;
  if (self.m_waits != nullptr && !self.pvClosedSince(self.m_waits->generation)) {
    self.pvKeepForLater(record);
  } else {
    self.pvDispatch(record.lParam);
  }
}

void cAsyncSocket::pvDispatch(std::int32_t lParam) {
  const Keep keep(*this);
  const std::uint64_t generation = m_generation;
  const std::int32_t event = lParam & 0xFFFF;
  const std::int32_t error = (lParam >> 16) & 0xFFFF;
  m_lastError = error;
  if (error != 0) return pvRaise(&AsyncSocketEvents::OnError, error, event);
  bool cancel = false;
  pvRaise(&AsyncSocketEvents::BeforeNotify, event, cancel);
  if (cancel || pvClosedSince(generation)) return;
  pvRaiseByEvent(event);
  if (!pvClosedSince(generation)) pvRaise(&AsyncSocketEvents::AfterNotify, event);
}

void cAsyncSocket::pvRaiseByEvent(std::int32_t event) {
  switch (event) {
    case kFdClose:
      return pvRaise(&AsyncSocketEvents::OnClose);
    case platform::kFdConnect:
      return pvRaise(&AsyncSocketEvents::OnConnect);
    case platform::kFdWrite:
      return pvRaise(&AsyncSocketEvents::OnSend);
    case platform::kFdAccept:
      return pvRaise(&AsyncSocketEvents::OnAccept);
    case kForcedRead:
      return pvRaise(&AsyncSocketEvents::OnReceive);
    case kFdRead: {
      const std::int32_t available = AvailableBytes();
      if (available < 0) return pvRaise(&AsyncSocketEvents::OnError, m_lastError, kFdRead);
      if (available > 0) pvRaise(&AsyncSocketEvents::OnReceive);
      return;
    }
    default:
      return;
  }
}

bool cAsyncSocket::pvOnResolved(std::shared_ptr<cAsyncSocket> socket, std::int32_t lookup, std::int32_t lParam) {
  cAsyncSocket& self = *socket;
  if (self.m_resolution == nullptr || self.m_resolution->lookup != lookup) return false;
  if (!self.m_resolution->host.finished) return false;
  const Keep keep(std::move(socket));
  self.pvEndResolution((lParam >> 16) & 0xFFFF);
  return true;
}

void cAsyncSocket::pvEndResolution(std::int32_t error) {
  const std::uint64_t generation = m_generation;
  const std::unique_ptr<Resolution> resolution = std::move(m_resolution);
  for (Wait* wait = m_waits; wait != nullptr; wait = wait->outer) wait->arrived |= kResolved;
  m_lastError = error;
  if (error != 0) return pvRaise(&AsyncSocketEvents::OnError, error, kResolved);
  const platform::InetAddress address{resolution->host.addresses.front(), static_cast<std::uint16_t>(resolution->port)};
  pvRaise(&AsyncSocketEvents::OnResolve, platform::HostText(address.host));
  if (pvClosedSince(generation)) {
    m_lastError = platform::kWsaInterrupted;
  } else if (pvIsDatagram()) {
    PostEvent(platform::kFdConnect);
  } else if (!pvConnectTo(address)) {
    pvRaise(&AsyncSocketEvents::OnError, m_lastError, platform::kFdConnect);
  }
}

// --- Waiting ---------------------------------------------------------------------------------------------------------

// A kept notification that would only say the same again is left out, so that an owner who never asks for the kept
// ones does not collect them without end.
void cAsyncSocket::pvKeepForLater(const NotifyRecord& record) {
  for (Wait* wait = m_waits; wait != nullptr && !pvClosedSince(wait->generation); wait = wait->outer) {
    wait->arrived |= record.lParam & 0xFFFF;
  }
  const bool repeats = (record.lParam & (platform::kFdConnect | kFdClose)) == 0;
  const auto same = [&](const NotifyRecord& kept) { return kept.lParam == record.lParam; };
  if (repeats && std::any_of(m_pendingEvents.begin(), m_pendingEvents.end(), same)) return;
  m_pendingEvents.push_back({kMessageFirstSocket, record.wParam, record.lParam});
}

void cAsyncSocket::SyncProcessMsgQueue() {
  const Keep keep(*this);
  const std::uint64_t generation = m_generation;
  while (!m_pendingEvents.empty() && !pvClosedSince(generation)) {
    const NotifyRecord record = m_pendingEvents.front();
    m_pendingEvents.erase(m_pendingEvents.begin());
    pvDispatch(record.lParam);
  }
}

cAsyncSocket::Wait::Wait(cAsyncSocket& waiting)
    : socket(waiting),
      generation(waiting.m_generation),
      outer(std::exchange(waiting.m_waits, this)),
      outerWaiting(std::exchange(waiting.m_waiting, true)),
      exceptions(std::uncaught_exceptions()) {}

// Also when a handler throws through the wait. Nobody asks for what was kept then.
cAsyncSocket::Wait::~Wait() {
  socket.m_waits = outer;
  socket.m_waiting = outerWaiting;
  if (outer == nullptr && std::uncaught_exceptions() > exceptions) socket.SyncRequeueMsgQueue();
}

void cAsyncSocket::SyncRequeueMsgQueue() {
  if (m_pendingEvents.empty()) return;
  std::vector<Message> since;
  const std::uint32_t number = SocketMessage(m_slot);
  m_helper->Loop().RemoveMessages(m_helper->Window(), [&](const Message& message) {
    if (message.number != number) return false;
    since.push_back(message);
    return true;
  });
  for (const NotifyRecord& record : std::exchange(m_pendingEvents, {})) {
    m_helper->Post(m_slot, record.wParam, record.lParam);
  }
  for (const Message& message : since) m_helper->Loop().Post(message);
}

bool cAsyncSocket::SyncWaitForEvent(std::int32_t timeout, std::int32_t eventMask) {
  if ((eventMask & kResolved) != 0 && !HasPendingResolve()) return pvSucceed();
  if (!pvHasHandle()) return false;
  const Keep keep(*this);
  platform::MessageLoop& loop = m_helper->Loop();
  const platform::MessageLoop::OutsideWork outside(loop);
  const platform::MessageLoop::MainTickPause pause(loop);
  if ((eventMask & kFdRead) != 0) eventMask |= kForcedRead;

  Wait wait(*this);
  // The peer's close, kept since an earlier wait: nothing more will be read.
  const auto isClose = [](const NotifyRecord& kept) { return (kept.lParam & kFdClose) != 0; };
  if (eventMask == (kFdRead | kForcedRead) && std::any_of(m_pendingEvents.begin(), m_pendingEvents.end(), isClose)) {
    wait.arrived = kFdClose;
  }
  const MonotonicTime deadline =
      timeout > 0 ? loop.TheClock().Monotonic() + std::chrono::milliseconds{timeout} : MonotonicTime::max();
  std::int32_t error = pvWait(wait, deadline, eventMask);
  if (!m_waiting) error = platform::kWsaInterrupted;
  if (!m_pendingEvents.empty() && m_slot >= 0) m_helper->Post(m_slot, -1, 0);
  return error == 0 ? pvSucceed() : pvFail(error);
}

// 0 or the code the wait fails with. The deadline is the wait's own, so that waits within one another do not share a
// timer.
std::int32_t cAsyncSocket::pvWait(Wait& wait, MonotonicTime deadline, std::int32_t eventMask) {
  platform::MessageLoop& loop = m_helper->Loop();
  bool leftStanding = false;
  for (bool yield = true;;) {
    yield |= pvTakeMessage(SocketMessage(m_slot));
    if ((wait.arrived & eventMask) != 0) return 0;
    if ((wait.arrived & kFdClose) != 0) return platform::kWsaNotConnected;
    yield |= pvTakeMessage(kMessageResolved);
    if (pvClosedSince(wait.generation)) return platform::kWsaInterrupted;
    if ((wait.arrived & eventMask) != 0) return 0;
    if (deadline != MonotonicTime::max() && loop.TheClock().Monotonic() >= deadline) return platform::kTimeoutResult;
    if (!m_waiting) return platform::kWsaInterrupted;
    Message message;
    if (yield && loop.Peek(message, {}, false)) {
      if (!pvLetOneMessageRun(wait, message, leftStanding)) return platform::kWsaInterrupted;
      yield = false;
    } else {
      constexpr std::chrono::milliseconds kLimit{1};
      // A message that an owner leaves in the queue would end a wait for messages at once, again and again.
      if (std::exchange(leftStanding, false)) {
        loop.WaitForReadiness(kLimit);
      } else {
        loop.WaitForWork(kLimit);
      }
      yield = true;
    }
  }
}

// Takes one message of the helper's window. A notification for this socket is kept, as it is in a wait; a lookup that
// has ended goes to the socket it belongs to.
bool cAsyncSocket::pvTakeMessage(std::uint32_t number) {
  platform::MessageLoop& loop = m_helper->Loop();
  Message message;
  if (!loop.Peek(message, {m_helper->Window(), number, number}, true)) return false;
  loop.Dispatch(message);
  return true;
}

// False when the socket was closed meanwhile. `leftStanding`: the owner has dealt with the first message of the queue
// without taking it.
bool cAsyncSocket::pvLetOneMessageRun(const Wait& wait, const Message& first, bool& leftStanding) {
  platform::MessageLoop& loop = m_helper->Loop();
  bool handled = false;
  pvRaise(&AsyncSocketEvents::OnMessagePending, handled);
  if (pvClosedSince(wait.generation)) return false;
  Message next;
  leftStanding = handled && loop.Peek(next, {}, false) && next == first;
  if (!handled) loop.DispatchOneDuringWait();
  return !pvClosedSince(wait.generation);
}

}  // namespace quenmark::sockets
