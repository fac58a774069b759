#include "tls/primitives.h"

#include "tls/primitives_detail.h"

#include <openssl/core_names.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <algorithm>
#include <string>

namespace quenmark::tls {

using detail::CallFailed;
using detail::DigestContext;

namespace {

using DigestPointer = std::unique_ptr<EVP_MD, detail::Free<EVP_MD_free>>;
using CipherPointer = std::unique_ptr<EVP_CIPHER, detail::Free<EVP_CIPHER_free>>;
using MacPointer = std::unique_ptr<EVP_MAC, detail::Free<EVP_MAC_free>>;
using MacContext = std::unique_ptr<EVP_MAC_CTX, detail::Free<EVP_MAC_CTX_free>>;

// Fetching an algorithm costs more than using it on a short record, so that it happens once.
struct Algorithms {
  DigestPointer sha1{EVP_MD_fetch(nullptr, "SHA1", nullptr)};
  DigestPointer sha224{EVP_MD_fetch(nullptr, "SHA224", nullptr)};
  DigestPointer sha256{EVP_MD_fetch(nullptr, "SHA256", nullptr)};
  DigestPointer sha384{EVP_MD_fetch(nullptr, "SHA384", nullptr)};
  DigestPointer sha512{EVP_MD_fetch(nullptr, "SHA512", nullptr)};
  CipherPointer chacha20Poly1305{EVP_CIPHER_fetch(nullptr, "ChaCha20-Poly1305", nullptr)};
  CipherPointer aes128Gcm{EVP_CIPHER_fetch(nullptr, "AES-128-GCM", nullptr)};
  CipherPointer aes256Gcm{EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr)};
  CipherPointer aes128Cbc{EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr)};
  CipherPointer aes256Cbc{EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr)};
  MacPointer hmac{EVP_MAC_fetch(nullptr, "HMAC", nullptr)};
};

const Algorithms& Fetched() {
  static const Algorithms algorithms;
  return algorithms;
}

std::string_view HashName(Digest digest) {
  switch (digest) {
    case Digest::kSha1:
      return "CryptoHashSha1";
    case Digest::kSha224:
      return "CryptoHashSha224";
    case Digest::kSha256:
      return "CryptoHashSha256";
    case Digest::kSha384:
      return "CryptoHashSha384";
    case Digest::kSha512:
      return "CryptoHashSha512";
    case Digest::kNone:
      break;
  }
  return "";
}

std::size_t BlockSize(Digest digest) {
  return digest == Digest::kSha384 || digest == Digest::kSha512 ? 128 : 64;
}

}  // namespace

namespace detail {

const EVP_MD* FetchedDigest(Digest digest) {
  switch (digest) {
    case Digest::kSha1:
      return Fetched().sha1.get();
    case Digest::kSha224:
      return Fetched().sha224.get();
    case Digest::kSha256:
      return Fetched().sha256.get();
    case Digest::kSha384:
      return Fetched().sha384.get();
    case Digest::kSha512:
      return Fetched().sha512.get();
    case Digest::kNone:
      break;
  }
  return nullptr;
}

const EVP_CIPHER* FetchedCipher(Bulk bulk) {
  switch (bulk) {
    case Bulk::kChaCha20Poly1305:
      return Fetched().chacha20Poly1305.get();
    case Bulk::kAes128Gcm:
      return Fetched().aes128Gcm.get();
    case Bulk::kAes256Gcm:
      return Fetched().aes256Gcm.get();
    case Bulk::kAes128Cbc:
      return Fetched().aes128Cbc.get();
    case Bulk::kAes256Cbc:
      return Fetched().aes256Cbc.get();
    case Bulk::kNone:
      break;
  }
  return nullptr;
}

}  // namespace detail

void CryptoInit() {
  const Algorithms& all = Fetched();
  const bool complete = all.sha1 && all.sha224 && all.sha256 && all.sha384 && all.sha512 && all.chacha20Poly1305 &&
                        all.aes128Gcm && all.aes256Gcm && all.aes128Cbc && all.aes256Cbc && all.hmac;
  if (!complete || RAND_status() != 1) CallFailed("CryptoInit", "CryptoInit");
}

void pvTlsGetRandom(std::span<std::uint8_t> out) {
  if (RAND_bytes(out.data(), static_cast<int>(out.size())) != 1) CallFailed("CryptGenRandom", "pvTlsGetRandom");
}

std::size_t DigestSize(Digest digest) {
  const EVP_MD* algorithm = detail::FetchedDigest(digest);
  return algorithm == nullptr ? 0 : static_cast<std::size_t>(EVP_MD_get_size(algorithm));
}

struct Hash::State {
  DigestContext context{EVP_MD_CTX_new()};
  Digest digest = Digest::kNone;
};

Hash::Hash() = default;
Hash::Hash(Hash&& other) noexcept = default;
Hash& Hash::operator=(Hash&& other) noexcept = default;
Hash::~Hash() = default;

Hash::Hash(Digest digest) : m_state(std::make_unique<State>()) {
  const EVP_MD* algorithm = detail::FetchedDigest(digest);
  if (algorithm == nullptr) {
    throw RaisedError{fmt::format("Unsupported hash type {}", static_cast<int>(digest)), "pvTlsGetHash"};
  }
  m_state->digest = digest;
  if (!m_state->context || EVP_DigestInit_ex2(m_state->context.get(), algorithm, nullptr) != 1) {
    CallFailed(HashName(digest), "pvTlsGetHash");
  }
}

Hash::Hash(const Hash& other) : m_state(other.m_state ? std::make_unique<State>() : nullptr) {
  if (!m_state) return;
  m_state->digest = other.m_state->digest;
  if (!m_state->context || EVP_MD_CTX_copy_ex(m_state->context.get(), other.m_state->context.get()) != 1) {
    CallFailed(HashName(m_state->digest), "pvTlsGetHash");
  }
}

Hash& Hash::operator=(const Hash& other) {
  if (this != &other) *this = Hash(other);
  return *this;
}

void Hash::Update(BytesView bytes) {
  if (EVP_DigestUpdate(m_state->context.get(), bytes.data(), bytes.size()) != 1) {
    CallFailed(HashName(m_state->digest), "pvTlsGetHash");
  }
}

DigestValue Hash::Current() const {
  return Hash(*this).Finish();
}

DigestValue Hash::Finish() {
  DigestValue value;
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(m_state->context.get(), value.bytes.data(), &size) != 1) {
    CallFailed(HashName(m_state->digest), "pvTlsGetHash");
  }
  value.size = size;
  return value;
}

DigestValue pvTlsGetHash(Digest digest, BytesView bytes) {
  Hash hash(digest);
  hash.Update(bytes);
  return hash.Finish();
}

HmacKey::HmacKey(Digest digest, BytesView key) {
  if (detail::FetchedDigest(digest) == nullptr) {
    throw RaisedError{fmt::format("Unsupported HMAC type {}", static_cast<int>(digest)), "pvTlsGetHmac"};
  }
  SecretBytes block(BlockSize(digest));
  if (key.size() > block.Size()) {
    const DigestValue hashed = pvTlsGetHash(digest, key);
    std::copy(hashed.View().begin(), hashed.View().end(), block.Mutable().begin());
  } else {
    std::copy(key.begin(), key.end(), block.Mutable().begin());
  }
  m_inner = Hash(digest);
  m_outer = Hash(digest);
  for (std::uint8_t& byte : block.Mutable()) byte ^= 0x36;
  m_inner.Update(block.View());
  for (std::uint8_t& byte : block.Mutable()) byte ^= 0x36 ^ 0x5C;
  m_outer.Update(block.View());
}

SecretBytes HmacKey::Compute(std::initializer_list<BytesView> parts) const {
  Hash hash = m_inner;
  for (const BytesView part : parts) hash.Update(part);
  const DigestValue inner = hash.Finish();
  hash = m_outer;
  hash.Update(inner.View());
  return SecretBytes(hash.Finish().View());
}

SecretBytes pvTlsGetHmac(Digest digest, BytesView key, std::initializer_list<BytesView> parts) {
  return HmacKey(digest, key).Compute(parts);
}

SecretBytes ConstantTimeRecordMac(Digest digest, BytesView key, BytesView header, BytesView data,
                                  std::size_t secretLength) {
  // The library's TLS mode of HMAC: the whole size is public, the length given to the update is not.
  std::size_t wholeSize = data.size();
  std::string name = EVP_MD_get0_name(detail::FetchedDigest(digest));
  const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, name.data(), 0),
                                   OSSL_PARAM_construct_size_t(OSSL_MAC_PARAM_TLS_DATA_SIZE, &wholeSize),
                                   OSSL_PARAM_construct_end()};
  const MacContext context(EVP_MAC_CTX_new(Fetched().hmac.get()));
  SecretBytes mac(DigestSize(digest));
  std::size_t size = 0;
  const bool done = context && EVP_MAC_init(context.get(), key.data(), key.size(), parameters) == 1 &&
                    EVP_MAC_update(context.get(), header.data(), header.size()) == 1 &&
                    EVP_MAC_update(context.get(), data.data(), secretLength) == 1 &&
                    EVP_MAC_final(context.get(), mac.Mutable().data(), &size, mac.Size()) == 1;
  if (!done || size != mac.Size()) CallFailed("CryptoHmacSha1", "pvTlsGetHmac");
  return mac;
}

}  // namespace quenmark::tls
