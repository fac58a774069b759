#include "tls/certificate_validation.h"

#include "platform/files.h"
#include "platform/message_loop.h"
#include "tests/support/child_process.h"
#include "tests/support/http_server.h"
#include "tests/support/temporary_folder.h"
#include "tls/certificate_pem.h"
#include "tls/certificate_services.h"
#include "tls/certificate_verify.h"
#include "tls/keys.h"
#include "tls/tls_socket.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace quenmark::tls {
namespace {

constexpr std::int64_t kDay = 86400;
const std::string kValid = "valid";
const std::string kWrongName = "No certificate subject name matches target host name";
const std::string kExpired = "The certificate has expired";
const std::string kIncompleteText = "The certificate chain is not complete";
const std::string kUntrusted = "The certificate or certificate chain is based on an untrusted root";
const std::string kRevokedText =
    "Trust for this certificate or one of the certificates in the certificate chain has been revoked";
const std::string kUnknownText =
    "The revocation status of the certificate or one of the certificates in the certificate chain is unknown";

std::string Mask(const std::string& bits) {
  return "Unknown CertGetCertificateChain error mask (&H" + bits + ")";
}

// The certificates of gallery.sh, made once.
class Gallery {
 public:
  static Gallery& Get() {
    static Gallery gallery;
    return gallery;
  }

  std::string File(const std::string& name) const { return m_folder.File(name); }
  platform::MessageLoop& Loop() { return m_loop; }

  // The verdict on the certificates named, joined by blanks and end-entity first, with the roots of a file.
  std::string Verify(const std::string& chain, const std::string& host, const std::string& roots = "root",
                     std::int64_t days = 0, bool revocation = false) {
    std::string text;
    std::string names = chain + " ";
    for (std::size_t blank = 0; (blank = names.find(' ')) != std::string::npos; names.erase(0, blank + 1)) {
      text += platform::ReadWholeFile(File(names.substr(0, blank) + ".pem"));
    }
    platform::SalvarArquivo(File("chain.txt"), text);
    VerifyOptions options{host, File("chain.txt"), roots.empty() ? "" : File(roots + ".pem"), {}, revocation};
    if (days != 0) options.time = Now() + days * kDay;
    return VerifyChainFile(options, m_loop).text;
  }

  std::int64_t Now() const {
    return std::chrono::duration_cast<std::chrono::seconds>(m_clock.Now().time_since_epoch()).count();
  }

 private:
  Gallery() {
    test::ChildProcess script("sh",
                              {SOURCE_DIR "/tests/tls/gallery.sh", m_folder.Path(), std::to_string(m_server.Port())});
    if (script.Wait(std::chrono::seconds{60}) != 0) throw std::runtime_error(script.ErrorText());
    for (const std::string name : {"middle.crl", "root.crl"}) {
      m_server.Put("/" + name, {200, {}, platform::ReadWholeFile(File(name))});
    }
  }

  test::HttpServer m_server;
  test::TemporaryFolder m_folder;
  platform::SystemClock m_clock;
  platform::MessageLoop m_loop{m_clock};
};

struct GalleryCase {
  std::string chain;
  std::string host;
  std::string expected;
  std::string roots = "root";
  std::int64_t days = 0;
  bool revocation = false;
};

TEST(CertificateGallery, EachCertificateGetsItsVerdictAndText) {
  const GalleryCase cases[] = {
      {"good middle", "good.test", kValid},
      {"good middle", "GOOD.test", kValid},
      {"good middle root", "good.test", kValid},
      {"good middle", "other.test", kWrongName},
      {"good middle", "", kWrongName},
      {"good middle", "good.test", kExpired, "root", 4000},
      {"good middle", "good.test", kExpired, "root", -2},
      {"short middle", "good.test", kExpired, "root", 3},
      {"wildcard middle", "a.good.test", kValid},
      {"wildcard middle", "a.b.good.test", kWrongName},
      {"wildcard middle", "good.test", kWrongName},
      {"www middle", "good.test", kValid},
      {"www middle", "www.good.test", kValid},
      {"good middle", "www.good.test", kWrongName},
      {"no-name middle", "no-name", kWrongName},
      {"nul-name middle", "good.test", kWrongName},
      {"broken-name middle", "good.test", "Call failed (CryptDecodeObjectEx(szOID_SUBJECT_ALT_NAME2))"},
      // The key of the first certificate signed the handshake; the one that covers the host is another's.
      {"wildcard good middle", "good.test", kWrongName},
      {"self-signed", "good.test", kUntrusted},
      {"self-signed", "good.test", kValid, "self-signed"},
      {"from-other other-root", "good.test", kUntrusted},
      {"from-other", "good.test", kIncompleteText},
      {"from-other other-root", "good.test", kValid, "other-root"},
      {"good middle root", "good.test", kUntrusted, ""},
      {"good", "good.test", kIncompleteText},
      {"good middle", "good.test", kIncompleteText, "middle"},  // a loaded certificate that is no root ends no path
      {"deep other-root lower from-other middle root", "good.test", kValid},
      {"deep middle lower", "good.test", kValid},
      {"deep middle", "good.test", kIncompleteText},
      {"short other-root", "good.test", kIncompleteText, "root", 3},  // incomplete goes before expired
      {"forged middle", "good.test", Mask("8")},
      {"client-only middle", "good.test", Mask("10")},
      {"no-sign-leaf", "good.test", Mask("10"), "no-sign-root"},
      {"critical middle", "good.test", Mask("100")},
      {"under-not-ca not-ca middle", "good.test", Mask("400")},
      {"under-too-deep too-deep length-zero", "good.test", Mask("400")},
      {"outside constrained", "good.test", Mask("4000")},
      {"md5 rsa-middle", "good.test", Mask("100000")},
      {"sha1 rsa-middle", "good.test", Mask("100000")},
      {"rsa512 middle", "good.test", Mask("100000")},
      {"not-revoked middle-listed", "good.test", kValid, "root", 0, true},
      {"revoked middle-listed", "good.test", kRevokedText, "root", 0, true},
      {"revoked middle-listed", "good.test", kRevokedText, "root", 4000, true},
      {"revoked middle-listed", "good.test", kValid},
      {"list-gone middle-listed", "good.test", kUnknownText, "root", 0, true},
      {"good middle-listed", "good.test", kUnknownText, "root", 0, true},
      {"not-revoked middle-listed", "good.test", kUnknownText, "root", 60, true},  // the lists are out of date
  };
  for (const GalleryCase& one : cases) {
    EXPECT_EQ(Gallery::Get().Verify(one.chain, one.host, one.roots, one.days, one.revocation), one.expected)
        << one.chain << " for " << one.host << " with " << one.roots << " day " << one.days;
  }
}

TEST(CertificateGallery, SystemRootsIncludeTheFileOfTheEnvironment) {
  // What is damaged in it costs nothing else.
  const std::string begin = "-----BEGIN CERTIFICATE-----\n";
  const std::string end = "-----END CERTIFICATE-----\n";
  platform::SalvarArquivo(Gallery::Get().File("damaged.pem"),
                          begin + "?\n" + end + begin + "YWJj\n" + end + begin + "never closed\n" +
                              platform::ReadWholeFile(Gallery::Get().File("root.pem")) + begin);
  setenv("SSL_CERT_FILE", Gallery::Get().File("damaged.pem").c_str(), 1);
  EXPECT_EQ(Gallery::Get().Verify("good middle", "good.test", ""), kValid);
  EXPECT_EQ(Gallery::Get().Verify("good middle", "good.test", "other-root"), kIncompleteText);
  unsetenv("SSL_CERT_FILE");
}

// The same verdicts through the socket, from a server that sends those chains.
TEST(CertificateGallery, TheSocketTellsTheVerdict) {
  struct Row {
    std::string name;
    std::string issuer;
    std::uint32_t features;
    std::string text;
  };
  const Row rows[] = {
      {"good", "middle", 0, ""},
      {"wildcard", "middle", 0, kWrongName},
      {"from-other", "other-root", 0, kUntrusted},
      {"outside", "constrained", 0, Mask("4000")},
      {"revoked", "middle-listed", kFeatureCheckRevocation, kRevokedText},
  };
  auto& gallery = Gallery::Get();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    test::ChildProcess server(
        "openssl", {"s_server", "-www", "-accept", "127.0.0.1:0", "-cert", gallery.File(row.name + ".pem"), "-key",
                    gallery.File(row.name + ".key"), "-cert_chain", gallery.File(row.issuer + ".pem")});
    const std::string accept = "ACCEPT 127.0.0.1:";
    auto line = server.ReadLine();
    while (line && !line->starts_with(accept)) line = server.ReadLine();
    ASSERT_TRUE(line) << server.ErrorText();
    const auto socket = cTlsSocket::New(gallery.Loop(), MakeCertificateServices(gallery.Loop()));
    ASSERT_TRUE(socket->PkiPemImportRootCaCertStore(gallery.File("root.pem")));
    ASSERT_TRUE(socket->SyncConnect("127.0.0.1", std::stoi(line->substr(accept.size())), 10'000, false));
    EXPECT_EQ(socket->SyncStartTls("good.test", 10'000, row.features), row.text.empty());
    EXPECT_EQ(socket->LastError().description, row.text);
    EXPECT_EQ(socket->IsClosed(), !row.text.empty());
    socket->Socket()->Close_();
  }
}

TEST(CertificateValidation, SentencesInTheirOrder) {
  using namespace trust_error;
  EXPECT_EQ(TrustErrorText(kRevoked | kIncomplete | kUntrustedRoot | kTime | kRevocationUnknown), kRevokedText);
  EXPECT_EQ(TrustErrorText(kIncomplete | kUntrustedRoot | kTime | kSignature), kIncompleteText);
  EXPECT_EQ(TrustErrorText(kUntrustedRoot | kTime | kUsage), kUntrusted);
  EXPECT_EQ(TrustErrorText(kTime | kRevocationUnknown), kExpired);
  EXPECT_EQ(TrustErrorText(kRevocationUnknown | kWeak), kUnknownText);
  EXPECT_EQ(TrustErrorText(kUsage | kWeak), Mask("100010"));
}

TEST(CertificateValidation, ClientsAreJudgedWithoutAHost) {
  const auto services = MakeCertificateServices(Gallery::Get().Loop());
  CertificateError error;
  ChainRequest request;
  request.usage = PeerUsage::kClient;
  ASSERT_TRUE(services->ImportRoots(Gallery::Get().File("root.pem"), request.rootStore, error));
  Identity identity;
  const std::string middle = "|" + Gallery::Get().File("middle.pem");
  ASSERT_TRUE(services->ImportPem(Gallery::Get().File("client-only.pem") + middle, identity, error));
  request.chain = &identity.certificates;
  EXPECT_TRUE(services->ValidateChain(request, error)) << error.description;
  identity.certificates.resize(1);
  EXPECT_FALSE(services->ValidateChain(request, error));
  EXPECT_EQ(error.description, kIncompleteText);
  EXPECT_EQ(error.source, "cTlsSocket.pvPkiCertChainValidate");
  identity.certificates.push_back({0x30, 0x00});
  EXPECT_FALSE(services->ValidateChain(request, error));
  EXPECT_EQ(error.description, "Call failed (CertAddEncodedCertificateToStore)");
  EXPECT_EQ(static_cast<std::uint32_t>(error.number) & 0xFFFF0000u, 0x80070000u);
}

TEST(CertificateVerify, ExitStatusAndTimes) {
  auto& gallery = Gallery::Get();
  const auto status = [&](const VerifyOptions& options) { return VerifyChainFile(options, gallery.Loop()).exitStatus; };
  EXPECT_EQ(status({"good.test", gallery.File("bundle.pem"), gallery.File("root.pem"), {}, false}), kVerifyValid);
  EXPECT_EQ(status({"bad.test", gallery.File("bundle.pem"), gallery.File("root.pem"), {}, false}), kVerifyInvalid);
  EXPECT_EQ(status({"good.test", gallery.File("missing"), "", {}, false}), kVerifyUnreadable);
  EXPECT_EQ(status({"good.test", gallery.File("good.key"), "", {}, false}), kVerifyUnreadable);
  EXPECT_EQ(status({"good.test", gallery.File("bundle.pem"), gallery.File("missing"), {}, false}), kVerifyUnreadable);

  EXPECT_EQ(ParseVerifyTime("1700000000"), 1700000000);
  EXPECT_EQ(ParseVerifyTime("2023-11-14T22:13:20Z"), 1700000000);
  EXPECT_EQ(ParseVerifyTime("2023-11-14t23:43:20.25+01:30"), 1700000000);
  EXPECT_EQ(ParseVerifyTime("2016-12-31T23:59:60Z"), 1483228800);
  for (const char* bad : {"", "2023-11-14", "2023-11-14T22:13:20", "2023-02-30T22:13:20Z", "2023-11-14T24:00:00Z",
                          "2023-11-14T22:13:20+1:30", "2023-11-14T22:13:20.Z", "-2023-11-14T22:13:20Z", "1e9"}) {
    EXPECT_FALSE(ParseVerifyTime(bad)) << bad;
  }
}

}  // namespace
}  // namespace quenmark::tls
