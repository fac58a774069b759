#include "tls/records.h"

#include "tls/handshake.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace quenmark::tls {

namespace {

constexpr std::size_t kHeaderSize = 5;
constexpr std::size_t kMaxProtectedRecord = 16640;  // type 23: 16384 + 256
constexpr std::size_t kMaxOtherRecord = 16384;
constexpr std::uint8_t kLevelFatal = 2;
constexpr std::uint8_t kLevelWarning = 1;

[[noreturn]] void UnexpectedRecord(int type) {
  throw ProtocolFailure{fmt::format("Unexpected record type ({})", type), alert::kUnexpectedMessage};
}

// The size of the whole record that begins here, once its header is there; 0 before.
std::size_t RecordSize(BytesView bytes) {
  if (bytes.size() < kHeaderSize) return 0;
  const std::size_t length = static_cast<std::size_t>(bytes[3]) << 8 | bytes[4];
  const std::size_t limit = bytes[0] == content_type::kApplicationData ? kMaxProtectedRecord : kMaxOtherRecord;
  if (length > limit) throw ProtocolFailure{"Record size too big", alert::kDecodeError};
  return kHeaderSize + length;
}

void OnChangeCipherSpec(Context& context, BytesView body) {
  if (body.size() != 1) throw ProtocolFailure{"Record size too big", alert::kUnexpectedMessage};
  if (context.state >= State::kPostHandshake || body[0] != 1 || !context.reassembly.empty()) {
    UnexpectedRecord(content_type::kChangeCipherSpec);
  }
  Handshake& handshake = *context.handshake;
  // Before the version is known, a TLS 1.3 peer may send one already (RFC 8446 §5).
  const bool maybeTls13 = handshake.version == 0
                              ? (handshake.features & kFeatureTls13) != 0 && context.state == State::kExpectServerHello
                              : handshake.version == kVersionTls13;
  if (maybeTls13) return CountIdle(context, content_type::kChangeCipherSpec);
  const State finishedState = context.isServer ? State::kExpectClientFinished : State::kExpectServerFinished;
  if (context.state != finishedState || handshake.remoteChangedCipher || !handshake.pendingRemote) {
    UnexpectedRecord(content_type::kChangeCipherSpec);
  }
  handshake.remoteChangedCipher = true;
  context.remote = std::move(*handshake.pendingRemote);
  handshake.pendingRemote.reset();
}

void OnAlert(Context& context, BytesView body) {
  if (body.size() != 2) throw ProtocolFailure{"Record size too big", alert::kUnexpectedMessage};
  const std::uint8_t description = body[1];
  if (description == alert::kCloseNotify) {
    // Not an error: answered, unless this side had said so before, and the end.
    context.lastError = {};
    if (context.state != State::kShutdown) WriteAlert(context, kLevelFatal, alert::kCloseNotify);
    context.state = State::kClosed;
    return;
  }
  if (body[0] != kLevelWarning) throw ProtocolFailure{"Received fatal alert", description};
  context.lastError = {.number = 0, .description = "", .source = "", .alertCode = description};
  CountIdle(context, content_type::kAlert);
}

void Dispatch(Context& context, std::uint8_t type, BytesView content) {
  switch (type) {
    case content_type::kChangeCipherSpec:
      return OnChangeCipherSpec(context, content);
    case content_type::kAlert:
      return OnAlert(context, content);
    case content_type::kHandshake:
      if (content.empty()) UnexpectedRecord(type);
      return ParseHandshake(context, content);
    default:
      UnexpectedRecord(type);
  }
}

// Records that stay unprotected although receiving keys are active.
bool StaysPlain(const Context& context, std::uint8_t type, std::size_t length) {
  if (type == content_type::kChangeCipherSpec) return context.remote.version == kVersionTls13 && length == 1;
  return type == content_type::kAlert && length == 2 && context.handshakesCompleted == 0 &&
         context.state < State::kPostHandshake;
}

// Cuts the decrypted data back to what may be handed out, also when an exception passes.
class DecryptedTail {
 public:
  explicit DecryptedTail(Bytes& bytes) : m_bytes(bytes), m_end(bytes.size()) {}
  ~DecryptedTail() {
    if (m_bytes.size() > m_end) m_bytes.resize(m_end);
  }
  DecryptedTail(const DecryptedTail&) = delete;
  DecryptedTail& operator=(const DecryptedTail&) = delete;

  BytesView View() const { return BytesView(m_bytes).subspan(m_end); }
  void Keep() { m_end = m_bytes.size(); }

 private:
  Bytes& m_bytes;
  std::size_t m_end;
};

void ProcessRecord(Context& context, BytesView record) {
  const std::uint8_t type = record[0];
  const BytesView fragment = record.subspan(kHeaderSize);
  if (!context.remote.Active() || StaysPlain(context, type, fragment.size())) {
    return Dispatch(context, type, fragment);
  }
  if (context.remote.version == kVersionTls13 && type != content_type::kApplicationData) UnexpectedRecord(type);
  DecryptedTail tail(context.decrypted);
  const Opened opened = Open(context.remote, *context.services, record, context.decrypted);
  if (opened.type != content_type::kApplicationData) {
    // A ChangeCipherSpec has no place inside TLS 1.3 protection.
    if (opened.type == content_type::kChangeCipherSpec && context.remote.version == kVersionTls13) {
      UnexpectedRecord(opened.type);
    }
    return Dispatch(context, opened.type, tail.View());
  }
  // A close_notify before the handshake is complete leads to a state as late as that of a complete one.
  const bool early = context.state < State::kPostHandshake || context.handshakesCompleted == 0;
  if (early || !context.reassembly.empty()) UnexpectedRecord(opened.type);
  if (opened.size == 0) return CountIdle(context, opened.type);
  context.idleRecords = 0;
  tail.Keep();
}

}  // namespace

void CountIdle(Context& context, int type) {
  if (++context.idleRecords > kMaxIdleRecords) UnexpectedRecord(type);
}

void ParseRecords(Context& context, BytesView input) {
  // First the record that an earlier call left open, as far as it goes; everything else is taken from where it lies.
  Bytes& open = context.receiveBuffer;
  while (!open.empty() && !input.empty()) {
    const std::size_t whole = RecordSize(open);
    const std::size_t wanted = (whole == 0 ? kHeaderSize : whole) - open.size();
    const std::size_t count = std::min(wanted, input.size());
    open.insert(open.end(), input.begin(), input.begin() + static_cast<std::ptrdiff_t>(count));
    input = input.subspan(count);
    if (const std::size_t size = RecordSize(open); size == 0 || open.size() < size) continue;
    ProcessRecord(context, open);
    open.clear();
    if (context.state == State::kClosed) return;
  }
  while (context.state != State::kClosed) {
    const std::size_t size = RecordSize(input);
    if (size == 0 || size > input.size()) break;
    ProcessRecord(context, input.first(size));
    input = input.subspan(size);
  }
  if (context.state != State::kClosed && !input.empty()) open.assign(input.begin(), input.end());
}

void WriteRecord(Context& context, std::uint8_t type, BytesView payload) {
  if (context.local.Active()) return Seal(context.local, type, payload, context.sendBuffer);
  const std::uint8_t header[kHeaderSize] = {type, 3, 3, static_cast<std::uint8_t>(payload.size() >> 8),
                                            static_cast<std::uint8_t>(payload.size())};
  context.sendBuffer.insert(context.sendBuffer.end(), header, header + kHeaderSize);
  context.sendBuffer.insert(context.sendBuffer.end(), payload.begin(), payload.end());
}

void WriteHandshake(Context& context, BytesView messages) {
  while (!messages.empty()) {
    const std::size_t count = std::min(messages.size(), kMaxPlaintext);
    WriteRecord(context, content_type::kHandshake, messages.first(count));
    messages = messages.subspan(count);
  }
}

void WriteChangeCipherSpec(Context& context) {
  constexpr std::uint8_t kPayload[] = {1};
  if (context.handshake->version != kVersionTls13) {
    return WriteRecord(context, content_type::kChangeCipherSpec, kPayload);
  }
  constexpr std::uint8_t kRecord[] = {content_type::kChangeCipherSpec, 3, 3, 0, 1, 1};
  context.sendBuffer.insert(context.sendBuffer.end(), std::begin(kRecord), std::end(kRecord));
}

void WriteAlert(Context& context, std::uint8_t level, int description) {
  if (context.local.Active() && context.local.sequence > kMaxSequence) return;
  const std::uint8_t payload[] = {level, static_cast<std::uint8_t>(description)};
  WriteRecord(context, content_type::kAlert, payload);
}

}  // namespace quenmark::tls
