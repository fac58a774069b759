#include "tls/secrets.h"

#include "tls/key_schedule.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

namespace quenmark::tls {

namespace {

constexpr std::size_t kMasterSecretSize = 48;
constexpr std::size_t kVerifyDataSize = 12;
constexpr std::size_t kPreMasterSize = 48;

Protection FromTrafficSecret(Context& context, const CipherSuite& suite, const SecretBytes& secret, CipherUse use) {
  Protection protection;
  const TrafficKeys keys = DeriveTrafficKeys(suite, secret.View());
  protection.suite = &suite;
  protection.version = kVersionTls13;
  protection.trafficSecret = secret;
  std::copy(keys.iv.View().begin(), keys.iv.View().end(), protection.iv.begin());
  protection.cipher = context.services->MakeCipher(suite.bulk, keys.key.View(), use);
  return protection;
}

std::unique_ptr<Protection> FromLegacyKeys(Context& context, const CipherSuite& suite, const LegacyKeys::Side& side,
                                           CipherUse use) {
  auto protection = std::make_unique<Protection>();
  protection->suite = &suite;
  protection->version = kVersionTls12;
  protection->macKey = side.macKey;
  // The part of the IV that travels in the record starts at a random value.
  context.services->Random(std::span(protection->iv).first(suite.ivSize));
  std::copy(side.fixedIv.View().begin(), side.fixedIv.View().end(), protection->iv.begin());
  protection->cipher = context.services->MakeCipher(suite.bulk, side.key.View(), use);
  return protection;
}

void RequireTranscript(const Handshake& handshake, std::string_view source) {
  if (handshake.transcript.Empty()) throw RaisedError{"Missing handshake messages", std::string(source)};
}

struct TrafficSecrets {
  SecretBytes local;
  SecretBytes remote;
};

TrafficSecrets DeriveTrafficSecrets(const Context& context, Digest digest, BytesView base, std::string_view clientLabel,
                                    std::string_view serverLabel, BytesView transcriptDigest) {
  const std::size_t size = DigestSize(digest);
  SecretBytes client = HkdfExpandLabel(digest, base, clientLabel, transcriptDigest, size);
  SecretBytes server = HkdfExpandLabel(digest, base, serverLabel, transcriptDigest, size);
  return context.isServer ? TrafficSecrets{server, client} : TrafficSecrets{client, server};
}

}  // namespace

void pvTlsSetupExchGroup(Context& context, std::uint16_t group) {
  Handshake& handshake = *context.handshake;
  const Group& row = GroupOf(group);
  if (handshake.group == &row) return;
  handshake.group = &row;
  context.exchangeGroup = group;
  handshake.keyPair = context.services->MakeKeyPair(row);
}

void pvTlsSetupExchRsaCertificate(Context& context, BytesView certificate) {
  constexpr std::string_view kSource = "pvTlsSetupExchRsaCertificate";
  Handshake& handshake = *context.handshake;
  handshake.rsaPreMaster.Resize(kPreMasterSize);
  context.services->Random(handshake.rsaPreMaster.Mutable());
  handshake.rsaPreMaster.Mutable()[0] = 3;
  handshake.rsaPreMaster.Mutable()[1] = 3;
  const auto key = PublicKey::FromCertificate(certificate);
  if (!key || key->Algorithm() != oid::kRsa) throw RaisedError{"Unsupported certificate", std::string(kSource)};
  auto encrypted = key->EncryptPkcs1(handshake.rsaPreMaster.View());
  if (!encrypted) throw RaisedError{"Call failed (CryptoRsaModExp)", std::string(kSource)};
  handshake.encryptedRsaPreMaster = std::move(*encrypted);
}

void pvTlsSetupExchRsaPreMasterSecret(Context& context, BytesView encrypted) {
  const std::string source = "pvTlsSetupExchRsaPreMasterSecret";
  if (context.localPrivateKey.empty()) throw RaisedError{"Missing server private key", source};
  const auto key = PrivateKey::Decode(context.localPrivateKey);
  if (!key) throw RaisedError{"Unsupported private key", source};
  context.handshake->rsaPreMaster = key->DecryptPreMaster(encrypted);
}

SecretBytes pvTlsGetSharedSecret(Context& context, Exchange exchange) {
  Handshake& handshake = *context.handshake;
  switch (exchange) {
    case Exchange::kX25519:
    case Exchange::kSecp256r1:
    case Exchange::kSecp384r1: {
      const auto secret = handshake.keyPair.SharedSecret(handshake.remotePublicKey);
      if (!secret) throw ProtocolFailure{"Invalid remote key", alert::kIllegalParameter};
      return *secret;
    }
    case Exchange::kRsa:
      return handshake.rsaPreMaster;
    case Exchange::kNone:
      break;
  }
  throw RaisedError{fmt::format("Unsupported exchange {}", static_cast<int>(exchange)), "pvTlsGetSharedSecret"};
}

void DeriveHandshakeSecrets(Context& context) {
  Handshake& handshake = *context.handshake;
  RequireTranscript(handshake, "pvTlsDeriveHandshakeSecrets");
  const CipherSuite& suite = *handshake.suite;
  const SecretBytes shared = pvTlsGetSharedSecret(context, handshake.group->exchange);
  handshake.handshakeSecret = HandshakeSecret(suite.digest, shared.View());
  const DigestValue digest = handshake.transcript.Current();
  const TrafficSecrets secrets = DeriveTrafficSecrets(context, suite.digest, handshake.handshakeSecret.View(),
                                                      "c hs traffic", "s hs traffic", digest.View());
  context.remote = FromTrafficSecret(context, suite, secrets.remote, CipherUse::kDecrypt);
  context.local = FromTrafficSecret(context, suite, secrets.local, CipherUse::kEncrypt);
}

ApplicationSecrets DeriveApplicationSecrets(Context& context, BytesView transcriptDigest) {
  Handshake& handshake = *context.handshake;
  RequireTranscript(handshake, "pvTlsDeriveApplicationSecrets");
  const CipherSuite& suite = *handshake.suite;
  handshake.masterSecret = MasterSecret(suite.digest, handshake.handshakeSecret.View());
  const TrafficSecrets secrets = DeriveTrafficSecrets(context, suite.digest, handshake.masterSecret.View(),
                                                      "c ap traffic", "s ap traffic", transcriptDigest);
  return {FromTrafficSecret(context, suite, secrets.local, CipherUse::kEncrypt),
          FromTrafficSecret(context, suite, secrets.remote, CipherUse::kDecrypt)};
}

void pvTlsDeriveKeyUpdate(Context& context, bool updateRemote, bool updateLocal) {
  const auto update = [&](Protection& protection, CipherUse use, std::string_view name) {
    if (protection.trafficSecret.Empty()) {
      throw RaisedError{fmt::format("Missing previous {}", name), "pvTlsDeriveKeyUpdate"};
    }
    const CipherSuite& suite = *protection.suite;
    const SecretBytes next =
        HkdfExpandLabel(suite.digest, protection.trafficSecret.View(), "traffic upd", {}, DigestSize(suite.digest));
    protection = FromTrafficSecret(context, suite, next, use);
  };
  if (updateRemote) update(context.remote, CipherUse::kDecrypt, "RemoteTrafficSecret");
  if (updateLocal) update(context.local, CipherUse::kEncrypt, "LocalTrafficSecret");
}

void pvTlsDeriveLegacySecrets(Context& context, BytesView sessionDigest) {
  Handshake& handshake = *context.handshake;
  const bool randomMissing =
      std::all_of(handshake.remoteRandom.begin(), handshake.remoteRandom.end(), [](std::uint8_t b) { return b == 0; });
  if (randomMissing) throw RaisedError{"Missing remote random", "pvTlsDeriveLegacySecrets"};
  const CipherSuite& suite = *handshake.suite;
  const BytesView clientRandom = context.isServer ? handshake.remoteRandom : handshake.localRandom;
  const BytesView serverRandom = context.isServer ? handshake.localRandom : handshake.remoteRandom;
  const SecretBytes preMaster =
      pvTlsGetSharedSecret(context, suite.UsesRsaTransport() ? Exchange::kRsa : handshake.group->exchange);
  handshake.masterSecret.Resize(kMasterSecretSize);
  if (handshake.PeerSent(extension::kExtendedMasterSecret)) {
    Prf(suite.digest, preMaster.View(), "extended master secret", {sessionDigest}, handshake.masterSecret.Mutable());
  } else {
    Prf(suite.digest, preMaster.View(), "master secret", {clientRandom, serverRandom},
        handshake.masterSecret.Mutable());
  }
  const LegacyKeys keys = DeriveLegacyKeys(suite, handshake.masterSecret.View(), clientRandom, serverRandom);
  handshake.pendingLocal =
      FromLegacyKeys(context, suite, context.isServer ? keys.server : keys.client, CipherUse::kEncrypt);
  handshake.pendingRemote =
      FromLegacyKeys(context, suite, context.isServer ? keys.client : keys.server, CipherUse::kDecrypt);
}

Bytes LegacyVerifyData(const Handshake& handshake, bool fromClient) {
  Bytes data(kVerifyDataSize);
  const DigestValue digest = handshake.transcript.Current();
  Prf(handshake.suite->digest, handshake.masterSecret.View(), fromClient ? "client finished" : "server finished",
      {digest.View()}, data);
  return data;
}

}  // namespace quenmark::tls
