#include "tls/client_handshake.h"
#include "tls/hello_random.h"
#include "tls/secrets.h"

#include <algorithm>

namespace quenmark::tls {

namespace {

struct ServerHello {
  std::uint16_t legacyVersion = 0;
  BytesView random;
  BytesView sessionId;
  std::uint16_t suite = 0;
  std::uint8_t compression = 0;
  std::vector<Extension> extensions;
};

[[noreturn]] void Illegal(std::string description) {
  throw ProtocolFailure{std::move(description), alert::kIllegalParameter};
}

ServerHello Parse(const Message& message) {
  ByteReader reader(message.body);
  ServerHello hello;
  hello.legacyVersion = reader.U16();
  hello.random = reader.Take(32);
  hello.sessionId = reader.TakeBlock(1);
  hello.suite = reader.U16();
  hello.compression = reader.U8();
  if (reader.Remaining() > 0) hello.extensions = ReadExtensions(reader);
  RequireDone(reader, MessageName(message.type));
  if (hello.sessionId.size() > 32) InvalidSize(MessageName(message.type));
  return hello;
}

void ReadKeyShare(Context& context, BytesView data, bool retry) {
  Handshake& handshake = *context.handshake;
  const std::string name = ExtensionName(extension::kKeyShare);
  if (data.size() < 2 || (!retry && data.size() < 5)) InvalidSize(name);
  ByteReader reader(data);
  const std::uint16_t group = reader.U16();
  const Group& row = GroupOf(group);
  // A retry asks for another group than the one sent, a ServerHello answers with the one sent (RFC 8446 §4.2.8).
  if ((&row == handshake.group) == retry) {
    Illegal(fmt::format("Unsupported exchange group ({})", Hexadecimal(group)));
  }
  if (retry) {
    handshake.requestedGroup = group;
    pvTlsSetupExchGroup(context, group);
  } else {
    const BytesView key = reader.TakeBlock(2);
    handshake.remotePublicKey.assign(key.begin(), key.end());
  }
  RequireDone(reader, name);
}

void ReadAlpn(Context& context, BytesView data) {
  const std::string extension = ExtensionName(extension::kAlpn);
  ByteReader reader(data);
  std::string name;
  reader.Block(2, [&] { name = AsText(reader.TakeBlock(1)); });
  RequireDone(reader, extension);
  if (name.empty()) InvalidSize(extension);
  const auto offered = SplitProtocols(context.alpnProtocols);
  if (std::find(offered.begin(), offered.end(), name) == offered.end()) {
    UnexpectedExtension(extension::kAlpn);
  }
  context.alpnNegotiated = name;
}

void ReadCookie(Handshake& handshake, BytesView data) {
  ByteReader reader(data);
  const BytesView cookie = reader.TakeBlock(2);
  RequireDone(reader, ExtensionName(extension::kCookie));
  if (cookie.empty()) InvalidSize(ExtensionName(extension::kCookie));
  handshake.cookie.assign(cookie.begin(), cookie.end());
}

// RFC 5746 §3.4 and §3.5.
void ReadRenegotiationInfo(Context& context, BytesView data) {
  ByteReader reader(data);
  const BytesView received = reader.TakeBlock(1);
  RequireDone(reader, ExtensionName(extension::kRenegotiationInfo));
  Bytes expected;
  if (context.handshake->renegotiation) {
    expected = context.localVerifyData;
    expected.insert(expected.end(), context.remoteVerifyData.begin(), context.remoteVerifyData.end());
  }
  if (!context.services->SecretsEqual(received, expected)) {
    throw ProtocolFailure{"Renegotiation verification failed", alert::kHandshakeFailure};
  }
}

std::uint16_t NegotiatedVersion(const ServerHello& hello) {
  std::uint16_t version = hello.legacyVersion;
  for (const Extension& extension : hello.extensions) {
    if (extension.type == extension::kKeyShare) version = kVersionTls13;
  }
  for (const Extension& extension : hello.extensions) {
    if (extension.type != extension::kSupportedVersions) continue;
    if (extension.data.size() != 2) InvalidSize(ExtensionName(extension.type));
    version = ByteReader(extension.data).U16();
    // RFC 8446 §4.2.1: never used to choose an older version.
    if (version != kVersionTls13) Illegal("Invalid protocol version");
  }
  return version;
}

void CheckVersion(const Handshake& handshake, const ServerHello& hello, std::uint16_t version) {
  const bool offered = (version == kVersionTls13 && (handshake.features & kFeatureTls13) != 0) ||
                       (version == kVersionTls12 && (handshake.features & kFeatureTls12) != 0);
  if (!offered || hello.legacyVersion != kVersionTls12) {
    throw ProtocolFailure{"Invalid protocol version", alert::kProtocolVersion};
  }
  // RFC 8446 §4.1.3: a server that could do better says so in its random.
  if (version == kVersionTls12 && (handshake.features & kFeatureTls13) != 0 && HasDowngradeMarker(hello.random)) {
    Illegal("Invalid protocol version");
  }
}

void CheckFields(const Handshake& handshake, const ServerHello& hello) {
  const bool tls13 = handshake.version == kVersionTls13;
  const bool suiteFits = Contains(handshake.offeredSuites, hello.suite) && handshake.suite->IsTls13() == tls13 &&
                         (handshake.retrySuite == nullptr || handshake.retrySuite == handshake.suite);
  if (!suiteFits) Illegal(fmt::format("Unsupported cipher suite ({})", Hexadecimal(hello.suite)));
  if (hello.compression != 0) Illegal(fmt::format("Unsupported compression method ({})", hello.compression));
  // TLS 1.3 echoes the session id; in TLS 1.2 an echo would be a resumption of a session that never was.
  const bool echoed = std::ranges::equal(hello.sessionId, handshake.localSessionId);
  if (echoed != tls13 && !(hello.sessionId.empty() && !tls13)) Illegal("Invalid session id");
}

void ReadServerHelloExtensions(Context& context, const ServerHello& hello, bool retry) {
  Handshake& handshake = *context.handshake;
  const auto place = retry                                ? ExtensionPlace::kHelloRetryRequest
                     : handshake.version == kVersionTls13 ? ExtensionPlace::kServerHello13
                                                          : ExtensionPlace::kServerHello12;
  handshake.remoteExtensions.clear();
  for (const Extension& extension : hello.extensions) {
    RequireAllowed(handshake, extension, place);
    handshake.remoteExtensions.push_back(extension.type);
    switch (extension.type) {
      case extension::kKeyShare:
        ReadKeyShare(context, extension.data, retry);
        break;
      case extension::kCookie:
        ReadCookie(handshake, extension.data);
        break;
      case extension::kAlpn:
        ReadAlpn(context, extension.data);
        break;
      case extension::kRenegotiationInfo:
        ReadRenegotiationInfo(context, extension.data);
        break;
      case extension::kExtendedMasterSecret:
        if (!extension.data.empty()) InvalidSize(ExtensionName(extension.type));
        break;
      default:
        break;
    }
  }
}

void OnHelloRetryRequest(Context& context, const Message& message) {
  Handshake& handshake = *context.handshake;
  if (handshake.version != kVersionTls13) {
    throw ProtocolFailure{"Invalid protocol version", alert::kProtocolVersion};
  }
  // RFC 8446 §4.1.4: it must change something.
  if (handshake.requestedGroup == 0 && handshake.cookie.empty()) Illegal("HelloRetryRequest failed");
  handshake.helloRetryRequest = true;
  handshake.retrySuite = handshake.suite;
  handshake.transcript.SetDigest(handshake.suite->digest, false);
  handshake.transcript.ReplaceByMessageHash();
  handshake.transcript.Append(message.whole);
  SendClientHello(context);
}

void AcceptTls13(Context& context) {
  Handshake& handshake = *context.handshake;
  if (!handshake.PeerSent(extension::kKeyShare)) {
    throw ProtocolFailure{fmt::format("Missing extension ({})", ExtensionName(extension::kKeyShare)),
                          alert::kMissingExtension};
  }
  if (handshake.remotePublicKey.size() != handshake.group->publicKeySize) Illegal("Invalid remote key size");
  DeriveHandshakeSecrets(context);
}

void AcceptTls12(Context& context) {
  Handshake& handshake = *context.handshake;
  const bool secure = handshake.PeerSent(extension::kRenegotiationInfo);
  const bool extended = handshake.PeerSent(extension::kExtendedMasterSecret);
  // What protected the first handshake protects every later one (RFC 5746 §3.5, RFC 7627 §5.4).
  if (handshake.renegotiation && (!secure || extended != context.extendedMasterSecret)) {
    throw ProtocolFailure{"Renegotiation verification failed", alert::kHandshakeFailure};
  }
  context.secureRenegotiation = secure;
  context.extendedMasterSecret = extended;
}

}  // namespace

void OnServerHello(Context& context, const Message& message) {
  Handshake& handshake = *context.handshake;
  const ServerHello hello = Parse(message);
  const bool retry = IsHelloRetryRequest(hello.random);
  if (retry && handshake.helloRetryRequest) UnexpectedMessage(context.state, message.type);
  std::copy(hello.random.begin(), hello.random.end(), handshake.remoteRandom.begin());
  handshake.remoteSessionId.assign(hello.sessionId.begin(), hello.sessionId.end());
  handshake.suite = &pvTlsSetupCipherSuite(hello.suite);
  handshake.version = NegotiatedVersion(hello);
  ReadServerHelloExtensions(context, hello, retry);
  CheckVersion(handshake, hello, handshake.version);
  CheckFields(handshake, hello);
  if (retry) return OnHelloRetryRequest(context, message);

  const bool tls13 = handshake.version == kVersionTls13;
  handshake.transcript.SetDigest(handshake.suite->digest, !tls13);
  handshake.transcript.Append(message.whole);
  context.protocolVersion = handshake.version;
  context.cipherSuite = handshake.suite;
  context.remoteCertificates.clear();
  if (tls13) {
    AcceptTls13(context);
  } else {
    AcceptTls12(context);
  }
  context.state = State::kExpectExtensions;
}

void ReadEncryptedExtensions(Context& context, const Message& message) {
  ByteReader reader(message.body);
  const std::vector<Extension> extensions = ReadExtensions(reader);
  RequireDone(reader, MessageName(message.type));
  for (const Extension& extension : extensions) {
    RequireAllowed(*context.handshake, extension, ExtensionPlace::kEncryptedExtensions);
    context.handshake->remoteExtensions.push_back(extension.type);
    if (extension.type == extension::kAlpn) ReadAlpn(context, extension.data);
    if (extension.type == extension::kSupportedGroups) {
      ByteReader groups(extension.data);
      context.peerSupportedGroups = ReadU16List(groups, ExtensionName(extension.type));
      RequireDone(groups, ExtensionName(extension.type));
    }
  }
}

}  // namespace quenmark::tls
