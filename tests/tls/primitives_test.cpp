// The primitives against published vectors, where the wrapper could get formats, order or places wrong.
#include "tls/primitives.h"

#include "tests/tls/test_keys.h"
#include "tls/key_schedule.h"

#include <gtest/gtest.h>

#include <string>

namespace quenmark::tls {
namespace {

using test::FromHex;
using test::ToHex;

struct AeadVector {
  Bulk bulk;
  const char* key;
  const char* nonce;
  const char* additional;
  const char* plain;
  const char* protectedText;  // with tag
};

// NIST GCM test vectors (McGrew, Viega), case 4 and 16
constexpr const char* kGcmPlain =
    "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a721c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657"
    "ba637b39";
const AeadVector kAead[] = {
    {Bulk::kAes128Gcm, "feffe9928665731c6d6a8f9467308308", "cafebabefacedbaddecaf888",
     "feedfacedeadbeeffeedfacedeadbeefabaddad2", kGcmPlain,
     "42831ec2217774244b7221b784d0d49ce3aa212f2c02a4e035c17e2329aca12e21d514b25466931c7d8f6a5aac84aa051ba30b396a0aac9"
     "73d58e0915bc94fbc3221a5db94fae95ae7121a47"},
    {Bulk::kAes256Gcm, "feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308", "cafebabefacedbaddecaf888",
     "feedfacedeadbeeffeedfacedeadbeefabaddad2", kGcmPlain,
     "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0"
     "abcc9f66276fc6ece0f4e1768cddf8853bb2d551b"},
    // RFC 8439 section 2.8.2
    {Bulk::kChaCha20Poly1305, "808182838485868788898a8b8c8d8e8f909192939495969798999a9b9c9d9e9f",
     "070000004041424344454647", "50515253c0c1c2c3c4c5c6c7",
     "4c616469657320616e642047656e746c656d656e206f662074686520636c617373206f66202739393a204966204920636f756c64206f6666"
     "657220796f75206f6e6c79206f6e652074697020666f7220746865206675747572652c2073756e73637265656e20776f756c642062652069"
     "742e",
     "d31a8d34648e60db7b86afbc53ef7ec2a4aded51296e08fea9e2b5a736ee62d63dbea45e8ca9671282fafb69da92728b1a71de0a9e060b2"
     "905d6a5b67ecd3b3692ddbd7f2d778b8c9803aee328091b58fab324e4fad675945585808b4831d7bc3ff4def08e4b7a9de576d26586cec6"
     "4b61161ae10b594f09e26a7e902ecbd0600691"},
};

TEST(TlsPrimitives, AeadVectorsInPlaceAndApart) {
  for (const AeadVector& vector : kAead) {
    const Bytes key = FromHex(vector.key);
    const Bytes nonce = FromHex(vector.nonce);
    const Bytes additional = FromHex(vector.additional);
    const Bytes plain = FromHex(vector.plain);
    const Bytes expected = FromHex(vector.protectedText);
    const auto encrypt = MakeBulkCipher(vector.bulk, key, CipherUse::kEncrypt);
    const auto decrypt = MakeBulkCipher(vector.bulk, key, CipherUse::kDecrypt);
    for (int round = 0; round < 2; ++round) {
      Bytes apart(expected.size());
      ASSERT_TRUE(encrypt->Encrypt(nonce, additional, plain, apart.data()));
      EXPECT_EQ(ToHex(apart), ToHex(expected));
      Bytes place = plain;
      place.resize(expected.size());
      ASSERT_TRUE(encrypt->Encrypt(nonce, additional, BytesView(place).first(plain.size()), place.data()));
      EXPECT_EQ(place, expected);
      ASSERT_TRUE(decrypt->Decrypt(nonce, additional, place, place.data()));
      EXPECT_EQ(Bytes(place.begin(), place.begin() + static_cast<std::ptrdiff_t>(plain.size())), plain);
    }
    // One changed bit anywhere is found, and the cipher works again afterwards.
    for (std::size_t at = 0; at < expected.size(); ++at) {
      Bytes damaged = expected;
      damaged[at] ^= 1;
      Bytes out(plain.size());
      EXPECT_FALSE(decrypt->Decrypt(nonce, additional, damaged, out.data())) << at;
    }
    Bytes out(plain.size());
    EXPECT_FALSE(decrypt->Decrypt(nonce, {}, expected, out.data()));
    EXPECT_TRUE(decrypt->Decrypt(nonce, additional, expected, out.data()));
    EXPECT_FALSE(decrypt->Decrypt(nonce, additional, BytesView(expected).first(15), out.data()));
  }
}

// FIPS 180-4 examples of "abc".
TEST(TlsPrimitives, EveryDigest) {
  const std::pair<Digest, const char*> rows[] = {
      {Digest::kSha1, "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {Digest::kSha224, "23097d223405d8228642a477bda255b32aadbce4bda0b3f7e36c9da7"},
      {Digest::kSha256, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {Digest::kSha384,
       "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7"},
      {Digest::kSha512,
       "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
       "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
  };
  for (const auto& [digest, expected] : rows) {
    EXPECT_EQ(ToHex(pvTlsGetHash(digest, FromHex("616263")).View()), expected);
    EXPECT_EQ(DigestSize(digest), FromHex(expected).size());
  }
}

// RFC 4231 section 4.7
TEST(TlsPrimitives, MacOfAKeyLongerThanABlock) {
  const std::string text = "Test Using Larger Than Block-Size Key - Hash Key First";
  EXPECT_EQ(ToHex(pvTlsGetHmac(Digest::kSha384, Bytes(131, 0xAA), {Bytes(text.begin(), text.end())}).View()),
            "4ece084485813e9088d2c63a041bc5b44f9ef1012a2b588f3cd11f05033ac4c60c2ef6ab4030fe8296248df163f44952");
}

// RFC 5869 A.1
TEST(TlsPrimitives, KeyDerivationVector) {
  const SecretBytes extracted = HkdfExtract(Digest::kSha256, FromHex("000102030405060708090a0b0c"), Bytes(22, 0x0B));
  EXPECT_EQ(ToHex(extracted.View()), "077709362c2e32df0ddc3f0dc47bba6390b6c73bb50f9c3122ec844ad7c2b3e5");
  Bytes expanded(42);
  HkdfExpand(Digest::kSha256, extracted.View(), FromHex("f0f1f2f3f4f5f6f7f8f9"), expanded);
  EXPECT_EQ(ToHex(expanded), "3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf34007208d5b887185865");
}

// RFC 7748 section 6.1
TEST(TlsPrimitives, AgreementVector) {
  const KeyPair bob =
      KeyPair::FromPrivate(GroupOf(29), FromHex("5dab087e624a8a4b79e17f8b83800ee66f3bb1292618b6fd1c2f8b27ff88e0eb"));
  EXPECT_EQ(ToHex(bob.Public()), "de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f");
  EXPECT_EQ(
      ToHex(bob.SharedSecret(FromHex("8520f0098930a754748b7ddcb43ef75a0dbf3a0d26381af4eba4a98eaa9b4e6a"))->View()),
      "4a5d9d5ba4ce2de1728e3bf480350f25e07e21c947d19e3376f09b3c1e161742");
}

TEST(TlsPrimitives, InvalidPeerKeysAreRefused) {
  for (const Group& group : kGroups) {
    const KeyPair own = KeyPair::Generate(group);
    EXPECT_EQ(own.Public().size(), group.publicKeySize);
    EXPECT_FALSE(own.SharedSecret(Bytes(group.publicKeySize)));  // X25519: small order; curves: no point
    EXPECT_FALSE(own.SharedSecret({}));
    Bytes off(own.Public().begin(), own.Public().end());
    EXPECT_TRUE(own.SharedSecret(off));
    off.push_back(0);
    EXPECT_FALSE(own.SharedSecret(off));
    if (group.exchange == Exchange::kX25519) continue;
    off.pop_back();
    off.back() ^= 1;
    EXPECT_FALSE(own.SharedSecret(off));
    off.back() ^= 1;
    off[0] = 6;  // hybrid form
    EXPECT_FALSE(own.SharedSecret(off));
  }
}

TEST(TlsPrimitives, ConstantTimeMacEqualsThePlainOne) {
  const Bytes key = FromHex("000102030405060708090a0b0c0d0e0f10111213");
  const Bytes header = FromHex("00000000000000051703030000");
  for (const std::size_t whole : {32, 64, 160, 288, 640}) {
    Bytes data(whole);
    for (std::size_t i = 0; i < whole; ++i) data[i] = static_cast<std::uint8_t>(i * 7);
    for (std::size_t length = whole > 276 ? whole - 276 : 0; length <= whole - 21; ++length) {
      const auto plain = pvTlsGetHmac(Digest::kSha1, key, {header, BytesView(data).first(length)});
      const auto constant = ConstantTimeRecordMac(Digest::kSha1, key, header, data, length);
      ASSERT_EQ(ToHex(constant.View()), ToHex(plain.View())) << whole << " " << length;
    }
  }
}

TEST(TlsPrimitives, KeysAreDecodedByKind) {
  using test::IdentityOf;
  using test::KeyKind;
  const std::pair<KeyKind, const char*> rows[] = {{KeyKind::kP256, "1.2.840.10045.3.1.7"},
                                                  {KeyKind::kP384, "1.3.132.0.34"},
                                                  {KeyKind::kRsa2048, "1.2.840.113549.1.1.1"},
                                                  {KeyKind::kRsaPss, "1.2.840.113549.1.1.10"}};
  for (const auto& [kind, algorithm] : rows) {
    EXPECT_EQ(PrivateKey::Decode(IdentityOf(kind).privateKey)->Algorithm(), algorithm);
  }
  Bytes certificate = IdentityOf(KeyKind::kP256).certificate;
  for (std::size_t size = 0; size < certificate.size(); ++size) {
    ASSERT_FALSE(PublicKey::FromCertificate(BytesView(certificate).first(size)));
  }
  certificate.push_back(0);
  EXPECT_FALSE(PublicKey::FromCertificate(certificate));
  EXPECT_FALSE(PrivateKey::Decode({}));
}

TEST(TlsPrimitives, ForgedPreMasterGivesARandomSecret) {
  const auto key = PrivateKey::Decode(test::IdentityOf(test::KeyKind::kRsa2048).privateKey);
  const auto certificate = PublicKey::FromCertificate(test::IdentityOf(test::KeyKind::kRsa2048).certificate);
  Bytes secret(48, 7);
  secret[0] = secret[1] = 3;
  EXPECT_EQ(ToHex(key->DecryptPreMaster(*certificate->EncryptPkcs1(secret)).View()), ToHex(secret));
  secret[1] = 2;
  const Bytes wrongVersion = *certificate->EncryptPkcs1(secret);
  for (const Bytes& forged : {wrongVersion, Bytes(256, 1), Bytes(10, 1), *certificate->EncryptPkcs1(Bytes(47, 3))}) {
    const SecretBytes first = key->DecryptPreMaster(forged);
    EXPECT_EQ(first.Size(), 48U);
    EXPECT_NE(ToHex(first.View()), ToHex(key->DecryptPreMaster(forged).View()));
  }
}

}  // namespace
}  // namespace quenmark::tls
