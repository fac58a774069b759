#include "platform/socket_notifier.h"

#include "platform/winsock_errors.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <utility>

namespace quenmark::platform {
namespace {

constexpr Readiness kInterest{.read = true, .write = true, .hangUp = true, .urgent = true};

// How long a listener rests when a connection could not be taken for want of descriptors or memory.
constexpr std::chrono::milliseconds kAcceptRetry{100};

// Empty datagrams dropped at a look; more are dropped at the next.
constexpr int kEmptyDatagramsPerLook = 64;

// Codes after which a connection is gone.
bool IsReset(std::int32_t code) {
  return code == kWsaNetworkReset || code == kWsaConnectionAborted || code == kWsaConnectionReset ||
         code == kWsaTimedOut;
}

}  // namespace

SocketNotifier::SocketNotifier(MessageLoop& loop, SocketApi& api) : m_loop(loop), m_api(api) {}

SocketNotifier::~SocketNotifier() {
  for (std::size_t handle = 0; handle < m_entries.size(); ++handle) Forget(static_cast<SocketHandle>(handle));
}

const SocketNotifier::Entry* SocketNotifier::Find(SocketHandle handle) const {
  const auto index = static_cast<std::size_t>(handle);
  return handle >= 0 && index < m_entries.size() ? m_entries[index].get() : nullptr;
}

SocketNotifier::Entry* SocketNotifier::Find(SocketHandle handle) {
  return const_cast<Entry*>(std::as_const(*this).Find(handle));
}

// --- Selection -------------------------------------------------------------------------------------------------------

SocketResult SocketNotifier::Select(SocketHandle handle, WindowId window, std::uint32_t message, std::int32_t mask) {
  if (mask == 0) {
    Forget(handle);
    return {};
  }
  if (Entry* known = Find(handle); known != nullptr) {
    known->window = window;
    known->message = message;
    known->mask = mask;
    known->enabled = kFdAll;
    ReportAnew(*known);
    return {};
  }
  auto entry = std::make_unique<Entry>();
  entry->window = window;
  entry->message = message;
  entry->mask = mask;
  if (const SocketResult found = FindState(handle, *entry); !found.Ok()) return found;
  std::int32_t on = 1;
  if (const SocketResult set = m_api.IoControl(handle, kIoNonBlocking, on); !set.Ok()) return set;
  if (entry->state == State::kConnecting) entry->connecting.emplace(m_loop);
  const auto index = static_cast<std::size_t>(handle);
  if (index >= m_entries.size()) m_entries.resize(index + 1);
  entry->watch = m_loop.Watch(handle, kInterest, Trigger::kEdge,
                              [this, handle](Readiness readiness) { OnReady(handle, readiness); });
  if (entry->watch == 0) return SocketResult::Failure(kWsaNoBuffers);
  m_entries[index] = std::move(entry);
  return {};
}

void SocketNotifier::Forget(SocketHandle handle) {
  Entry* entry = Find(handle);
  if (entry == nullptr) return;
  m_loop.Unwatch(entry->watch);
  m_loop.CancelCall(entry->retry);
  m_entries[static_cast<std::size_t>(handle)].reset();
}

void SocketNotifier::Taken(SocketHandle handle, std::int32_t lParam) {
  Entry* entry = Find(handle);
  if (entry == nullptr) return;
  const std::int32_t event = lParam & 0xFFFF;
  entry->queued &= ~event;
  if (event == lParam || entry->state != State::kDatagram) return;
  entry->enabled |= event;  // nobody receives because of an error
  Evaluate(handle, *entry);
}

SocketResult SocketNotifier::FindState(SocketHandle handle, Entry& entry) {
  const SocketResult type = m_api.GetOption(handle, kSolSocket, kSoType);
  if (!type.Ok()) return type;
  if (type.value != kSockStream) {
    entry.state = State::kDatagram;
    return {};
  }
  const SocketResult listening = m_api.GetOption(handle, kSolSocket, kSoAcceptConnections);
  if (!listening.Ok()) return listening;
  if (listening.value != 0) {
    entry.state = State::kListening;
    return {};
  }
  InetAddress peer;
  const SocketResult connected = m_api.PeerName(handle, peer);
  if (connected.Ok()) {
    entry.state = State::kConnected;
    return {};
  }
  if (connected.error != kWsaNotConnected) return connected;
  const SocketResult ready = m_api.Poll(handle);
  if (!ready.Ok()) return ready;
  // A socket that is connecting reports nothing, one that was never connected a hang-up alone, one whose connection or
  // attempt has ended an end of the stream too.
  if ((ready.value & kPollHangUp) == 0) {
    entry.state = State::kConnecting;
  } else if ((ready.value & kPollRead) != 0) {
    const std::int32_t error = FetchError(handle, entry);
    if (error != 0 && !IsReset(error)) return SocketResult::Failure(error);
    entry.state = State::kConnected;
    entry.resetCode = error;
  }
  return {};
}

// --- Readiness -------------------------------------------------------------------------------------------------------

void SocketNotifier::ReportAnew(const Entry& entry) {
  m_loop.ChangeWatch(entry.watch, kInterest);
}

void SocketNotifier::OnReady(SocketHandle handle, Readiness readiness) {
  Entry* entry = Find(handle);
  if (entry == nullptr || entry->state == State::kIdle) return;
  entry->readable |= readiness.read;
  entry->writable |= readiness.write;
  entry->failed |= readiness.error;
  entry->hangUp |= readiness.hangUp && !entry->receiveShut;
  entry->urgent |= readiness.urgent;
  entry->urgentSeen |= readiness.urgent;
  Evaluate(handle, *entry);
}

void SocketNotifier::Evaluate(SocketHandle handle, Entry& entry) {
  switch (entry.state) {
    case State::kIdle:
      return;
    case State::kListening:
      if (entry.readable) PostEvent(handle, entry, kFdAccept);
      return;
    case State::kDatagram:
      return EvaluateDatagrams(handle, entry);
    case State::kConnecting:
      if (!entry.writable && !entry.failed && !entry.hangUp) return;
      EndConnect(handle, entry);
      if (entry.state != State::kConnected) return;
      break;
    case State::kConnected:
      break;
  }
  EvaluateConnection(handle, entry);
}

void SocketNotifier::EndConnect(SocketHandle handle, Entry& entry) {
  const std::int32_t taken = std::exchange(entry.resetCode, 0);
  const std::int32_t error = taken != 0 ? taken : FetchError(handle, entry);
  // Only a connection that was made can be reset: what it brought is still there.
  const bool reset = error == kWsaConnectionReset;
  const bool made = error == 0 || reset;
  entry.connecting.reset();
  entry.state = made ? State::kConnected : State::kIdle;
  if (reset) {
    entry.resetCode = error;
    entry.hangUp = true;
  }
  if (!made) entry.readable = entry.writable = entry.failed = entry.hangUp = false;
  entry.enabled = kFdAll;
  PostEvent(handle, entry, kFdConnect, made ? 0 : error);
}

void SocketNotifier::EvaluateConnection(SocketHandle handle, Entry& entry) {
  if (entry.failed) {
    entry.failed = false;
    const std::int32_t error = FetchError(handle, entry);
    if (error != 0) entry.resetCode = error;
    entry.hangUp |= error != 0 || !entry.receiveShut;
  }
  if (entry.urgent && PostEvent(handle, entry, kFdOutOfBand)) entry.urgent = false;
  if (entry.writable && entry.resetCode == 0) PostEvent(handle, entry, kFdWrite);
  if (!entry.hangUp) {
    if (entry.readable) PostEvent(handle, entry, kFdRead);
    return;
  }
  if (entry.closePosted) return;
  if (HasData(handle, entry)) {
    PostEvent(handle, entry, kFdRead);
  } else {
    entry.readable = false;
    entry.closePosted = PostEvent(handle, entry, kFdClose, entry.resetCode);
  }
}

void SocketNotifier::EvaluateDatagrams(SocketHandle handle, Entry& entry) {
  if (entry.writable) PostEvent(handle, entry, kFdWrite);
  // An error is fetched only when it can be told at once; until then it stays with the socket, for a receive call to
  // find.
  if (entry.failed && (entry.mask & entry.enabled & ~entry.queued & kFdRead) != 0) {
    entry.failed = false;
    const std::int32_t error = FetchError(handle, entry);
    if (error != 0) PostEvent(handle, entry, kFdRead, error);
  }
  if (entry.readable) PostEvent(handle, entry, kFdRead);
}

std::int32_t SocketNotifier::FetchError(SocketHandle handle, const Entry& entry) {
  const SocketResult result = m_api.GetOption(handle, kSolSocket, kSoError);
  if (!result.Ok()) return result.error;
  // A reset that follows the peer's close is a broken pipe to the kernel.
  return result.value == kWsaShutDown && !entry.sendShut ? kWsaConnectionReset : result.value;
}

// A look that fails counts as found: a notification too many does no harm, one too few stops the owner.
bool SocketNotifier::HasData(SocketHandle handle, Entry& entry) {
  const SocketResult waiting = CountStream(handle, &entry);
  return !waiting.Ok() || waiting.value > 0;
}

// Bytes waiting in a stream, at least. The system counts up to the mark of urgent data and so answers 0 at the mark,
// whatever lies behind it.
SocketResult SocketNotifier::CountStream(SocketHandle handle, Entry* entry) {
  std::int32_t bytes = 0;
  const SocketResult counted = m_api.IoControl(handle, kIoBytesToRead, bytes);
  if (!counted.Ok()) return counted;
  if (bytes == 0 && entry != nullptr && entry->urgentSeen) {
    std::array<std::uint8_t, 1> room{};
    SocketResult next = m_api.Receive(handle, room, kMessagePeek);
    if (next.Ok()) return next;
    if (next.error != kWsaWouldBlock && !NoteReset(*entry, next)) return next;
  }
  return {bytes, 0};
}

// Bytes of the next datagram. An empty one would hide those behind it: nobody is told of it, so nobody would take it.
SocketResult SocketNotifier::CountDatagram(SocketHandle handle) {
  std::int32_t bytes = 0;
  SocketResult result = m_api.IoControl(handle, kIoBytesToRead, bytes);
  for (int dropped = 0; result.Ok() && bytes == 0 && dropped < kEmptyDatagramsPerLook; ++dropped) {
    std::optional<InetAddress> sender;
    std::array<std::uint8_t, 1> room{};
    const SocketResult next = m_api.ReceiveFrom(handle, room, kMessagePeek, sender);
    if (!next.Ok() || next.value != 0) break;
    m_api.ReceiveFrom(handle, room, 0, sender);
    result = m_api.IoControl(handle, kIoBytesToRead, bytes);
  }
  if (result.Ok()) result.value = bytes;
  return result;
}

bool SocketNotifier::IsReadable(SocketHandle handle) {
  const SocketResult ready = m_api.Poll(handle);
  return !ready.Ok() || (ready.value & kPollRead) != 0;
}

bool SocketNotifier::PostEvent(SocketHandle handle, Entry& entry, std::int32_t event, std::int32_t error) {
  if ((entry.mask & entry.enabled & event) == 0) return false;
  if ((entry.queued & event) == 0) {
    const auto lParam = static_cast<std::intptr_t>(event) | (static_cast<std::intptr_t>(error) << 16);
    if (!m_loop.Post({entry.window, entry.message, static_cast<std::uintptr_t>(handle), lParam})) return false;
    entry.queued |= event;
  }
  entry.enabled &= ~event;
  return true;
}

// --- Calls -----------------------------------------------------------------------------------------------------------

SocketResult SocketNotifier::Listen(SocketHandle handle, std::int32_t backlog) {
  const SocketResult result = m_api.Listen(handle, backlog);
  if (Entry* entry = Find(handle); result.Ok() && entry != nullptr) entry->state = State::kListening;
  return result;
}

SocketResult SocketNotifier::Connect(SocketHandle handle, const InetAddress& address) {
  Entry* entry = Find(handle);
  // The system would answer with the end of the first call, which is CONNECT's to tell.
  if (entry != nullptr && entry->state == State::kConnecting) return SocketResult::Failure(kWsaAlready);
  if (entry != nullptr && entry->state == State::kConnected) return SocketResult::Failure(kWsaIsConnected);
  SocketResult result = m_api.Connect(handle, address);
  if (entry == nullptr || entry->state != State::kIdle) return result;
  // The first call after one that has failed only makes the system forget that one.
  if (result.error == kWsaConnectionAborted) result = m_api.Connect(handle, address);
  if (result.Ok()) {
    entry->state = State::kConnected;
    entry->enabled = kFdAll;
    ReportAnew(*entry);  // so that WRITE follows what the caller posts about the connection
  } else if (result.error == kWsaWouldBlock) {
    entry->state = State::kConnecting;
    entry->enabled = kFdAll;
    entry->connecting.emplace(m_loop);
  }
  return result;
}

SocketResult SocketNotifier::Accept(SocketHandle handle, InetAddress* peer) {
  const SocketResult result = m_api.Accept(handle, peer);
  Entry* entry = Find(handle);
  if (entry == nullptr) return result;
  entry->enabled |= kFdAccept;
  if (result.error == kWsaTooManySockets || result.error == kWsaNoBuffers) {
    // The connection stays waiting; offering it again at once would only keep the processor busy.
    entry->retry = m_loop.CallAt(entry->retry, m_loop.TheClock().Monotonic() + kAcceptRetry, [this, handle] {
      if (Entry* rested = Find(handle); rested != nullptr) Evaluate(handle, *rested);
    });
    return result;
  }
  entry->readable = result.error != kWsaWouldBlock && IsReadable(handle);
  Evaluate(handle, *entry);
  return result;
}

SocketResult SocketNotifier::ShutDown(SocketHandle handle, std::int32_t how) {
  const SocketResult result = m_api.ShutDown(handle, how);
  Entry* entry = Find(handle);
  // The system shuts an unconnected datagram socket too, though it says that it is not connected.
  if (entry != nullptr && (result.Ok() || entry->state == State::kDatagram)) {
    entry->sendShut |= how != kShutReceive;
    entry->receiveShut |= how != kShutSend;
  }
  return result;
}

SocketResult SocketNotifier::Receive(SocketHandle handle, std::span<std::uint8_t> buffer, std::int32_t flags) {
  return AfterReceive(handle, m_api.Receive(handle, buffer, flags), buffer.size(), flags);
}

SocketResult SocketNotifier::ReceiveFrom(SocketHandle handle, std::span<std::uint8_t> buffer, std::int32_t flags,
                                         std::optional<InetAddress>& sender) {
  return AfterReceive(handle, m_api.ReceiveFrom(handle, buffer, flags, sender), buffer.size(), flags);
}

SocketResult SocketNotifier::AfterReceive(SocketHandle handle, SocketResult result, std::size_t wanted,
                                          std::int32_t flags) {
  Entry* entry = Find(handle);
  if (entry == nullptr) return result;
  if ((flags & kMessageOutOfBand) != 0) {
    entry->enabled |= kFdOutOfBand;
    // Whatever else arrived meanwhile has told of the same byte.
    if (result.Ok() && (flags & kMessagePeek) == 0) entry->urgent = false;
    return result;
  }
  entry->enabled |= kFdRead;
  if (entry->state == State::kDatagram) {
    entry->readable = result.error != kWsaWouldBlock && IsReadable(handle);
  } else if (entry->state == State::kConnected) {
    if (result.error == kWsaWouldBlock) {
      entry->readable = false;
      entry->counted = 0;
    } else if (result.Ok() && result.value == 0 && wanted > 0) {
      entry->readable = false;
      entry->hangUp |= !entry->receiveShut;
      if (entry->resetCode != 0) result = SocketResult::Failure(entry->resetCode);
    } else if (result.Ok() && (flags & kMessagePeek) == 0 && !entry->hangUp) {
      // A short read has emptied the buffer, unless it ended at the mark of urgent data.
      const bool taken = static_cast<std::size_t>(result.value) < wanted && !entry->urgentSeen;
      entry->counted = taken ? 0 : std::max(entry->counted - result.value, 0);
      entry->readable = !taken && (entry->counted > 0 || HasData(handle, *entry));
    } else {
      NoteReset(*entry, result);
    }
  } else if (entry->state == State::kConnecting) {
    NoteFailedConnect(handle, *entry, result);
  } else if (entry->state == State::kIdle && result.Ok() && result.value == 0 && wanted > 0) {
    result = SocketResult::Failure(kWsaNotConnected);  // after a failed connect the system tells of an end instead
  }
  Evaluate(handle, *entry);
  return result;
}

SocketResult SocketNotifier::Send(SocketHandle handle, std::span<const std::uint8_t> data, std::int32_t flags) {
  return AfterSend(handle, m_api.Send(handle, data, flags));
}

SocketResult SocketNotifier::SendTo(SocketHandle handle, std::span<const std::uint8_t> data, std::int32_t flags,
                                    const InetAddress& address) {
  return AfterSend(handle, m_api.SendTo(handle, data, flags, address));
}

SocketResult SocketNotifier::AfterSend(SocketHandle handle, SocketResult result) {
  if (result.Ok()) return result;
  Entry* entry = Find(handle);
  if (entry == nullptr) return result;
  if (result.error == kWsaWouldBlock) {
    entry->writable = false;
    entry->enabled |= kFdWrite;
  } else if (entry->state == State::kConnected) {
    if (NoteReset(*entry, result)) Evaluate(handle, *entry);
  } else if (entry->state == State::kConnecting) {
    NoteFailedConnect(handle, *entry, result);
  } else if (result.error == kWsaShutDown && entry->state != State::kDatagram) {
    result.error = kWsaNotConnected;
  }
  return result;
}

// The system calls a connection that was made, ended and then reset by the peer broken, as one that this side has shut.
void SocketNotifier::TellReset(const Entry& entry, SocketResult& result) {
  if (result.error != kWsaShutDown || entry.sendShut) return;
  result.error = entry.resetCode != 0 ? entry.resetCode : kWsaConnectionReset;
}

// A send or receive call during a connect call takes the error away that CONNECT is to tell.
void SocketNotifier::NoteFailedConnect(SocketHandle handle, Entry& entry, SocketResult& result) {
  TellReset(entry, result);
  if (result.Ok() || result.error == kWsaWouldBlock || entry.resetCode != 0) return;
  const SocketResult ready = m_api.Poll(handle);
  if (!ready.Ok() || (ready.value & kPollHangUp) != 0) entry.resetCode = result.error;
}

// Remembers a failure that means the end of the connection, and says so in every later failure.
bool SocketNotifier::NoteReset(Entry& entry, SocketResult& result) {
  TellReset(entry, result);
  if (!IsReset(result.error)) return false;
  entry.resetCode = result.error;
  entry.hangUp = true;
  return true;
}

SocketResult SocketNotifier::PendingError(SocketHandle handle) {
  const SocketResult fetched = m_api.GetOption(handle, kSolSocket, kSoError);
  Entry* entry = Find(handle);
  if (entry == nullptr || !fetched.Ok() || fetched.value == 0) return fetched;
  SocketResult failure = SocketResult::Failure(fetched.value);
  if (entry->state == State::kConnecting) NoteFailedConnect(handle, *entry, failure);
  if (entry->state == State::kConnected && NoteReset(*entry, failure)) Evaluate(handle, *entry);
  return {failure.error, 0};
}

SocketResult SocketNotifier::Available(SocketHandle handle) {
  Entry* entry = Find(handle);
  const State state = entry != nullptr ? entry->state : State::kIdle;
  const SocketResult result = state == State::kDatagram ? CountDatagram(handle) : CountStream(handle, entry);
  if (entry == nullptr || !result.Ok()) return result;
  entry->counted = state == State::kConnected ? result.value : 0;
  if (result.value == 0 && state != State::kListening) {
    // More empty datagrams than a look drops may have come; a socket that is shut only seems to have them.
    entry->readable = state == State::kDatagram && !entry->receiveShut && IsReadable(handle);
    entry->enabled |= kFdRead;
    Evaluate(handle, *entry);
  }
  return result;
}

void SocketNotifier::Rearm(SocketHandle handle) {
  Entry* entry = Find(handle);
  if (entry == nullptr) return;
  entry->enabled |= kFdRead;
  Evaluate(handle, *entry);
}

}  // namespace quenmark::platform
