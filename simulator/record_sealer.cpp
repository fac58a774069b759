#include "simulator/record_sealer.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/objects.h>
#include <openssl/params.h>

#include <array>
#include <utility>
#include <vector>

namespace quenmark::simulator {
namespace {

constexpr std::size_t kNonceSize = 12;
constexpr std::size_t kTagSize = 16;
constexpr std::size_t kHeaderSize = 5;

// What is known of a connection's writing side.
struct WriteSide {
  std::vector<unsigned char> secret;  // of application data
  std::uint64_t records = 0;          // written under it
};

int WriteSideIndex() {
  static const int index =
      SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, [](void*, void* data, CRYPTO_EX_DATA*, int, long, void*) {
        std::unique_ptr<WriteSide>{static_cast<WriteSide*>(data)}.reset();
      });
  return index;
}

WriteSide* SideOf(const SSL* ssl) {
  return static_cast<WriteSide*>(SSL_get_ex_data(ssl, WriteSideIndex()));
}

// "LABEL CLIENT_RANDOM SECRET", the last two in hexadecimal.
void OnSecret(const SSL* ssl, const char* line) {
  const std::string_view text{line};
  if (!text.starts_with("SERVER_TRAFFIC_SECRET_0 ")) return;
  auto side = std::make_unique<WriteSide>();
  const std::string hex{text.substr(text.rfind(' ') + 1)};
  side->secret.resize(hex.size() / 2);
  std::size_t size = 0;
  if (OPENSSL_hexstr2buf_ex(side->secret.data(), side->secret.size(), &size, hex.c_str(), '\0') != 1) return;
  std::unique_ptr<WriteSide>{SideOf(ssl)}.reset();
  SSL_set_ex_data(const_cast<SSL*>(ssl), WriteSideIndex(), side.release());
}

void OnMessage(int write, int, int type, const void*, std::size_t, SSL* ssl, void*) {
  if (write == 0 || type != SSL3_RT_HEADER) return;
  if (WriteSide* side = SideOf(ssl)) ++side->records;
}

// HKDF-Expand-Label with an empty context (RFC 8446 §7.1).
bool Expand(const std::vector<unsigned char>& secret, const char* digest, std::string label,
            std::vector<unsigned char>& out) {
  const std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> kdf{EVP_KDF_fetch(nullptr, "TLS13-KDF", nullptr),
                                                              &EVP_KDF_free};
  if (!kdf) return false;
  const std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> context{EVP_KDF_CTX_new(kdf.get()),
                                                                          &EVP_KDF_CTX_free};
  if (!context) return false;
  int mode = EVP_KDF_HKDF_MODE_EXPAND_ONLY;
  std::string prefix = "tls13 ";
  std::string digestName = digest;
  std::vector<unsigned char> key = secret;
  const std::array parameters{
      OSSL_PARAM_construct_int(OSSL_KDF_PARAM_MODE, &mode),
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digestName.data(), 0),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, key.data(), key.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_PREFIX, prefix.data(), prefix.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_LABEL, label.data(), label.size()),
      OSSL_PARAM_construct_end(),
  };
  return EVP_KDF_derive(context.get(), out.data(), out.size(), parameters.data()) == 1;
}

}  // namespace

struct RecordSealer::State {
  ~State() { EVP_CIPHER_CTX_free(cipher); }

  EVP_CIPHER_CTX* cipher = nullptr;
  std::vector<unsigned char> iv;
  std::uint64_t sequence = 0;
};

RecordSealer::RecordSealer(std::unique_ptr<State> state) : m_state(std::move(state)) {}
RecordSealer::~RecordSealer() = default;

void RecordSealer::Watch(SSL_CTX* context) {
  SSL_CTX_set_keylog_callback(context, OnSecret);
  SSL_CTX_set_msg_callback(context, OnMessage);
}

std::unique_ptr<RecordSealer> RecordSealer::Take(SSL* ssl) {
  const WriteSide* side = SideOf(ssl);
  const SSL_CIPHER* suite = SSL_get_current_cipher(ssl);
  if (side == nullptr || suite == nullptr || SSL_version(ssl) != TLS1_3_VERSION) return nullptr;
  const int name = SSL_CIPHER_get_cipher_nid(suite);
  if (name != NID_aes_128_gcm && name != NID_aes_256_gcm && name != NID_chacha20_poly1305) return nullptr;
  const EVP_CIPHER* algorithm = EVP_get_cipherbynid(name);
  const char* digest = EVP_MD_get0_name(SSL_CIPHER_get_handshake_digest(suite));

  auto owned = std::make_unique<State>();
  State& state = *owned;
  std::vector<unsigned char> key(static_cast<std::size_t>(EVP_CIPHER_get_key_length(algorithm)));
  state.iv.resize(kNonceSize);
  state.sequence = side->records;
  state.cipher = EVP_CIPHER_CTX_new();
  const bool ready = state.cipher != nullptr && Expand(side->secret, digest, "key", key) &&
                     Expand(side->secret, digest, "iv", state.iv) &&
                     EVP_EncryptInit_ex(state.cipher, algorithm, nullptr, key.data(), state.iv.data()) == 1;
  return ready ? std::make_unique<RecordSealer>(std::move(owned)) : nullptr;
}

bool RecordSealer::Seal(std::uint8_t type, std::string_view plaintext, std::string& out) {
  const std::size_t begin = out.size();
  const std::size_t length = plaintext.size() + 1 + kTagSize;
  const std::array<char, kHeaderSize> header{kApplicationData, 3, 3, static_cast<char>(length >> 8U),
                                             static_cast<char>(length & 0xFFU)};
  out.append(header.data(), header.size());
  out += plaintext;
  out += static_cast<char>(type);
  out.append(kTagSize, '\0');

  std::array<unsigned char, kNonceSize> nonce{};
  for (std::size_t index = 0; index < kNonceSize; ++index) {
    const std::size_t fromEnd = kNonceSize - 1 - index;
    const std::uint64_t digit = fromEnd < 8 ? m_state->sequence >> (8 * fromEnd) : 0;
    nonce[index] = static_cast<unsigned char>(m_state->iv[index] ^ (digit & 0xFFU));
  }
  ++m_state->sequence;

  auto* record = reinterpret_cast<unsigned char*>(out.data() + begin);
  unsigned char* body = record + kHeaderSize;
  const int bodySize = static_cast<int>(plaintext.size() + 1);
  int done = 0;
  return EVP_EncryptInit_ex(m_state->cipher, nullptr, nullptr, nullptr, nonce.data()) == 1 &&
         EVP_EncryptUpdate(m_state->cipher, nullptr, &done, record, kHeaderSize) == 1 &&
         EVP_EncryptUpdate(m_state->cipher, body, &done, body, bodySize) == 1 &&
         EVP_EncryptFinal_ex(m_state->cipher, body + bodySize, &done) == 1 &&
         EVP_CIPHER_CTX_ctrl(m_state->cipher, EVP_CTRL_AEAD_GET_TAG, kTagSize, body + bodySize) == 1;
}

}  // namespace quenmark::simulator
