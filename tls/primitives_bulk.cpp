#include "tls/primitives_detail.h"

#include <openssl/core_names.h>
#include <openssl/params.h>

namespace quenmark::tls {

namespace {

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, detail::Free<EVP_CIPHER_CTX_free>>;

constexpr std::size_t kTagSize = 16;

// A context keyed once; a record sets nothing but its nonce.
CipherContext Keyed(Bulk bulk, BytesView key, CipherUse use) {
  const EVP_CIPHER* cipher = detail::FetchedCipher(bulk);
  if (cipher == nullptr) {
    throw RaisedError{fmt::format("Unsupported bulk type {}", static_cast<int>(bulk)),
                      use == CipherUse::kEncrypt ? "pvTlsBulkEncrypt" : "pvTlsBulkDecrypt"};
  }
  CipherContext context(EVP_CIPHER_CTX_new());
  const bool keySizeFits = key.size() == static_cast<std::size_t>(EVP_CIPHER_get_key_length(cipher));
  if (!context || !keySizeFits ||
      EVP_CipherInit_ex2(context.get(), cipher, key.data(), nullptr, use == CipherUse::kEncrypt ? 1 : 0, nullptr) !=
          1 ||
      EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1) {
    throw RaisedError{"Encryption failed", "pvTlsBulkEncrypt"};
  }
  return context;
}

OSSL_PARAM Octets(const char* name, void* data, std::size_t size) {
  return OSSL_PARAM{name, OSSL_PARAM_OCTET_STRING, data, size, 0};
}

// AES-GCM. The nonce goes in by way of the cipher's parameters for TLS, and with it the tag to expect: initialising the
// context again for every record takes a third longer on short ones.
class GcmCipher final : public BulkCipher {
 public:
  explicit GcmCipher(CipherContext context) : m_context(std::move(context)) {
    std::array<std::uint8_t, kNonceSize> zeros{};
    if (!SetWholeNonce(zeros)) throw RaisedError{"Encryption failed", "pvTlsBulkEncrypt"};
  }

  bool Encrypt(BytesView nonce, BytesView additionalData, BytesView in, std::uint8_t* out) override {
    EVP_CIPHER_CTX* context = m_context.get();
    std::array<std::uint8_t, kNonceSize> whole;
    std::copy_n(nonce.begin(), kNonceSize, whole.begin());
    OSSL_PARAM tag[] = {Octets(OSSL_CIPHER_PARAM_AEAD_TAG, out + in.size(), kTagSize), OSSL_PARAM_END};
    int written = 0;
    return SetWholeNonce(whole) &&
           EVP_EncryptUpdate(context, nullptr, &written, additionalData.data(),
                             static_cast<int>(additionalData.size())) == 1 &&
           EVP_EncryptUpdate(context, out, &written, in.data(), static_cast<int>(in.size())) == 1 &&
           EVP_EncryptFinal_ex(context, out + written, &written) == 1 && EVP_CIPHER_CTX_get_params(context, tag) == 1;
  }

  bool Decrypt(BytesView nonce, BytesView additionalData, BytesView in, std::uint8_t* out) override {
    if (in.size() < kTagSize) return false;
    EVP_CIPHER_CTX* context = m_context.get();
    const BytesView content = in.first(in.size() - kTagSize);
    // The library takes both as mutable buffers and only reads them.
    std::array<std::uint8_t, kTagSize> tag;
    std::copy_n(content.end(), kTagSize, tag.begin());
    std::array<std::uint8_t, kNonceSize> whole;
    std::copy_n(nonce.begin(), kNonceSize, whole.begin());
    const OSSL_PARAM parameters[] = {Octets(OSSL_CIPHER_PARAM_AEAD_TAG, tag.data(), tag.size()),
                                     Octets(OSSL_CIPHER_PARAM_AEAD_TLS1_SET_IV_INV, whole.data(), whole.size()),
                                     OSSL_PARAM_END};
    int written = 0;
    return EVP_CIPHER_CTX_set_params(context, parameters) == 1 &&
           EVP_DecryptUpdate(context, nullptr, &written, additionalData.data(),
                             static_cast<int>(additionalData.size())) == 1 &&
           EVP_DecryptUpdate(context, out, &written, content.data(), static_cast<int>(content.size())) == 1 &&
           EVP_DecryptFinal_ex(context, out + written, &written) == 1;
  }

 private:
  static constexpr std::size_t kNonceSize = 12;

  // The size -1 means the nonce as a whole.
  bool SetWholeNonce(std::array<std::uint8_t, kNonceSize>& nonce) {
    const OSSL_PARAM parameters[] = {
        Octets(OSSL_CIPHER_PARAM_AEAD_TLS1_IV_FIXED, nonce.data(), static_cast<std::size_t>(-1)), OSSL_PARAM_END};
    return EVP_CIPHER_CTX_set_params(m_context.get(), parameters) == 1;
  }

  CipherContext m_context;
};

// ChaCha20-Poly1305.
class AeadCipher final : public BulkCipher {
 public:
  explicit AeadCipher(CipherContext context) : m_context(std::move(context)) {}

  bool Encrypt(BytesView nonce, BytesView additionalData, BytesView in, std::uint8_t* out) override {
    EVP_CIPHER_CTX* context = m_context.get();
    OSSL_PARAM tag[] = {OSSL_PARAM_construct_octet_string(OSSL_CIPHER_PARAM_AEAD_TAG, out + in.size(), kTagSize),
                        OSSL_PARAM_construct_end()};
    int written = 0;
    return EVP_EncryptInit_ex2(context, nullptr, nullptr, nonce.data(), nullptr) == 1 &&
           EVP_EncryptUpdate(context, nullptr, &written, additionalData.data(),
                             static_cast<int>(additionalData.size())) == 1 &&
           EVP_EncryptUpdate(context, out, &written, in.data(), static_cast<int>(in.size())) == 1 &&
           EVP_EncryptFinal_ex(context, out + written, &written) == 1 && EVP_CIPHER_CTX_get_params(context, tag) == 1;
  }

  bool Decrypt(BytesView nonce, BytesView additionalData, BytesView in, std::uint8_t* out) override {
    if (in.size() < kTagSize) return false;
    const BytesView content = in.first(in.size() - kTagSize);
    // The library takes the tag as a mutable buffer and only reads it.
    std::array<std::uint8_t, kTagSize> expected;
    std::copy(in.end() - kTagSize, in.end(), expected.begin());
    const OSSL_PARAM tag[] = {OSSL_PARAM_construct_octet_string(OSSL_CIPHER_PARAM_AEAD_TAG, expected.data(), kTagSize),
                              OSSL_PARAM_construct_end()};
    EVP_CIPHER_CTX* context = m_context.get();
    int written = 0;
    return EVP_DecryptInit_ex2(context, nullptr, nullptr, nonce.data(), tag) == 1 &&
           EVP_DecryptUpdate(context, nullptr, &written, additionalData.data(),
                             static_cast<int>(additionalData.size())) == 1 &&
           EVP_DecryptUpdate(context, out, &written, content.data(), static_cast<int>(content.size())) == 1 &&
           EVP_DecryptFinal_ex(context, out + written, &written) == 1;
  }

 private:
  CipherContext m_context;
};

class CbcCipher final : public BulkCipher {
 public:
  explicit CbcCipher(CipherContext context) : m_context(std::move(context)) {}

  bool Encrypt(BytesView nonce, BytesView, BytesView in, std::uint8_t* out) override { return Run(nonce, in, out); }
  bool Decrypt(BytesView nonce, BytesView, BytesView in, std::uint8_t* out) override { return Run(nonce, in, out); }

 private:
  bool Run(BytesView iv, BytesView in, std::uint8_t* out) {
    int written = 0;
    return EVP_CipherInit_ex2(m_context.get(), nullptr, nullptr, iv.data(), -1, nullptr) == 1 &&
           EVP_CipherUpdate(m_context.get(), out, &written, in.data(), static_cast<int>(in.size())) == 1 &&
           static_cast<std::size_t>(written) == in.size();
  }

  CipherContext m_context;
};

}  // namespace

std::unique_ptr<BulkCipher> MakeBulkCipher(Bulk bulk, BytesView key, CipherUse use) {
  CipherContext context = Keyed(bulk, key, use);
  switch (bulk) {
    case Bulk::kAes128Cbc:
    case Bulk::kAes256Cbc:
      return std::make_unique<CbcCipher>(std::move(context));
    case Bulk::kAes128Gcm:
    case Bulk::kAes256Gcm:
      return std::make_unique<GcmCipher>(std::move(context));
    default:
      return std::make_unique<AeadCipher>(std::move(context));
  }
}

}  // namespace quenmark::tls
