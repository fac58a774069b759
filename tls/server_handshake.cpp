#include "tls/server_handshake.h"

#include "tls/client_hello_parser.h"
#include "tls/hello_random.h"
#include "tls/key_schedule.h"
#include "tls/secrets.h"
#include "tls/signature_schemes.h"

#include <algorithm>
#include <optional>

namespace quenmark::tls {

namespace {

constexpr std::uint8_t kNamedCurve = 3;
constexpr std::uint16_t kRenegotiationScsv = 0x00FF;
// What RFC 5246 §7.4.1.4.1 takes for granted when the client does not say.
constexpr std::uint16_t kDefaultSchemes[] = {0x0201, 0x0203};

// What the server chose.
struct Choice {
  std::uint16_t version = 0;
  const CipherSuite* suite = nullptr;
  const Group* group = nullptr;  // null: RSA key transport, or a retry is needed
  std::uint16_t scheme = 0;      // 0 with RSA key transport
  BytesView clientKey;           // TLS 1.3
};

[[noreturn]] void Fail(std::string description, int alert) {
  throw ProtocolFailure{std::move(description), alert};
}

std::uint16_t ChooseVersion(const Context& context, const ClientHello& hello) {
  if (hello.legacyVersion < kVersionTls12) Fail("Invalid protocol version", alert::kProtocolVersion);
  const bool listed = hello.Has(extension::kSupportedVersions);
  const bool tls13 = listed && Contains(hello.versions, kVersionTls13);
  const bool tls12 = !listed || Contains(hello.versions, kVersionTls12);
  if (tls13 && (context.localFeatures & kFeatureTls13) != 0) return kVersionTls13;
  if (tls12 && (context.localFeatures & kFeatureTls12) != 0) return kVersionTls12;
  Fail("Invalid protocol version", alert::kProtocolVersion);
}

const Group* FirstCommonGroup(const ClientHello& hello) {
  for (const Group& group : kGroups) {
    if (Contains(hello.groups, group.code)) return &group;
  }
  return nullptr;
}

const SignatureScheme* ChooseScheme(const ClientHello& hello, const PrivateKey& key, bool tls13) {
  std::span<const std::uint16_t> schemes = hello.schemes;
  if (!tls13 && !hello.Has(extension::kSignatureAlgorithms)) schemes = kDefaultSchemes;
  return ChooseSignatureScheme(schemes, key, !tls13);
}

const CipherSuite& ChooseSuite(const Context& context, const ClientHello& hello, const PrivateKey& key, bool tls13,
                               bool haveGroup) {
  for (const std::uint16_t code : CipherSuiteOffer(context.localFeatures, true, key.Algorithm())) {
    const CipherSuite& suite = pvTlsSetupCipherSuite(code);
    if (suite.IsTls13() != tls13 || !Contains(hello.suites, code)) continue;
    if (!tls13 && !suite.UsesRsaTransport() && !haveGroup) continue;
    return suite;
  }
  Fail("Missing supported ciphersuite", alert::kHandshakeFailure);
}

// The client's key for the best group it sent one for, in the server's order.
void ChooseKeyShare(const ClientHello& hello, Choice& choice) {
  for (const Group& group : kGroups) {
    for (const KeyShare& share : hello.keyShares) {
      if (share.group != group.code || !Contains(hello.groups, group.code)) continue;
      if (share.key.size() != group.publicKeySize) Fail("Invalid remote key size", alert::kIllegalParameter);
      choice.group = &group;
      choice.clientKey = share.key;
      return;
    }
  }
}

void RequireExtension(const ClientHello& hello, std::uint16_t type) {
  if (hello.Has(type)) return;
  Fail(fmt::format("Missing extension ({})", ExtensionName(type)), alert::kMissingExtension);
}

Choice Choose(const Context& context, const ClientHello& hello) {
  const auto key = PrivateKey::Decode(context.localPrivateKey);
  if (!key) Fail("Unsupported certificate", alert::kHandshakeFailure);
  Choice choice;
  choice.version = ChooseVersion(context, hello);
  const bool tls13 = choice.version == kVersionTls13;
  if (tls13) {
    // RFC 8446 §9.2.
    RequireExtension(hello, extension::kSupportedGroups);
    RequireExtension(hello, extension::kSignatureAlgorithms);
    RequireExtension(hello, extension::kKeyShare);
    ChooseKeyShare(hello, choice);
  } else {
    choice.group = hello.Has(extension::kSupportedGroups) ? FirstCommonGroup(hello) : &kGroups[0];
  }
  const bool compressionFits = tls13 ? std::ranges::equal(hello.compressionMethods, std::array<std::uint8_t, 1>{0})
                                     : std::ranges::find(hello.compressionMethods, 0) != hello.compressionMethods.end();
  if (!compressionFits) Fail("Unsupported compression method", alert::kIllegalParameter);
  choice.suite = &ChooseSuite(context, hello, *key, tls13, choice.group != nullptr);
  if (choice.suite->UsesRsaTransport()) return choice;
  const SignatureScheme* scheme = ChooseScheme(hello, *key, tls13);
  if (scheme == nullptr) Fail("Negotiate signature type failed", alert::kHandshakeFailure);
  choice.scheme = scheme->code;
  return choice;
}

void ChooseAlpn(Context& context, const ClientHello& hello) {
  context.alpnNegotiated.clear();
  const auto own = SplitProtocols(context.alpnProtocols);
  if (own.empty() || hello.alpn.empty()) return;
  for (const std::string& name : own) {
    if (std::find(hello.alpn.begin(), hello.alpn.end(), name) == hello.alpn.end()) continue;
    context.alpnNegotiated = name;
    return;
  }
  // RFC 7301 §3.2.
  Fail("Negotiate application protocol failed", alert::kNoApplicationProtocol);
}

void WriteAlpn(const Context& context, ByteWriter& writer) {
  if (context.alpnNegotiated.empty()) return;
  WriteExtension(writer, extension::kAlpn,
                 [&] { writer.Block(2, [&] { writer.AppendBlock(1, AsBytes(context.alpnNegotiated)); }); });
}

template <typename Extensions>
Bytes MakeServerHello(const Handshake& handshake, BytesView random, Extensions extensions) {
  return MakeMessage(message::kServerHello, [&](ByteWriter& writer) {
    writer.U16(kVersionTls12);
    writer.Append(random);
    // TLS 1.3 echoes the client's id; TLS 1.2 gives none, as no session is kept.
    writer.AppendBlock(1, handshake.version == kVersionTls13 ? BytesView(handshake.remoteSessionId) : BytesView());
    writer.U16(handshake.suite->code);
    writer.U8(0);
    writer.Block(2, [&] { extensions(writer); });
  });
}

void WriteVersion13(ByteWriter& writer) {
  WriteExtension(writer, extension::kSupportedVersions, [&] { writer.U16(kVersionTls13); });
}

// RFC 8446 appendix D.4: wanted by clients that gave a session id.
void WriteCompatibilityCcs(Context& context) {
  if (!context.handshake->remoteSessionId.empty()) WriteChangeCipherSpec(context);
}

void SendHelloRetryRequest(Context& context, const ClientHello& hello, const Message& message) {
  Handshake& handshake = *context.handshake;
  const Group* group = FirstCommonGroup(hello);
  if (handshake.helloRetryRequest || group == nullptr) Fail("HelloRetryRequest failed", alert::kHandshakeFailure);
  handshake.helloRetryRequest = true;
  handshake.retrySuite = handshake.suite;
  handshake.requestedGroup = group->code;
  handshake.offeredExtensions = hello.extensions;
  handshake.transcript.Append(message.whole);
  handshake.transcript.SetDigest(handshake.suite->digest, false);
  handshake.transcript.ReplaceByMessageHash();
  SendHandshake(context, MakeServerHello(handshake, kHelloRetryRandom, [&](ByteWriter& writer) {
                  WriteExtension(writer, extension::kKeyShare, [&] { writer.U16(group->code); });
                  WriteVersion13(writer);
                }));
  WriteCompatibilityCcs(context);
}

void CheckSecondHello(const Handshake& handshake, const ClientHello& hello, const Choice& choice) {
  for (const std::uint16_t type : hello.extensions) {
    if (!Contains(handshake.offeredExtensions, type)) UnexpectedExtension(type);
  }
  if (choice.version != kVersionTls13 || choice.suite != handshake.retrySuite || choice.group == nullptr ||
      choice.group->code != handshake.requestedGroup) {
    Fail("HelloRetryRequest failed", alert::kHandshakeFailure);
  }
}

void SendFlight13(Context& context, const Choice& choice) {
  Handshake& handshake = *context.handshake;
  pvTlsSetupExchGroup(context, choice.group->code);
  SendHandshake(context, MakeServerHello(handshake, handshake.localRandom, [&](ByteWriter& writer) {
                  WriteExtension(writer, extension::kKeyShare, [&] {
                    writer.U16(choice.group->code);
                    writer.AppendBlock(2, handshake.keyPair.Public());
                  });
                  WriteVersion13(writer);
                }));
  WriteCompatibilityCcs(context);
  DeriveHandshakeSecrets(context);

  Bytes flight;
  const auto add = [&](const Bytes& message) {
    handshake.transcript.Append(message);
    flight.insert(flight.end(), message.begin(), message.end());
  };
  add(MakeMessage(message::kEncryptedExtensions,
                  [&](ByteWriter& writer) { writer.Block(2, [&] { WriteAlpn(context, writer); }); }));
  add(MakeCertificate(context, kVersionTls13, true));
  add(MakeCertificateVerify13(context, choice.scheme, handshake.transcript.Current().View()));
  const SecretBytes verifyData = FinishedVerifyData(handshake.suite->digest, context.local.trafficSecret.View(),
                                                    handshake.transcript.Current().View());
  add(MakeMessage(message::kFinished, [&](ByteWriter& writer) { writer.Append(verifyData.View()); }));
  WriteHandshake(context, flight);

  // Everything sent from here on, alerts too, is under the application keys; the client's Finished still comes under
  // its handshake keys.
  ApplicationSecrets secrets = DeriveApplicationSecrets(context, handshake.transcript.Current().View());
  context.local = std::move(secrets.local);
  handshake.pendingRemote = std::make_unique<Protection>(std::move(secrets.remote));
  context.state = State::kExpectClientFinished;
}

Bytes MakeServerKeyExchange(const Context& context, std::uint16_t scheme) {
  const Handshake& handshake = *context.handshake;
  Bytes parameters;
  ByteWriter writer(parameters);
  writer.U8(kNamedCurve);
  writer.U16(handshake.group->code);
  writer.AppendBlock(1, handshake.keyPair.Public());
  Bytes content(handshake.remoteRandom.begin(), handshake.remoteRandom.end());
  content.insert(content.end(), handshake.localRandom.begin(), handshake.localRandom.end());
  content.insert(content.end(), parameters.begin(), parameters.end());
  const Bytes signature = pvTlsSignatureSign(context.localPrivateKey, scheme, content);
  return MakeMessage(message::kServerKeyExchange, [&](ByteWriter& body) {
    body.Append(parameters);
    body.U16(scheme);
    body.AppendBlock(2, signature);
  });
}

void SendFlight12(Context& context, const ClientHello& hello, const Choice& choice) {
  Handshake& handshake = *context.handshake;
  if ((context.localFeatures & kFeatureTls13) != 0) {
    std::copy(kDowngradeMarker.begin(), kDowngradeMarker.end(),
              handshake.localRandom.end() - static_cast<std::ptrdiff_t>(kDowngradeMarker.size()));
  }
  context.secureRenegotiation = hello.Has(extension::kRenegotiationInfo) || Contains(hello.suites, kRenegotiationScsv);
  context.extendedMasterSecret = hello.Has(extension::kExtendedMasterSecret);
  const bool ecdhe = !handshake.suite->UsesRsaTransport();
  Bytes flight = MakeServerHello(handshake, handshake.localRandom, [&](ByteWriter& writer) {
    WriteAlpn(context, writer);
    if (ecdhe && hello.Has(extension::kEcPointFormats)) {
      WriteExtension(writer, extension::kEcPointFormats, [&] { writer.U16(0x0100); });  // one format, uncompressed
    }
    if (context.extendedMasterSecret) WriteExtension(writer, extension::kExtendedMasterSecret, [] {});
    if (context.secureRenegotiation) WriteExtension(writer, extension::kRenegotiationInfo, [&] { writer.U8(0); });
  });
  const auto add = [&](const Bytes& message) { flight.insert(flight.end(), message.begin(), message.end()); };
  add(MakeCertificate(context, kVersionTls12, true));
  if (ecdhe) {
    pvTlsSetupExchGroup(context, choice.group->code);
    add(MakeServerKeyExchange(context, choice.scheme));
  }
  add(MakeMessage(message::kServerHelloDone, [](ByteWriter&) {}));
  SendHandshake(context, flight);
  context.state = State::kExpectClientKeyExchange;
}

}  // namespace

void OnClientHello(Context& context, const Message& message) {
  Handshake& handshake = *context.handshake;
  const ClientHello hello = ParseClientHello(message);
  std::copy(hello.random.begin(), hello.random.end(), handshake.remoteRandom.begin());
  handshake.remoteSessionId.assign(hello.sessionId.begin(), hello.sessionId.end());
  handshake.remoteExtensions = hello.extensions;
  context.sniRequested = hello.serverName;
  context.peerSupportedGroups = hello.groups;
  // RFC 5746 §3.6: nothing can be renegotiated yet.
  if (!hello.renegotiationInfo.empty()) Fail("Renegotiation verification failed", alert::kHandshakeFailure);
  const Choice choice = Choose(context, hello);
  handshake.version = choice.version;
  handshake.suite = choice.suite;
  context.protocolVersion = choice.version;
  context.cipherSuite = choice.suite;
  ChooseAlpn(context, hello);
  const bool tls13 = choice.version == kVersionTls13;
  if (handshake.helloRetryRequest) CheckSecondHello(handshake, hello, choice);
  if (tls13 && choice.group == nullptr) return SendHelloRetryRequest(context, hello, message);

  handshake.transcript.Append(message.whole);
  handshake.transcript.SetDigest(handshake.suite->digest, false);
  if (tls13) {
    handshake.remotePublicKey.assign(choice.clientKey.begin(), choice.clientKey.end());
    SendFlight13(context, choice);
  } else {
    SendFlight12(context, hello, choice);
  }
}

void OnClientKeyExchange(Context& context, const Message& message) {
  Handshake& handshake = *context.handshake;
  ByteReader reader(message.body);
  const bool rsa = handshake.suite->UsesRsaTransport();
  const BytesView data = reader.TakeBlock(rsa ? 2 : 1);
  RequireDone(reader, MessageName(message.type));
  if (rsa) {
    pvTlsSetupExchRsaPreMasterSecret(context, data);
  } else if (data.size() != handshake.group->publicKeySize) {
    Fail("Invalid remote key size", alert::kIllegalParameter);
  } else {
    handshake.remotePublicKey.assign(data.begin(), data.end());
  }
  handshake.transcript.Append(message.whole);
  pvTlsDeriveLegacySecrets(context, handshake.transcript.Current().View());
  context.state = State::kExpectClientFinished;
}

void OnClientFinished(Context& context, const Message& message) {
  Handshake& handshake = *context.handshake;
  if (handshake.version == kVersionTls13) {
    const SecretBytes expected = FinishedVerifyData(handshake.suite->digest, context.remote.trafficSecret.View(),
                                                    handshake.transcript.Current().View());
    RequireVerifyData(context, message.body, expected.View());
    context.remote = std::move(*handshake.pendingRemote);
    return CompleteHandshake(context);
  }
  if (!handshake.remoteChangedCipher) UnexpectedMessage(context.state, message.type);
  const Bytes expected = LegacyVerifyData(handshake, true);
  RequireVerifyData(context, message.body, expected);
  handshake.transcript.Append(message.whole);
  context.remoteVerifyData = expected;
  WriteChangeCipherSpec(context);
  context.local = std::move(*handshake.pendingLocal);
  context.localVerifyData = LegacyVerifyData(handshake, false);
  SendHandshake(context,
                MakeMessage(message::kFinished, [&](ByteWriter& writer) { writer.Append(context.localVerifyData); }));
  CompleteHandshake(context);
}

}  // namespace quenmark::tls
