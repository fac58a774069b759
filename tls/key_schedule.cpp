#include "tls/key_schedule.h"

#include "platform/byte_cursor.h"

#include <algorithm>
#include <array>

namespace quenmark::tls {

namespace {

BytesView AsBytes(std::string_view text) {
  // Characters may be looked at as bytes.
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

SecretBytes HkdfExtract(Digest digest, BytesView salt, BytesView input) {
  return pvTlsGetHmac(digest, salt, {input});
}

void HkdfExpand(Digest digest, BytesView secret, BytesView info, std::span<std::uint8_t> out) {
  const HmacKey key(digest, secret);
  SecretBytes block;
  for (std::uint8_t counter = 1; !out.empty(); ++counter) {
    block = key.Compute({block.View(), info, BytesView(&counter, 1)});
    const std::size_t count = std::min(out.size(), block.Size());
    std::copy_n(block.View().begin(), count, out.begin());
    out = out.subspan(count);
  }
}

SecretBytes HkdfExpandLabel(Digest digest, BytesView secret, std::string_view label, BytesView context,
                            std::size_t length) {
  constexpr std::string_view kPrefix = "tls13 ";
  Bytes info;
  info.reserve(2 + 1 + kPrefix.size() + label.size() + 1 + context.size());
  platform::ByteWriter writer(info);
  writer.U16(static_cast<std::uint16_t>(length));
  writer.Block(1, [&] {
    writer.Append(AsBytes(kPrefix));
    writer.Append(AsBytes(label));
  });
  writer.AppendBlock(1, context);
  SecretBytes out(length);
  HkdfExpand(digest, secret, info, out.Mutable());
  return out;
}

SecretBytes EarlySecret(Digest digest) {
  const SecretBytes zeros(DigestSize(digest));
  return HkdfExtract(digest, zeros.View(), zeros.View());
}

SecretBytes HandshakeSecret(Digest digest, BytesView sharedSecret) {
  const DigestValue empty = pvTlsGetHash(digest, {});
  const SecretBytes derived =
      HkdfExpandLabel(digest, EarlySecret(digest).View(), "derived", empty.View(), DigestSize(digest));
  return HkdfExtract(digest, derived.View(), sharedSecret);
}

SecretBytes MasterSecret(Digest digest, BytesView handshakeSecret) {
  const DigestValue empty = pvTlsGetHash(digest, {});
  const SecretBytes derived = HkdfExpandLabel(digest, handshakeSecret, "derived", empty.View(), DigestSize(digest));
  return HkdfExtract(digest, derived.View(), SecretBytes(DigestSize(digest)).View());
}

TrafficKeys DeriveTrafficKeys(const CipherSuite& suite, BytesView trafficSecret) {
  return {HkdfExpandLabel(suite.digest, trafficSecret, "key", {}, suite.keySize),
          HkdfExpandLabel(suite.digest, trafficSecret, "iv", {}, suite.ivSize)};
}

SecretBytes FinishedVerifyData(Digest digest, BytesView trafficSecret, BytesView transcriptDigest) {
  const SecretBytes key = HkdfExpandLabel(digest, trafficSecret, "finished", {}, DigestSize(digest));
  return pvTlsGetHmac(digest, key.View(), {transcriptDigest});
}

void Prf(Digest digest, BytesView secret, std::string_view label, std::initializer_list<BytesView> seed,
         std::span<std::uint8_t> out) {
  Bytes labelAndSeed(label.begin(), label.end());
  for (const BytesView part : seed) labelAndSeed.insert(labelAndSeed.end(), part.begin(), part.end());
  const HmacKey key(digest, secret);
  SecretBytes a = key.Compute({labelAndSeed});
  while (!out.empty()) {
    const SecretBytes block = key.Compute({a.View(), labelAndSeed});
    const std::size_t count = std::min(out.size(), block.Size());
    std::copy_n(block.View().begin(), count, out.begin());
    out = out.subspan(count);
    if (!out.empty()) a = key.Compute({a.View()});
  }
}

LegacyKeys DeriveLegacyKeys(const CipherSuite& suite, BytesView masterSecret, BytesView clientRandom,
                            BytesView serverRandom) {
  SecretBytes block(2 * (suite.macSize + suite.keySize + suite.FixedIvSize()));
  Prf(suite.digest, masterSecret, "key expansion", {serverRandom, clientRandom}, block.Mutable());
  platform::ByteReader reader(block.View());
  LegacyKeys keys;
  keys.client.macKey.Assign(reader.Take(suite.macSize));
  keys.server.macKey.Assign(reader.Take(suite.macSize));
  keys.client.key.Assign(reader.Take(suite.keySize));
  keys.server.key.Assign(reader.Take(suite.keySize));
  keys.client.fixedIv.Assign(reader.Take(suite.FixedIvSize()));
  keys.server.fixedIv.Assign(reader.Take(suite.FixedIvSize()));
  return keys;
}

}  // namespace quenmark::tls
