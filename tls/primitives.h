// The cryptographic primitives behind the engine. Formats are those of the wire; no type of the library behind them
// shows. A failing primitive raises RaisedError with "Call failed (name)".
#pragma once

#include "platform/secret_bytes.h"
#include "tls/algorithms.h"
#include "tls/groups.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

namespace quenmark::tls {

using platform::SecretBytes;

// Prepares the primitives. Raises when the library lacks one of them.
void CryptoInit();

// Fills `out` from the system's cryptographic generator.
void pvTlsGetRandom(std::span<std::uint8_t> out);

// ---- digests and MACs ----

std::size_t DigestSize(Digest digest);

// Overwritten when it goes: some are made of secrets.
struct DigestValue {
  std::array<std::uint8_t, kMaxDigestSize> bytes{};
  std::size_t size = 0;

  ~DigestValue() { platform::WipeMemory(bytes.data(), size); }
  BytesView View() const { return BytesView(bytes).first(size); }
};

// A digest being computed. Copying copies what was hashed so far. Empty until constructed with an algorithm.
class Hash {
 public:
  Hash();
  explicit Hash(Digest digest);
  Hash(const Hash& other);
  Hash(Hash&& other) noexcept;
  Hash& operator=(const Hash& other);
  Hash& operator=(Hash&& other) noexcept;
  ~Hash();

  bool Empty() const { return m_state == nullptr; }
  void Update(BytesView bytes);
  // The digest of everything so far; hashing may go on.
  DigestValue Current() const;
  // The digest; the object is spent.
  DigestValue Finish();

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

// Raises "Unsupported hash type ".
DigestValue pvTlsGetHash(Digest digest, BytesView bytes);

// An HMAC key set up once for many messages.
class HmacKey {
 public:
  // Raises "Unsupported HMAC type ".
  HmacKey(Digest digest, BytesView key);
  SecretBytes Compute(std::initializer_list<BytesView> parts) const;

 private:
  Hash m_inner;
  Hash m_outer;
};

SecretBytes pvTlsGetHmac(Digest digest, BytesView key, std::initializer_list<BytesView> parts);

// The MAC of a CBC record over `header` (13 bytes) and the first `secretLength` bytes of `data`, in time that depends
// on the size of `data` only. `data` is the decrypted record after its IV: content, MAC and padding.
SecretBytes ConstantTimeRecordMac(Digest digest, BytesView key, BytesView header, BytesView data,
                                  std::size_t secretLength);

// ---- record ciphers ----

// One bulk cipher under one key in one direction.
class BulkCipher {
 public:
  virtual ~BulkCipher() = default;

  // Writes the protected form of `in` to `out`: its bytes and, for AEAD, the 16-byte tag. `out` may be in.data() but
  // must not overlap it otherwise. CBC takes whole blocks and no additional data. False on failure.
  virtual bool Encrypt(BytesView nonce, BytesView additionalData, BytesView in, std::uint8_t* out) = 0;
  // The reverse: `in` ends with the tag for AEAD. False when it does not verify; `out` then holds rubbish.
  virtual bool Decrypt(BytesView nonce, BytesView additionalData, BytesView in, std::uint8_t* out) = 0;
};

enum class CipherUse : std::uint8_t { kEncrypt, kDecrypt };

// Raises "Unsupported bulk type ".
std::unique_ptr<BulkCipher> MakeBulkCipher(Bulk bulk, BytesView key, CipherUse use);

// ---- key exchange ----

// A private key of a group with its public key.
class KeyPair {
 public:
  KeyPair();
  KeyPair(KeyPair&& other) noexcept;
  KeyPair& operator=(KeyPair&& other) noexcept;
  ~KeyPair();

  // Raises "Failed generating key pair (group)".
  static KeyPair Generate(const Group& group);
  // A given private key: 32 bytes for X25519, the big-endian scalar otherwise.
  static KeyPair FromPrivate(const Group& group, BytesView privateKey);

  bool Empty() const { return m_state == nullptr; }
  BytesView Public() const;
  // The secret shared with the owner of `peer`; nothing when `peer` is no valid public key of the group (a point off
  // the curve, an X25519 key that gives zero).
  std::optional<SecretBytes> SharedSecret(BytesView peer) const;

 private:
  struct State;
  std::unique_ptr<State> m_state;
};

// ---- signatures and RSA key transport ----

enum class Padding : std::uint8_t { kNone, kPkcs1, kPss };  // kNone: ECDSA

// The public key of a certificate.
class PublicKey {
 public:
  PublicKey(PublicKey&& other) noexcept;
  PublicKey& operator=(PublicKey&& other) noexcept;
  ~PublicKey();

  // Nothing when the certificate or its key cannot be read.
  static std::optional<PublicKey> FromCertificate(BytesView certificate);

  // Object identifier of the key's algorithm.
  const std::string& Algorithm() const;
  // Bytes of one coordinate of an elliptic-curve key, 0 for others.
  std::size_t CoordinateSize() const;
  // Object identifier of an elliptic-curve key's named curve, empty for others.
  const std::string& Curve() const;
  // `digest` of `content` against the signature; salt as long as the digest; ECDSA signatures in DER.
  [[nodiscard]] bool Verify(Padding padding, Digest digest, BytesView content, BytesView signature) const;
  // RSAES-PKCS1-v1_5. Nothing on failure.
  std::optional<Bytes> EncryptPkcs1(BytesView secret) const;

 private:
  struct State;
  explicit PublicKey(std::unique_ptr<State> state);
  std::unique_ptr<State> m_state;
};

// A private key for signatures and RSA key transport.
class PrivateKey {
 public:
  PrivateKey(PrivateKey&& other) noexcept;
  PrivateKey& operator=(PrivateKey&& other) noexcept;
  ~PrivateKey();

  // Reads DER: PKCS#8, RSAPrivateKey or ECPrivateKey. Nothing for what is neither RSA, RSA-PSS nor a NIST curve key.
  static std::optional<PrivateKey> Decode(BytesView der);

  // Object identifier: of the algorithm for RSA, of the curve for elliptic curves.
  const std::string& Algorithm() const;
  std::size_t ModulusSize() const;  // bytes, RSA only
  std::optional<Bytes> Sign(Padding padding, Digest digest, BytesView content) const;
  // The 48-byte pre-master secret of RSA key transport. What does not decrypt to one with the right version gives a
  // random secret instead, in the same time (RFC 5246 section 7.4.7.1).
  SecretBytes DecryptPreMaster(BytesView encrypted) const;

 private:
  struct State;
  explicit PrivateKey(std::unique_ptr<State> state);
  std::unique_ptr<State> m_state;
};

}  // namespace quenmark::tls
