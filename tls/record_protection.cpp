// Protection of single records: TLS 1.3 (RFC 8446 section 5.2), TLS 1.2 AEAD (RFC 5246 section 6.2.3.3) and CBC
// (6.2.3.2).
#include "tls/records.h"

#include <algorithm>

namespace quenmark::tls {

namespace {

constexpr std::size_t kHeaderSize = 5;
constexpr std::size_t kLegacyHeaderSize = 13;  // 8 sequence + 1 type + 2 version + 2 length
constexpr std::size_t kBlockSize = 16;
constexpr std::size_t kMaxPadding = 256;  // the length byte included

void PutU16(std::uint8_t* at, std::size_t value) {
  at[0] = static_cast<std::uint8_t>(value >> 8);
  at[1] = static_cast<std::uint8_t>(value);
}

void PutHeader(std::uint8_t* at, std::uint8_t type, std::size_t length) {
  at[0] = type;
  PutU16(at + 1, kVersionTls12);
  PutU16(at + 3, length);
}

// The IV with the 32-bit sequence number XORed into its last bytes.
std::array<std::uint8_t, 16> RecordNonce(const Protection& protection) {
  std::array<std::uint8_t, 16> nonce = protection.iv;
  const std::size_t end = protection.suite->ivSize;
  for (std::size_t i = 0; i < 4; ++i) {
    nonce[end - 1 - i] = static_cast<std::uint8_t>(nonce[end - 1 - i] ^ (protection.sequence >> (8 * i)));
  }
  return nonce;
}

std::array<std::uint8_t, kLegacyHeaderSize> LegacyHeader(const Protection& protection, BytesView header,
                                                         std::size_t length) {
  std::array<std::uint8_t, kLegacyHeaderSize> data{};
  PutU16(data.data() + 4, static_cast<std::size_t>(protection.sequence >> 16));
  PutU16(data.data() + 6, static_cast<std::size_t>(protection.sequence & 0xFFFF));
  std::copy_n(header.begin(), 3, data.begin() + 8);
  PutU16(data.data() + 11, length);
  return data;
}

void NextSequence(Protection& protection) {
  ++protection.sequence;
}

void RequireSequence(const Protection& protection) {
  if (protection.sequence > kMaxSequence) throw RaisedError{"Record sequence number used up", "pvTlsRecordNonce"};
}

void RequireDone(bool done) {
  if (!done) throw RaisedError{"Encryption failed", "pvTlsBulkEncrypt"};
}

[[noreturn]] void DecryptionFailed() {
  throw ProtocolFailure{"Decryption failed", alert::kBadRecordMac};
}

void Seal13(Protection& protection, std::uint8_t type, BytesView payload, Bytes& out) {
  const std::size_t tagSize = protection.suite->tagSize;
  const std::size_t start = out.size();
  const std::size_t innerSize = payload.size() + 1;
  out.resize(start + kHeaderSize + innerSize + tagSize);
  std::uint8_t* record = out.data() + start;
  PutHeader(record, content_type::kApplicationData, innerSize + tagSize);
  std::uint8_t* content = record + kHeaderSize;
  std::copy(payload.begin(), payload.end(), content);
  content[payload.size()] = type;
  const auto nonce = RecordNonce(protection);
  RequireDone(protection.cipher->Encrypt(BytesView(nonce).first(protection.suite->ivSize),
                                         BytesView(record, kHeaderSize), BytesView(content, innerSize), content));
}

void SealAead(Protection& protection, std::uint8_t type, BytesView payload, Bytes& out) {
  const CipherSuite& suite = *protection.suite;
  const std::size_t start = out.size();
  out.resize(start + kHeaderSize + suite.explicitNonceSize + payload.size() + suite.tagSize);
  std::uint8_t* record = out.data() + start;
  PutHeader(record, type, suite.explicitNonceSize + payload.size() + suite.tagSize);
  const auto nonce = RecordNonce(protection);
  std::uint8_t* content = std::copy_n(nonce.begin() + (suite.ivSize - suite.explicitNonceSize), suite.explicitNonceSize,
                                      record + kHeaderSize);
  const auto additional = LegacyHeader(protection, BytesView(record, kHeaderSize), payload.size());
  RequireDone(protection.cipher->Encrypt(BytesView(nonce).first(suite.ivSize), additional, payload, content));
}

void SealCbc(Protection& protection, std::uint8_t type, BytesView payload, Bytes& out) {
  const CipherSuite& suite = *protection.suite;
  const std::size_t padding = kBlockSize - (payload.size() + suite.macSize) % kBlockSize;
  const std::size_t length = payload.size() + suite.macSize + padding;
  const std::size_t start = out.size();
  out.resize(start + kHeaderSize + kBlockSize + length);
  std::uint8_t* record = out.data() + start;
  PutHeader(record, type, kBlockSize + length);
  const auto header = LegacyHeader(protection, BytesView(record, kHeaderSize), payload.size());
  const SecretBytes mac = pvTlsGetHmac(suite.mac, protection.macKey.View(), {header, payload});
  const auto iv = RecordNonce(protection);
  std::uint8_t* content = std::copy(iv.begin(), iv.end(), record + kHeaderSize);
  std::uint8_t* end = std::copy(payload.begin(), payload.end(), content);
  end = std::copy(mac.View().begin(), mac.View().end(), end);
  std::fill_n(end, padding, static_cast<std::uint8_t>(padding - 1));
  RequireDone(protection.cipher->Encrypt(iv, {}, BytesView(content, length), content));
}

Opened Open13(Protection& protection, BytesView record, Bytes& out) {
  const std::size_t tagSize = protection.suite->tagSize;
  const BytesView fragment = record.subspan(kHeaderSize);
  if (fragment.size() <= tagSize) DecryptionFailed();
  const std::size_t start = out.size();
  std::size_t size = fragment.size() - tagSize;
  out.resize(start + size);
  std::uint8_t* content = out.data() + start;
  const auto nonce = RecordNonce(protection);
  if (!protection.cipher->Decrypt(BytesView(nonce).first(protection.suite->ivSize), record.first(kHeaderSize), fragment,
                                  content)) {
    DecryptionFailed();
  }
  NextSequence(protection);
  // Zero padding, then the real type (RFC 8446 §5.4).
  if (size > kMaxPlaintext + 1) throw ProtocolFailure{"Record size too big", alert::kRecordOverflow};
  while (size > 0 && content[size - 1] == 0) --size;
  if (size == 0) throw ProtocolFailure{"Unexpected record type (0)", alert::kUnexpectedMessage};
  const std::uint8_t type = content[size - 1];
  out.resize(start + size - 1);
  return {type, size - 1};
}

Opened OpenAead(Protection& protection, BytesView record, Bytes& out) {
  const CipherSuite& suite = *protection.suite;
  const BytesView fragment = record.subspan(kHeaderSize);
  const std::size_t overhead = static_cast<std::size_t>(suite.explicitNonceSize) + suite.tagSize;
  if (fragment.size() < overhead) DecryptionFailed();
  const std::size_t size = fragment.size() - overhead;
  auto nonce = RecordNonce(protection);
  std::copy_n(fragment.begin(), suite.explicitNonceSize, nonce.begin() + (suite.ivSize - suite.explicitNonceSize));
  const auto additional = LegacyHeader(protection, record.first(kHeaderSize), size);
  const std::size_t start = out.size();
  out.resize(start + size);
  if (!protection.cipher->Decrypt(BytesView(nonce).first(suite.ivSize), additional,
                                  fragment.subspan(suite.explicitNonceSize), out.data() + start)) {
    DecryptionFailed();
  }
  NextSequence(protection);
  return {record[0], size};
}

// 0xFF when left < right, else 0; no branch on the values.
std::uint8_t MaskLess(std::size_t left, std::size_t right) {
  return static_cast<std::uint8_t>(0 - ((left - right) >> (8 * sizeof(std::size_t) - 1)));
}
std::uint8_t MaskEqual(std::size_t left, std::size_t right) {
  return static_cast<std::uint8_t>(~(MaskLess(left, right) | MaskLess(right, left)));
}

struct CbcContent {
  std::size_t size = 0;   // secret until `good` is used
  std::uint8_t good = 0;  // 0xFF when the padding is right
};

// Looks at the padding in time that depends on the record's size only. Wrong padding counts as none, so that the MAC is
// computed over as many bytes as in a good record.
CbcContent RemovePadding(BytesView plain, std::size_t macSize) {
  const std::size_t padding = plain.back() + std::size_t{1};
  const std::size_t room = plain.size() - macSize;
  std::uint8_t good = static_cast<std::uint8_t>(~MaskLess(room, padding));
  const std::size_t looked = std::min(kMaxPadding, plain.size());
  std::uint8_t difference = 0;
  for (std::size_t i = 0; i < looked; ++i) {
    const auto inPadding = MaskLess(i, padding);
    difference = static_cast<std::uint8_t>(difference | (inPadding & (plain[plain.size() - 1 - i] ^ plain.back())));
  }
  good = static_cast<std::uint8_t>(good & MaskEqual(difference, 0));
  const std::size_t wide = 0 - static_cast<std::size_t>(good & 1);
  return {room - (padding & wide), good};
}

// The MAC that stands at a secret offset, copied in time that does not depend on it.
SecretBytes MacAt(BytesView plain, std::size_t offset, std::size_t macSize) {
  SecretBytes mac(macSize);
  const std::size_t farthest = macSize + kMaxPadding;
  const std::size_t first = plain.size() > farthest ? plain.size() - farthest : 0;
  const std::span<std::uint8_t> out = mac.Mutable();
  for (std::size_t at = first; at + macSize <= plain.size(); ++at) {
    const std::uint8_t here = MaskEqual(at, offset);
    for (std::size_t i = 0; i < macSize; ++i) out[i] = static_cast<std::uint8_t>(out[i] | (plain[at + i] & here));
  }
  return mac;
}

Opened OpenCbc(Protection& protection, CryptoServices& services, BytesView record, Bytes& out) {
  const CipherSuite& suite = *protection.suite;
  const BytesView fragment = record.subspan(kHeaderSize);
  // The size is public: an IV and whole blocks that hold at least the MAC and one byte of padding.
  if (fragment.size() < kBlockSize + suite.macSize + 1 || fragment.size() % kBlockSize != 0) DecryptionFailed();
  const std::size_t start = out.size();
  const BytesView blocks = fragment.subspan(kBlockSize);
  out.resize(start + blocks.size());
  if (!protection.cipher->Decrypt(fragment.first(kBlockSize), {}, blocks, out.data() + start)) DecryptionFailed();
  const BytesView plain(out.data() + start, blocks.size());
  const CbcContent content = RemovePadding(plain, suite.macSize);
  const auto header = LegacyHeader(protection, record.first(kHeaderSize), content.size);
  const SecretBytes expected = ConstantTimeRecordMac(suite.mac, protection.macKey.View(), header, plain, content.size);
  const SecretBytes received = MacAt(plain, content.size, suite.macSize);
  const bool macGood = services.SecretsEqual(received.View(), expected.View());
  NextSequence(protection);
  if ((static_cast<unsigned>(macGood) & content.good & 1U) == 0) {
    throw ProtocolFailure{"MAC verification failed", alert::kBadRecordMac};
  }
  out.resize(start + content.size);
  return {record[0], content.size};
}

}  // namespace

void Seal(Protection& protection, std::uint8_t type, BytesView payload, Bytes& out) {
  RequireSequence(protection);
  if (protection.version == kVersionTls13) {
    Seal13(protection, type, payload, out);
  } else if (protection.suite->IsCbc()) {
    SealCbc(protection, type, payload, out);
  } else {
    SealAead(protection, type, payload, out);
  }
  NextSequence(protection);
}

Opened Open(Protection& protection, CryptoServices& services, BytesView record, Bytes& out) {
  RequireSequence(protection);
  if (protection.version == kVersionTls13) return Open13(protection, record, out);
  const Opened opened =
      protection.suite->IsCbc() ? OpenCbc(protection, services, record, out) : OpenAead(protection, record, out);
  if (opened.size > kMaxPlaintext) throw ProtocolFailure{"Record size too big", alert::kRecordOverflow};
  return opened;
}

}  // namespace quenmark::tls
