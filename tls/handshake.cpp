#include "tls/handshake.h"

#include "tls/client_handshake.h"
#include "tls/key_schedule.h"
#include "tls/post_handshake.h"
#include "tls/server_handshake.h"
#include "tls/signature_schemes.h"

#include <algorithm>

namespace quenmark::tls {

namespace {

constexpr std::size_t kMessageHeader = 4;

constexpr int Key(State state, std::uint8_t type) {
  return static_cast<int>(state) << 8 | type;
}

// The client's messages of state 4 that have an order; every other type is skipped there.
bool IsOrdered(std::uint8_t type) {
  switch (type) {
    case message::kEncryptedExtensions:
    case message::kCertificate:
    case message::kServerKeyExchange:
    case message::kCertificateRequest:
    case message::kServerHelloDone:
    case message::kCertificateVerify:
    case message::kFinished:
      return true;
    default:
      return false;
  }
}

[[noreturn]] void InvalidState(State state) {
  throw ProtocolFailure{fmt::format("Invalid state for handshake content ({})", StateName(state)),
                        alert::kHandshakeFailure};
}

void Dispatch(Context& context, const Message& message) {
  using namespace message;
  switch (Key(context.state, message.type)) {
    case Key(State::kExpectServerHello, kServerHello):
      return OnServerHello(context, message);
    case Key(State::kExpectExtensions, kEncryptedExtensions):
    case Key(State::kExpectExtensions, kCertificate):
    case Key(State::kExpectExtensions, kServerKeyExchange):
    case Key(State::kExpectExtensions, kCertificateRequest):
    case Key(State::kExpectExtensions, kServerHelloDone):
    case Key(State::kExpectExtensions, kCertificateVerify):
    case Key(State::kExpectExtensions, kFinished):
      return OnServerMessage(context, message);
    case Key(State::kExpectServerFinished, kFinished):
      return OnLegacyServerFinished(context, message);
    case Key(State::kExpectClientHello, kClientHello):
      return OnClientHello(context, message);
    case Key(State::kExpectClientKeyExchange, kClientKeyExchange):
      return OnClientKeyExchange(context, message);
    case Key(State::kExpectClientFinished, kFinished):
      return OnClientFinished(context, message);
    case Key(State::kPostHandshake, kHelloRequest):
    case Key(State::kPostHandshake, kNewSessionTicket):
    case Key(State::kPostHandshake, kKeyUpdate):
    case Key(State::kPostHandshake, kCertificateRequest):
    case Key(State::kShutdown, kHelloRequest):
    case Key(State::kShutdown, kNewSessionTicket):
    case Key(State::kShutdown, kKeyUpdate):
    case Key(State::kShutdown, kCertificateRequest):
      return OnPostHandshake(context, message);
    default:
      if (context.state == State::kShutdown) InvalidState(context.state);
      if (context.state == State::kExpectExtensions && !IsOrdered(message.type)) return SkipMessage(context, message);
      UnexpectedMessage(context.state, message.type);
  }
}

// The size of the message that begins here, once its header is there; 0 before.
std::size_t MessageSize(BytesView bytes) {
  if (bytes.size() < kMessageHeader) return 0;
  ByteReader reader(bytes);
  const std::uint8_t type = reader.U8();
  const std::size_t length = reader.U24();
  if (length > kMaxHandshakeMessage) InvalidSize(MessageName(type));
  return kMessageHeader + length;
}

void RequireHandshakeLimit(const Context& context, const Message& message) {
  if (context.handshake && context.handshake->transcript.Count() + message.whole.size() > kMaxHandshakeBytes) {
    InvalidSize(MessageName(message.type));
  }
}

}  // namespace

void ParseHandshake(Context& context, BytesView content) {
  const bool abandoned = context.state == State::kShutdown && context.handshakesCompleted == 0;
  if (context.state < State::kExpectServerHello || abandoned) InvalidState(context.state);
  Bytes joined = std::move(context.reassembly);
  context.reassembly.clear();
  const bool reassembling = !joined.empty();
  if (reassembling) joined.insert(joined.end(), content.begin(), content.end());
  BytesView rest = reassembling ? BytesView(joined) : content;
  while (true) {
    const std::size_t size = MessageSize(rest);
    if (size == 0 || size > rest.size()) break;
    const Message message{rest[0], rest.first(size), rest.subspan(kMessageHeader, size - kMessageHeader)};
    rest = rest.subspan(size);
    const BulkCipher* keys = context.remote.cipher.get();
    RequireHandshakeLimit(context, message);
    Dispatch(context, message);
    if (context.state == State::kClosed) return;
    // No message may begin before a change of keys and go on behind it (RFC 8446 §5.1).
    if (keys != context.remote.cipher.get() && !rest.empty()) UnexpectedMessage(context.state, rest[0]);
  }
  if (reassembling && rest.size() == joined.size()) {
    context.reassembly = std::move(joined);
  } else if (!rest.empty()) {
    context.reassembly.assign(rest.begin(), rest.end());
  }
}

void UnexpectedMessage(State state, std::uint8_t type) {
  throw ProtocolFailure{fmt::format("Unexpected message type for {} state ({})", StateName(state), MessageName(type)),
                        alert::kUnexpectedMessage};
}

void InvalidSize(const std::string& name) {
  throw ProtocolFailure{fmt::format("Invalid data size for {}", name), alert::kDecodeError};
}

void RequireDone(const ByteReader& reader, const std::string& name) {
  if (!reader.Done()) InvalidSize(name);
}

void UnexpectedExtension(std::uint16_t type, int alert) {
  throw ProtocolFailure{fmt::format("Unexpected extension ({})", ExtensionName(type)), alert};
}

std::vector<Extension> ReadExtensions(ByteReader& reader) {
  std::vector<Extension> extensions;
  reader.Block(2, [&] {
    while (reader.Remaining() > 0) {
      const std::uint16_t type = reader.U16();
      const BytesView data = reader.TakeBlock(2);
      if (reader.Ok()) extensions.push_back({type, data});
    }
  });
  std::vector<std::uint16_t> types(extensions.size());
  std::transform(extensions.begin(), extensions.end(), types.begin(),
                 [](const Extension& extension) { return extension.type; });
  std::sort(types.begin(), types.end());
  const auto twice = std::adjacent_find(types.begin(), types.end());
  if (twice != types.end()) UnexpectedExtension(*twice);
  return extensions;
}

void RequireAllowed(const Handshake& handshake, const Extension& extension, ExtensionPlace place) {
  struct Row {
    std::uint16_t type;
    std::uint8_t places;
  };
  constexpr auto k12 = static_cast<std::uint8_t>(ExtensionPlace::kServerHello12);
  constexpr auto k13 = static_cast<std::uint8_t>(ExtensionPlace::kServerHello13);
  constexpr auto kRetry = static_cast<std::uint8_t>(ExtensionPlace::kHelloRetryRequest);
  constexpr auto kEncrypted = static_cast<std::uint8_t>(ExtensionPlace::kEncryptedExtensions);
  // RFC 8446 §4.2 and, for TLS 1.2, RFC 6066, 7301, 7627, 5746, 8422, 8449. Some TLS 1.2 servers send their groups.
  // clang-format off
  constexpr Row kRows[] = {
      {extension::kServerName,           k12 | kEncrypted},
      {extension::kSupportedGroups,      k12 | kEncrypted},
      {extension::kEcPointFormats,       k12},
      {extension::kAlpn,                 k12 | kEncrypted},
      {extension::kExtendedMasterSecret, k12},
      {extension::kRecordSizeLimit,      k12 | kEncrypted},
      {extension::kSupportedVersions,    k13 | kRetry},
      {extension::kCookie,               kRetry},
      {extension::kKeyShare,             k13 | kRetry},
      {extension::kRenegotiationInfo,    k12},
  };
  // clang-format on
  // The cookie alone comes unasked.
  if (extension.type != extension::kCookie && !Contains(handshake.offeredExtensions, extension.type)) {
    UnexpectedExtension(extension.type, alert::kUnsupportedExtension);
  }
  const auto row = std::find_if(std::begin(kRows), std::end(kRows),
                                [&](const Row& candidate) { return candidate.type == extension.type; });
  if (row == std::end(kRows) || (row->places & static_cast<std::uint8_t>(place)) == 0) {
    UnexpectedExtension(extension.type);
  }
}

Bytes MakeCertificate(const Context& context, std::uint16_t version, bool send) {
  return MakeMessage(message::kCertificate, [&](ByteWriter& writer) {
    if (version == kVersionTls13) {
      writer.AppendBlock(1, context.isServer ? BytesView() : BytesView(context.certificateRequestContext));
    }
    writer.Block(3, [&] {
      if (!send) return;
      for (const Bytes& certificate : context.localCertificates) {
        writer.AppendBlock(3, certificate);
        if (version == kVersionTls13) writer.U16(0);
      }
    });
  });
}

Bytes SignedContent13(bool byServer, BytesView transcriptDigest) {
  Bytes content(64, 0x20);
  ByteWriter writer(content);
  writer.Append(AsBytes(byServer ? "TLS 1.3, server CertificateVerify" : "TLS 1.3, client CertificateVerify"));
  writer.U8(0);
  writer.Append(transcriptDigest);
  return content;
}

Bytes MakeCertificateVerify13(const Context& context, std::uint16_t scheme, BytesView transcriptDigest) {
  const Bytes signature =
      pvTlsSignatureSign(context.localPrivateKey, scheme, SignedContent13(context.isServer, transcriptDigest));
  return MakeMessage(message::kCertificateVerify, [&](ByteWriter& writer) {
    writer.U16(scheme);
    writer.AppendBlock(2, signature);
  });
}

void RequireVerifyData(Context& context, BytesView received, BytesView expected) {
  if (context.services->SecretsEqual(received, expected)) return;
  throw ProtocolFailure{"Handshake verification failed",
                        received.size() == expected.size() ? alert::kDecryptError : alert::kDecodeError};
}

void SendHandshake(Context& context, BytesView flight) {
  context.handshake->transcript.Append(flight);
  WriteHandshake(context, flight);
}

void CompleteHandshake(Context& context) {
  context.state = State::kPostHandshake;
  ++context.handshakesCompleted;
}

std::vector<std::uint16_t> ReadU16List(ByteReader& reader, const std::string& name) {
  std::vector<std::uint16_t> list;
  reader.Block(2, [&] {
    while (reader.Remaining() > 0) list.push_back(reader.U16());
  });
  if (!reader.Ok() || list.empty()) InvalidSize(name);
  return list;
}

bool Contains(const std::vector<std::uint16_t>& list, std::uint16_t value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

bool Handshake::PeerSent(std::uint16_t extensionType) const {
  return Contains(remoteExtensions, extensionType);
}

std::vector<std::string> SplitProtocols(const std::string& list) {
  std::vector<std::string> names;
  std::string_view rest = list;
  while (!rest.empty()) {
    const std::string_view name = rest.substr(0, rest.find('|'));
    rest.remove_prefix(std::min(name.size() + 1, rest.size()));
    if (!name.empty()) names.emplace_back(name.substr(0, 255));
  }
  return names;
}

BytesView AsBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string AsText(BytesView bytes) {
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace quenmark::tls
