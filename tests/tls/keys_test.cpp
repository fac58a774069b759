#include "tls/keys.h"

#include "platform/files.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"
#include "tests/tls/test_keys.h"
#include "tls/certificate_pem.h"
#include "tls/certificate_validation.h"
#include "tls/cipher_suites.h"
#include "tls/signature_schemes.h"

#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <stdlib.h>

#include <memory>
#include <string>

namespace quenmark::tls {
namespace {

using test::IdentityOf;
using test::KeyKind;

class KeysTest : public ::testing::Test {
 protected:
  std::string Put(const std::string& name, const std::string& text) {
    platform::SalvarArquivo(m_folder.File(name), text);
    return m_folder.File(name);
  }
  int OpenSsl(const std::string& arguments) {
    test::ChildProcess tool("sh", {"-c", "cd " + m_folder.Path() + " && openssl " + arguments});
    return tool.Wait().value_or(-1);
  }

  test::TemporaryFolder m_folder;
  Identity m_identity;
  CertificateError m_error;
};

TEST_F(KeysTest, PemBlocksAreFoundBetweenOtherText) {
  const auto read = [](std::string_view text) {
    std::string joined;
    const auto blocks = ReadPemBlocks(text, "X");
    if (!blocks) return std::string("unreadable");
    for (const auto& block : *blocks) joined += std::string(block.begin(), block.end()) + ".";
    return joined;
  };
  EXPECT_EQ(
      read(
          "text\n> -----BEGIN X-----\nName: x\nYWJj\n-----END X-----\n-----BEGIN X-----\r\nYW\rI=\r\n -----END X-----"),
      "abc.ab.");
  EXPECT_EQ(read("-----BEGIN XX-----\nYWJj\n-----END XX-----\n-----BEGIN Y-----\nYWJj\n-----END Y-----"), "");
  EXPECT_EQ(read("-----BEGIN X-----\nYQ=="), "");
  EXPECT_EQ(read(""), "");
  for (const std::string bad : {"YWJ", "Y", "YQ=", "YQ==YQ==", "YW?j", "====", "YWJj=", "-----BEGIN X-----"}) {
    EXPECT_EQ(read("-----BEGIN X-----\n" + bad + "\n-----END X-----\n"), "unreadable") << bad;
  }
}

TEST_F(KeysTest, PemImportTakesAllCertificatesAndThePreferredKey) {
  const auto& ec = IdentityOf(KeyKind::kP256);
  const auto& rsa = IdentityOf(KeyKind::kRsa2048);
  Put("pkcs8.pem", rsa.certificatePem + ec.privateKeyPem);
  ASSERT_EQ(OpenSsl("ec -in pkcs8.pem -out ec.pem"), 0);
  const std::string names =
      Put("leaf.pem", ec.certificatePem) + "|" + m_folder.File("ec.pem") + "|" + m_folder.File("pkcs8.pem");
  ASSERT_TRUE(pvPkiPemImportCertificates(names, m_identity, m_error)) << m_error.description;
  EXPECT_EQ(m_identity.certificates, (std::vector<Bytes>{ec.certificate, rsa.certificate}));
  EXPECT_EQ(Bytes(m_identity.privateKey.begin(), m_identity.privateKey.end()), ec.privateKey);

  const Identity before = m_identity;
  for (const std::string& bad : {m_folder.File("missing"), names + "|",
                                 Put("bad.pem", "-----BEGIN CERTIFICATE-----\n?\n-----END CERTIFICATE-----\n")}) {
    EXPECT_FALSE(pvPkiPemImportCertificates(bad, m_identity, m_error)) << bad;
    EXPECT_EQ(m_error.source, "cTlsSocket.pvPkiPemImportCertificates");
    EXPECT_EQ(m_identity.certificates, before.certificates);
  }
  EXPECT_FALSE(pvPkiPemImportCertificates(m_folder.File("missing"), m_identity, m_error));
  EXPECT_EQ(m_error.number, static_cast<std::int32_t>(0x80070002));

  ASSERT_TRUE(pvPkiPemImportCertificates(m_folder.File("ec.pem"), m_identity, m_error));
  EXPECT_TRUE(m_identity.certificates.empty());
  EXPECT_EQ(PrivateKey::Decode(m_identity.privateKey)->Algorithm(), oid::kSecp256r1);
}

TEST_F(KeysTest, Pkcs12GivesTheLeafFirstAndItsKey) {
  for (const auto kind : {KeyKind::kP256, KeyKind::kRsa2048, KeyKind::kRsaPss}) {
    const auto& leaf = IdentityOf(kind);
    const auto& other = IdentityOf(KeyKind::kP384);
    Put("leaf.pem", leaf.certificatePem + leaf.privateKeyPem);
    Put("other.pem", other.certificatePem);
    for (const std::string legacy : {"", "-legacy "}) {
      ASSERT_EQ(
          OpenSsl("pkcs12 -export " + legacy + "-in leaf.pem -certfile other.pem -passout pass:secret -out a.p12"), 0);
      ASSERT_TRUE(pvPkiPkcs12ImportCertificates(m_folder.File("a.p12"), "secret", m_identity, m_error))
          << m_error.description;
      EXPECT_EQ(m_identity.certificates, (std::vector<Bytes>{leaf.certificate, other.certificate}));
      const auto key = PrivateKey::Decode(m_identity.privateKey);
      ASSERT_TRUE(key);
      const auto content = test::FromHex("0102");
      const auto padding = kind == KeyKind::kP256     ? Padding::kNone
                           : kind == KeyKind::kRsaPss ? Padding::kPss
                                                      : Padding::kPkcs1;
      const auto signature = key->Sign(padding, Digest::kSha256, content);
      ASSERT_TRUE(signature);
      EXPECT_TRUE(PublicKey::FromCertificate(leaf.certificate)->Verify(padding, Digest::kSha256, content, *signature));
    }
  }
  EXPECT_FALSE(pvPkiPkcs12ImportCertificates(m_folder.File("a.p12"), "wrong", m_identity, m_error));
  EXPECT_EQ(m_error.description, "Call failed (PFXImportCertStore)");
  EXPECT_EQ(m_error.source, "cTlsSocket.pvPkiPkcs12ImportCertificates");
  EXPECT_FALSE(m_identity.certificates.empty());
  EXPECT_FALSE(pvPkiPkcs12ImportCertificates(m_folder.File("none"), "x", m_identity, m_error));
  EXPECT_FALSE(pvPkiPkcs12ImportCertificates(Put("junk.p12", "junk"), "x", m_identity, m_error));
}

TEST_F(KeysTest, RootStoreIsReplacedDroppedOrKept) {
  std::shared_ptr<const RootStore> roots;
  const std::string two = IdentityOf(KeyKind::kP256).certificatePem + IdentityOf(KeyKind::kP384).certificatePem;
  ASSERT_TRUE(pvPkiPemImportRootCaCertStore(Put("roots.pem", two), roots, m_error));
  EXPECT_EQ(RootCount(*roots), 2u);
  const std::string junk = "-----BEGIN CERTIFICATE-----\nYWJj\n-----END CERTIFICATE-----\n";
  for (const std::string& bad : {two + junk, std::string("no certificate")}) {
    EXPECT_FALSE(pvPkiPemImportRootCaCertStore(Put("bad.pem", bad), roots, m_error));
    EXPECT_EQ(m_error.source, "cTlsSocket.pvPkiPemImportRootCaCertStore");
    EXPECT_EQ(RootCount(*roots), 2u);
  }
  EXPECT_TRUE(pvPkiPemImportRootCaCertStore("", roots, m_error));
  EXPECT_EQ(roots, nullptr);
}

TEST_F(KeysTest, SelfSignedCertificateHasSubjectKeyAndYear) {
  setenv("COMPUTERNAME", "DESK", 1);
  setenv("USERDNSDOMAIN", "example.test", 1);
  setenv("USERDOMAIN", "EX\"AMPLE", 1);
  setenv("USERNAME", "trader", 1);
  EXPECT_EQ(SelfSignedSubject(""),
            R"(CN="desk.example.test",OU="EX""AMPLE\trader",O="Sockwell Self-Signed Certificate")");
  ASSERT_TRUE(pvPkiGenerSelfSignedCertificate("", 1'700'000'000, m_identity, m_error)) << m_error.description;
  for (const char* name : {"COMPUTERNAME", "USERDNSDOMAIN", "USERDOMAIN", "USERNAME"}) unsetenv(name);
  EXPECT_EQ(SelfSignedSubject("Host").rfind("CN=\"Host\",OU=\"\\\",", 0), 0u);
  EXPECT_EQ(SelfSignedSubject("").find("CN=\"\""), std::string::npos);

  Put("self.der", std::string(m_identity.certificates.at(0).begin(), m_identity.certificates.at(0).end()));
  test::ChildProcess tool("openssl", {"x509", "-inform", "DER", "-in", m_folder.File("self.der"), "-noout", "-text"});
  const std::string text = tool.ReadAll();
  for (const char* part : {"CN = desk.example.test, OU = EX\\\"AMPLE\\\\trader, O = Sockwell Self-Signed Certificate",
                           "sha256WithRSAEncryption", "(1024 bit)", "Nov 14 22:13:20 2023", "Nov 13 22:13:20 2024"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
  }
  const auto key = PrivateKey::Decode(m_identity.privateKey);
  ASSERT_TRUE(key);
  EXPECT_EQ(key->Algorithm(), oid::kRsa);
  EXPECT_EQ(key->ModulusSize(), 128u);

  EXPECT_TRUE(pvPkiGenerSelfSignedCertificate("CN=a, O=\"b, c\"; C=BR", 1'700'000'000, m_identity, m_error));
  for (const char* bad : {"CN=a,O", "CN=a,Unknown=b", "CN=\"a", "CN=\"a\"b"}) {
    EXPECT_FALSE(pvPkiGenerSelfSignedCertificate(bad, 1'700'000'000, m_identity, m_error)) << bad;
    EXPECT_EQ(m_error.source, "cTlsSocket.pvPkiGenerSelfSignedCertificate.baName") << bad;
  }
}

TEST_F(KeysTest, ExportsNameTheFailingCall) {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> ec(EVP_EC_gen("P-521"), &EVP_PKEY_free);
  EXPECT_EQ(PrivateKey::Decode(pvPkiExportPrivateKey(ec.get(), m_error))->Algorithm(), oid::kSecp521r1);
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> clone(pvPkiCloneKeyWithExportPolicy(ec.get(), m_error),
                                                                  &EVP_PKEY_free);
  ASSERT_TRUE(clone);
  EXPECT_EQ(pvPkiExportEccPrivateKey(clone.get(), m_error), pvPkiExportEccPrivateKey(ec.get(), m_error));
  EXPECT_TRUE(pvPkiExportRsaPrivateKey(ec.get(), m_error).empty());
  EXPECT_EQ(m_error.description, "Call failed (CryptExportKey(PRIVATEKEYBLOB))");
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> other(EVP_EC_gen("secp256k1"), &EVP_PKEY_free);
  EXPECT_TRUE(pvPkiExportPrivateKey(other.get(), m_error).empty());
  EXPECT_EQ(m_error.description, "Call failed (NCryptExportKey(ECCPRIVATEBLOB))");
}

}  // namespace
}  // namespace quenmark::tls
