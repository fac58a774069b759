// Messages to frames.
#include "platform/code_page.h"
#include "websocket/limits.h"
#include "websocket/message_text.h"
#include "websocket/websocket_state.h"

#include <utility>

namespace quenmark::websocket {

namespace {

constexpr double kSmallestChunk = 126;
constexpr double kLargestChunk = 2147483647;

BytesView AsBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

Bytes Utf16LittleEndian(std::string_view text) {
  Bytes bytes;
  bytes.reserve(2 * text.size());
  for (const char16_t unit : platform::ToUtf16(text)) {
    bytes.push_back(static_cast<std::uint8_t>(unit & 0xFF));
    bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
  }
  return bytes;
}

// The text as well-formed UTF-8; `repaired` holds it when it was not.
std::string_view WellFormed(std::string_view text, std::string& repaired) {
  if (IsUtf8(text)) return text;
  repaired = platform::SanitizeUtf8(text);
  return repaired;
}

}  // namespace

void WebsocketState::SetUseCompression(bool value) {
  useCompression = value;
  if (!value) {
    m_compressor.reset();
  } else if (!m_compressor) {
    m_compressor = std::make_unique<cZipArchive>();
    const DeflateTerms terms = ReadDeflateTerms(extensions);
    m_compressor->Begin(terms.clientWindowBits, terms.serverKeepsContext);
  }
}

void WebsocketState::SetChunkSize(double value) {
  if (value > kLargestChunk) {
    RaiseError(kInternalError,
               "Chunk size to large. Maximum supported chunk size is &H7FFFFFFF (2,147,483,647) bytes.");
    return;
  }
  chunkSize = value;
}

bool WebsocketState::Compress(BytesView payload, Bytes& output) {
  if (m_compressor && CompressMessage(*m_compressor, payload, output)) return true;
  RaiseError(kInternalError, "Orvaline was unable to compress outgoing data.");
  return false;
}

void WebsocketState::Send(const SendData& data, bool noUtf8Conversion) {
  if (m_transport->IsClosed()) {
    RaiseError(kInternalError, "Cant send data. Websocket is not connected.");
    return;
  }
  const BusyMark mark(busy);
  if (!(chunkSize >= kSmallestChunk && chunkSize <= kLargestChunk)) chunkSize = kDefaultChunkSize;
  switch (data.What()) {
    case SendData::Kind::kUnsupported:
      RaiseError(kUnsupportedData,
                 "Data in the Send() function contains an unsupported data type. Only Byte Arrays and Strings are "
                 "supported.");
      return;
    case SendData::Kind::kByteArray:
      if (noUtf8Conversion) {
        RaiseError(kUnsupportedData, "You have specified the NoUTF8Conversion flag but data is not a String type.");
        return;
      }
      return SendMessage(data.AsBytes(), kBinary);
    case SendData::Kind::kString: {
      if (noUtf8Conversion) return SendMessage(Utf16LittleEndian(data.Text()), kBinary);
      std::string repaired;
      return SendMessage(AsBytes(WellFormed(data.Text(), repaired)), kText);
    }
  }
}

void WebsocketState::SendMessage(BytesView payload, std::uint8_t msgType) {
  Bytes compressed;
  std::uint8_t firstByte = msgType;
  if (Compressing()) {
    if (!Compress(payload, compressed)) return;
    payload = compressed;
    firstByte |= kRsv1;
  }
  if (payload.empty() || payload.size() > kMaxFramePayload) return;
  const auto total = static_cast<std::int32_t>(payload.size());
  const bool inFragments = payload.size() > FragmentPayload(chunkSize);
  if (!inFragments) return SendFrame(kFin | firstByte, payload);
  if (!SendFragments(payload, firstByte)) return;
  SendFrame(kFin | kContinuation, payload);
  bool cancel = false;
  Raise(m_events.onProgress, total, total, cancel);
}

// Sends all but the last fragment and leaves that one in `payload`. False when the send is over.
bool WebsocketState::SendFragments(BytesView& payload, std::uint8_t msgType) {
  const std::size_t fragment = FragmentPayload(chunkSize);
  const auto total = static_cast<std::int32_t>(payload.size());
  const std::uint64_t connection = m_connection;
  std::int32_t sent = 0;
  while (payload.size() > fragment) {
    SendFrame(sent == 0 ? msgType : kContinuation, payload.first(fragment));
    payload = payload.subspan(fragment);
    sent += static_cast<std::int32_t>(fragment);
    bool cancel = false;
    // The handler may end the connection, or begin another one that this message has no business on.
    bool alive = !m_dropped && m_connection == connection && readyState == kStateOpen;
    if (alive) alive = Raise(m_events.onProgress, sent, total, cancel) && readyState == kStateOpen;
    if (cancel) return false;
    if (!alive) {
      RaiseError(kInternalError, "Data send aborted. Websocket is not connected.");
      return false;
    }
  }
  return true;
}

void WebsocketState::SendAdvanced(const SendData& data, std::int32_t opcode, const FrameOptions& options) {
  if (opcode < 0 || opcode >= 16) {
    RaiseError(kInvalidData, "Invalid opcode specified in the SendAdvanced() procedure!");
    return;
  }
  if (m_transport->IsClosed()) {
    RaiseError(kInternalError, "SendAdvanced(): Cant send data. Websocket is not connected.");
    return;
  }
  const BusyMark mark(busy);
  if (data.What() == SendData::Kind::kUnsupported) {
    RaiseError(kUnsupportedData,
               "Data in the SendAdvanced() function contains an unsupported data type. Only Byte Arrays and Strings "
               "are supported.");
    return;
  }
  const bool isText = data.What() == SendData::Kind::kString;
  if (!isText && options.utf8Encode) {
    RaiseError(
        kUnsupportedData,
        "You have specified the UTF8 Encode flag in the SendAdvanced() procedure, but data is not a String type.");
    return;
  }
  std::string repaired;
  Bytes units;
  if (isText && !options.utf8Encode) units = Utf16LittleEndian(data.Text());
  BytesView payload = !isText              ? data.AsBytes()
                      : options.utf8Encode ? AsBytes(WellFormed(data.Text(), repaired))
                                           : BytesView(units);
  Bytes compressed;
  const bool compress = options.compress && !payload.empty();
  if (compress) {
    if (!DeflateNegotiated(extensions)) {
      RaiseError(kInternalError,
                 "Unable to compress data! You have specified the compression flag in SendAdvanced() but the "
                 "compression option was not enabled by the server.");
      return;
    }
    if (!Compress(payload, compressed)) {
      RaiseError(kInternalError, "SendAdvanced(): Websocket was unable to compress data!");
      return;
    }
    payload = compressed;
  }
  auto firstByte = static_cast<std::uint8_t>(opcode);
  if (options.fin) firstByte |= kFin;
  if (compress || (options.rsv1 && !options.compress)) firstByte |= kRsv1;
  if (options.rsv2) firstByte |= kRsv2;
  if (options.rsv3) firstByte |= kRsv3;
  SendFrame(firstByte, payload);
}

void WebsocketState::Ping(std::string_view data) {
  std::string repaired;
  SendFrame(kFin | kPing, AsBytes(WellFormed(data, repaired)));
}

void WebsocketState::SendFrame(std::uint8_t firstByte, BytesView payload) {
  const auto transport = m_transport;
  Bytes frame = std::exchange(m_spareFrame, {});
  frame.clear();
  AppendFrame(frame, firstByte, payload, payload.empty() ? std::array<std::uint8_t, 4>{} : m_random.MaskKey());
  if (!frame.empty()) transport->SendArray(frame);
  if (frame.capacity() <= kKeptBuffer) m_spareFrame = std::move(frame);
}

}  // namespace quenmark::websocket
