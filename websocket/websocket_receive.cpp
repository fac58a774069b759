// Received bytes to messages.
//
// A frame is taken out of the buffer before anything is done about it: handlers may receive more, close, or begin
// another connection. What they were given stays, since the buffer is held meanwhile. The pass looks at the state anew
// for every frame.
#include "platform/code_page.h"
#include "websocket/limits.h"
#include "websocket/message_text.h"
#include "websocket/websocket_state.h"

#include <algorithm>
#include <chrono>

namespace quenmark::websocket {

namespace {

constexpr std::chrono::milliseconds kPumpInterval{2000};
constexpr std::string_view kWrongState = "Data Received, but websocket state is invalid for receiving data.";

std::string_view AsText(BytesView bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

BytesView AsBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

void WebsocketState::OnTransportReceive() {
  const BusyMark mark(busy);
  const auto transport = m_transport;
  const std::uint64_t connection = m_connection;
  auto pumped = m_loop.TheClock().Monotonic();
  std::size_t room = kMaxReadPerPass;
  while (room > 0 && m_received.Size() < kMaxReceiveBuffer) {
    if (transport->AvailableBytes() < 1) break;
    const std::size_t before = m_received.Size();
    if (!transport->Receive(m_received, room)) break;
    room -= std::min(room, m_received.Size() - before);
    if (const auto now = m_loop.TheClock().Monotonic(); now - pumped > kPumpInterval) {
      pumped = now;
      m_loop.RunQueued();
      if (m_dropped || m_connection != connection || readyState == kStateClosed) return;
    }
  }
  ReceivePass();
}

void WebsocketState::ForgetReceived() {
  m_received.Clear();
  m_assembly = Assembly();
  m_unansweredPing.reset();
  m_heldEnd = nullptr;
}

void WebsocketState::ReceivePass() {
  while (m_received.Size() >= 2) {
    switch (readyState) {
      case kStateConnecting:
        if (m_answered || !CollectAndValidate()) return;
        break;
      case kStateOpen:
      case kStateClosing:
        if (!TakeFrame()) return;
        break;
      default:
        ForgetReceived();
        RaiseError(kInvalidData, std::string(kWrongState));
        return;
    }
  }
}

// The connection ends while a handler waits, or before what was just read has been looked at: that was sent before the
// end and is raised before it. False when nothing is left to end: it contained a close frame, or a handler saw to it.
bool WebsocketState::DeliverBeforeTheEnd() {
  if (readyState != kStateOpen && readyState != kStateClosing) return true;
  const BusyMark mark(busy);
  const std::uint64_t connection = m_connection;
  ReceivePass();
  return !m_dropped && m_connection == connection && readyState != kStateClosed;
}

// One frame, or one step of a message in fragments. False when the pass is over.
bool WebsocketState::TakeFrame() {
  const BytesView bytes = m_received.Unread();
  if (!HeaderAvailable(bytes)) return false;
  const FrameHeader header = ParseHeader(bytes);
  if (RefuseHeader(header)) return false;
  const std::size_t end = header.dataOffset + static_cast<std::size_t>(header.payloadLength);
  if (m_assembly.active) return TakeFragment(header, end);
  if (end > bytes.size()) return false;
  if (!header.fin || header.opcode == kContinuation) return BeginMessage(header, end);
  return TakeWholeFrame(header, end);
}

// Refuses what must not be waited for: a length above the limit, and a masked frame, which a server must not send
// (RFC 6455 §5.1).
bool WebsocketState::RefuseHeader(const FrameHeader& header) {
  const std::size_t held = m_assembly.payload.size();
  const bool isControl = header.opcode >= kClose && header.opcode <= kPong;
  const bool tooLong = header.payloadLength > kMaxMessage || (!isControl && header.payloadLength > kMaxMessage - held);
  if (!tooLong && !header.masked) return false;
  const std::int32_t code = tooLong ? kMessageTooBig : kProtocolError;
  readyState = kStateClosing;
  EndWith(m_events.OnError, code, CodeText(code));
  return true;
}

bool WebsocketState::TakeWholeFrame(const FrameHeader& header, std::size_t end) {
  if (readyState == kStateClosing && header.opcode != kClose) {
    m_received.Consume(end);
    return true;
  }
  const bool isMessage = header.opcode == kText || header.opcode == kBinary;
  const BytesView payload = m_received.Unread().subspan(header.dataOffset, end - header.dataOffset);
  if (isMessage && header.rsv1 && useCompression) {
    std::string data = std::exchange(m_spareMessage, {});
    const bool inflated = Inflate(payload, data);
    m_received.Consume(end);
    return DeliverInflated(inflated, header.opcode, data);
  }
  const ReceiveBuffer::Hold hold(m_received);
  if (hold.Holds()) {
    m_received.Consume(end);
    return Dispatch(header.opcode, AsText(payload));
  }
  const std::string copy(AsText(payload));
  m_received.Consume(end);
  return Dispatch(header.opcode, copy);
}

bool WebsocketState::Inflate(BytesView payload, std::string& data) {
  return m_compressor && DecompressMessage(*m_compressor, payload, data);
}

// The memory of the message is used again for the next one.
bool WebsocketState::DeliverInflated(bool inflated, std::uint8_t opcode, std::string& data) {
  const bool goesOn = inflated ? Dispatch(opcode, data) : FailDelivery();
  if (data.capacity() > m_spareMessage.capacity() && data.capacity() <= kKeptBuffer) m_spareMessage.swap(data);
  return goesOn;
}

// The first frame of a message in fragments. It counts once two bytes follow it.
bool WebsocketState::BeginMessage(const FrameHeader& header, std::size_t end) {
  const BytesView bytes = m_received.Unread();
  if (bytes.size() < end + 2) return false;
  m_assembly.active = true;
  m_assembly.opcode = header.opcode;
  m_assembly.rsv1 = header.rsv1;
  m_assembly.payload += AsText(bytes.subspan(header.dataOffset, end - header.dataOffset));
  m_received.Consume(end);
  return header.fin ? FinishMessage() : true;
}

bool WebsocketState::TakeFragment(const FrameHeader& header, std::size_t end) {
  if (header.opcode == kClose) {
    EndWith(m_events.OnClose, kAbnormalClosure, "A Close frame was unexpectedly encountered while recieving data.");
    return false;
  }
  const BytesView bytes = m_received.Unread();
  if (end > bytes.size()) return false;
  if (header.opcode == kPing || header.opcode == kPong) return TakeInterleaved(header, end);
  m_assembly.payload += AsText(bytes.subspan(header.dataOffset, end - header.dataOffset));
  m_received.Consume(end);
  return header.fin && header.opcode == kContinuation ? FinishMessage() : true;
}

bool WebsocketState::TakeInterleaved(const FrameHeader& header, std::size_t end) {
  const std::string data(AsText(m_received.Unread().subspan(header.dataOffset, end - header.dataOffset)));
  m_received.Consume(end);
  return readyState == kStateClosing || Dispatch(header.opcode, data);
}

bool WebsocketState::FinishMessage() {
  const Assembly message = std::exchange(m_assembly, Assembly());
  if (readyState == kStateClosing && message.opcode != kClose) return true;
  const bool isMessage = message.opcode == kText || message.opcode == kBinary;
  if (isMessage && message.rsv1 && useCompression) {
    std::string data = std::exchange(m_spareMessage, {});
    return DeliverInflated(Inflate(AsBytes(message.payload), data), message.opcode, data);
  }
  return Dispatch(message.opcode, message.payload);
}

bool WebsocketState::FailDelivery() {
  if (!RaiseError(kInternalError, "Orvaline was unable to decompress incoming data.")) return true;
  if (readyState == kStateClosed) return true;  // the handler's doing
  readyState = kStateClosing;
  Disconnect();
  return true;
}

bool WebsocketState::Dispatch(std::uint8_t opcode, std::string_view data) {
  std::string repaired;
  switch (opcode) {
    case kContinuation:
      readyState = kStateClosing;
      if (RaiseError(kProtocolError, "Invalid opCode recieved. (0)")) Disconnect();
      break;
    case kClose:
      return HandleClose(data);
    case kPing:
      AnswerPing(data);
      break;
    case kPong:
      Raise(m_events.OnPong, std::string(AsUtf8(data, repaired)));
      break;
    case kText:
      Raise(m_events.OnMessage, MessageData(AsUtf8(data, repaired)), std::int32_t{kText});
      break;
    default:
      Raise(m_events.OnMessage, MessageData(data), std::int32_t{opcode});
  }
  return true;
}

// The pongs for a peer that pings and does not read are not to pile up.
void WebsocketState::AnswerPing(std::string_view data) {
  m_unansweredPing.reset();
  if (m_transport->UnsentBytes() > kMaxUnsentAtPong) {
    m_unansweredPing = data;
  } else {
    SendFrame(kFin | kPong, AsBytes(data));
  }
}

void WebsocketState::OnTransportSend() {
  if (readyState != kStateOpen) return;
  if (const auto ping = std::exchange(m_unansweredPing, {})) AnswerPing(*ping);
}

// The reason is text of one byte per character. No close frame is sent back.
bool WebsocketState::HandleClose(std::string_view payload) {
  std::int32_t code = kNormalClosure;
  std::string reason;
  if (payload.size() >= 2) {
    const BytesView bytes = AsBytes(payload);
    code = static_cast<std::int16_t>(static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]));
    reason = platform::FromWindows1252(payload.substr(2));
  }
  if (reason.empty()) reason = CodeText(code);
  EndWith(m_events.OnClose, code, reason);
  return false;
}

}  // namespace quenmark::websocket
