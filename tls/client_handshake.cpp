#include "tls/client_handshake.h"

#include "tls/key_schedule.h"
#include "tls/secrets.h"
#include "tls/signature_schemes.h"

namespace quenmark::tls {

namespace {

constexpr std::uint8_t kNamedCurve = 3;

// The order of the server's messages in state 4, as a table: which message may follow which. Rows of the three kinds of
// handshake; what has no row is unexpected.
enum class Kind : std::uint8_t { kTls13, kEcdhe, kRsaTransport };
struct OrderRow {
  Kind kind;
  std::uint8_t after;  // the message before; kServerHello begins
  std::uint8_t type;
};
using namespace message;
// clang-format off
constexpr OrderRow kOrder[] = {
    // RFC 8446 §2
    {Kind::kTls13,        kServerHello,         kEncryptedExtensions},
    {Kind::kTls13,        kEncryptedExtensions, kCertificateRequest},
    {Kind::kTls13,        kEncryptedExtensions, kCertificate},
    {Kind::kTls13,        kCertificateRequest,  kCertificate},
    {Kind::kTls13,        kCertificate,         kCertificateVerify},
    {Kind::kTls13,        kCertificateVerify,   kFinished},
    // RFC 5246 §7.3
    {Kind::kEcdhe,        kServerHello,         kCertificate},
    {Kind::kEcdhe,        kCertificate,         kServerKeyExchange},
    {Kind::kEcdhe,        kServerKeyExchange,   kCertificateRequest},
    {Kind::kEcdhe,        kServerKeyExchange,   kServerHelloDone},
    {Kind::kEcdhe,        kCertificateRequest,  kServerHelloDone},
    {Kind::kRsaTransport, kServerHello,         kCertificate},
    {Kind::kRsaTransport, kCertificate,         kCertificateRequest},
    {Kind::kRsaTransport, kCertificate,         kServerHelloDone},
    {Kind::kRsaTransport, kCertificateRequest,  kServerHelloDone},
};
// clang-format on

void RequireOrder(const Context& context, std::uint8_t type) {
  Handshake& handshake = *context.handshake;
  const Kind kind = handshake.version == kVersionTls13    ? Kind::kTls13
                    : handshake.suite->UsesRsaTransport() ? Kind::kRsaTransport
                                                          : Kind::kEcdhe;
  const std::uint8_t before = handshake.lastMessage == 0 ? kServerHello : handshake.lastMessage;
  for (const OrderRow& row : kOrder) {
    if (row.kind != kind || row.after != before || row.type != type) continue;
    handshake.lastMessage = type;
    return;
  }
  UnexpectedMessage(context.state, type);
}

void OnCertificate(Context& context, const Message& message) {
  const bool tls13 = context.handshake->version == kVersionTls13;
  const std::string name = MessageName(message.type);
  std::vector<Bytes> certificates;
  ByteReader reader(message.body);
  if (tls13) reader.TakeBlock(1);  // request context
  reader.Block(3, [&] {
    while (reader.Remaining() > 0) {
      const BytesView certificate = reader.TakeBlock(3);
      if (tls13) reader.TakeBlock(2);  // the entry's extensions
      if (certificate.empty() || certificates.size() == kMaxCertificates) return reader.Fail();
      certificates.emplace_back(certificate.begin(), certificate.end());
    }
  });
  RequireDone(reader, name);
  context.remoteCertificates = std::move(certificates);
}

const Bytes& LeafCertificate(const Context& context) {
  if (context.remoteCertificates.empty()) {
    throw ProtocolFailure{"Missing server certificate", alert::kCertificateUnknown};
  }
  return context.remoteCertificates.front();
}

void OnCertificateVerify(Context& context, const Message& message) {
  ByteReader reader(message.body);
  const std::uint16_t scheme = reader.U16();
  context.peerScheme = scheme;
  const BytesView signature = reader.TakeBlock(2);
  RequireDone(reader, MessageName(message.type));
  const Bytes& leaf = LeafCertificate(context);
  const DigestValue digest = context.handshake->transcript.Current();
  const auto failure = pvTlsSignatureVerify(*context.services, leaf, scheme, {.tls13 = true},
                                            SignedContent13(true, digest.View()), signature);
  if (failure) throw *failure;
}

void OnServerKeyExchange(Context& context, const Message& message) {
  Handshake& handshake = *context.handshake;
  ByteReader reader(message.body);
  const std::uint8_t curveType = reader.U8();
  if (reader.Ok() && curveType != kNamedCurve) {
    throw ProtocolFailure{fmt::format("Unsupported curve type ({})", curveType), alert::kHandshakeFailure};
  }
  const std::uint16_t group = reader.U16();
  const BytesView key = reader.TakeBlock(1);
  const BytesView parameters = message.body.first(reader.Position());
  const std::uint16_t scheme = reader.U16();
  context.peerScheme = scheme;
  const BytesView signature = reader.TakeBlock(2);
  RequireDone(reader, MessageName(message.type));
  pvTlsSetupExchGroup(context, group);
  if (key.size() != handshake.group->publicKeySize) {
    throw ProtocolFailure{"Invalid remote key size", alert::kIllegalParameter};
  }
  handshake.remotePublicKey.assign(key.begin(), key.end());
  Bytes content(handshake.localRandom.begin(), handshake.localRandom.end());
  content.insert(content.end(), handshake.remoteRandom.begin(), handshake.remoteRandom.end());
  content.insert(content.end(), parameters.begin(), parameters.end());
  const auto failure =
      pvTlsSignatureVerify(*context.services, LeafCertificate(context), scheme,
                           {.tls13 = false, .authentication = handshake.suite->authentication}, content, signature);
  if (failure) throw *failure;
}

Bytes MakeClientKeyExchange(const Handshake& handshake) {
  return MakeMessage(kClientKeyExchange, [&](ByteWriter& writer) {
    if (handshake.suite->UsesRsaTransport()) {
      writer.AppendBlock(2, handshake.encryptedRsaPreMaster);
    } else {
      writer.AppendBlock(1, handshake.keyPair.Public());
    }
  });
}

Bytes MakeLegacyCertificateVerify(const Context& context) {
  const Bytes signature =
      pvTlsSignatureSign(context.localPrivateKey, context.clientAuthScheme, context.handshake->transcript.Messages());
  return MakeMessage(kCertificateVerify, [&](ByteWriter& writer) {
    writer.U16(context.clientAuthScheme);
    writer.AppendBlock(2, signature);
  });
}

void SendLegacyFlight(Context& context) {
  Handshake& handshake = *context.handshake;
  const bool authenticate = handshake.certificateRequested && context.clientAuthScheme != 0;
  Bytes flight;
  const auto add = [&](const Bytes& message) {
    handshake.transcript.Append(message);
    flight.insert(flight.end(), message.begin(), message.end());
  };
  if (handshake.certificateRequested) add(MakeCertificate(context, kVersionTls12, authenticate));
  add(MakeClientKeyExchange(handshake));
  // The extended master secret covers the messages through ClientKeyExchange (RFC 7627 §3).
  const DigestValue session = handshake.transcript.Current();
  if (authenticate) add(MakeLegacyCertificateVerify(context));
  WriteHandshake(context, flight);

  WriteChangeCipherSpec(context);
  pvTlsDeriveLegacySecrets(context, session.View());
  context.local = std::move(*handshake.pendingLocal);
  handshake.pendingLocal.reset();

  context.localVerifyData = LegacyVerifyData(handshake, true);
  SendHandshake(context, MakeMessage(kFinished, [&](ByteWriter& writer) { writer.Append(context.localVerifyData); }));
}

void OnServerHelloDone(Context& context, const Message& message) {
  if (!message.body.empty()) InvalidSize(MessageName(message.type));
  context.state = State::kExpectServerFinished;
  if (context.handshake->suite->UsesRsaTransport()) pvTlsSetupExchRsaCertificate(context, LeafCertificate(context));
  SendLegacyFlight(context);
}

// After the server's Finished: the client's authentication, ChangeCipherSpec and Finished under the handshake keys,
// then the application keys, whose digest ends with the server's Finished.
void SendFlight13(Context& context) {
  Handshake& handshake = *context.handshake;
  const DigestValue serverFinished = handshake.transcript.Current();
  Hash running = handshake.transcript.Running();
  if (handshake.certificateRequested) WriteHandshake(context, MakeClientAuthentication13(context, running));
  WriteChangeCipherSpec(context);
  const SecretBytes verifyData =
      FinishedVerifyData(handshake.suite->digest, context.local.trafficSecret.View(), running.Current().View());
  const Bytes finished = MakeMessage(kFinished, [&](ByteWriter& writer) { writer.Append(verifyData.View()); });
  WriteHandshake(context, finished);
  running.Update(finished);
  ApplicationSecrets secrets = DeriveApplicationSecrets(context, serverFinished.View());
  context.local = std::move(secrets.local);
  context.remote = std::move(secrets.remote);
  context.postHandshakeDigest = std::move(running);
}

void OnFinished13(Context& context, const Message& message) {
  Handshake& handshake = *context.handshake;
  const DigestValue digest = handshake.transcript.Current();
  const SecretBytes expected =
      FinishedVerifyData(handshake.suite->digest, context.remote.trafficSecret.View(), digest.View());
  RequireVerifyData(context, message.body, expected.View());
  handshake.transcript.Append(message.whole);
  CompleteHandshake(context);
  SendFlight13(context);
}

}  // namespace

void OnServerMessage(Context& context, const Message& message) {
  RequireOrder(context, message.type);
  switch (message.type) {
    case kEncryptedExtensions:
      ReadEncryptedExtensions(context, message);
      break;
    case kCertificate:
      OnCertificate(context, message);
      break;
    case kCertificateRequest:
      PrepareClientAuthentication(context, context.handshake->version, message);
      context.handshake->certificateRequested = true;
      break;
    case kCertificateVerify:
      OnCertificateVerify(context, message);
      break;
    case kServerKeyExchange:
      OnServerKeyExchange(context, message);
      break;
    case kFinished:
      return OnFinished13(context, message);
    case kServerHelloDone:
      context.handshake->transcript.Append(message.whole);
      return OnServerHelloDone(context, message);
    default:
      UnexpectedMessage(context.state, message.type);
  }
  context.handshake->transcript.Append(message.whole);
}

void SkipMessage(Context& context, const Message& message) {
  // RFC 5246 §7.4.1.1: a hello_request is in no digest, and ignored during a handshake.
  if (message.type == kHelloRequest) return CountIdle(context, content_type::kHandshake);
  context.handshake->transcript.Append(message.whole);
}

void OnLegacyServerFinished(Context& context, const Message& message) {
  Handshake& handshake = *context.handshake;
  if (!handshake.remoteChangedCipher) UnexpectedMessage(context.state, message.type);
  const Bytes expected = LegacyVerifyData(handshake, false);
  RequireVerifyData(context, message.body, expected);
  context.remoteVerifyData = expected;
  CompleteHandshake(context);
}

}  // namespace quenmark::tls
