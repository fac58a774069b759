#include "platform/files.h"
#include "tls/certificate_library.h"
#include "tls/certificate_pem.h"
#include "tls/certificate_validation.h"
#include "tls/keys.h"

#include <openssl/pkcs12.h>
#include <openssl/provider.h>

#include <algorithm>
#include <array>

namespace quenmark::tls {

using detail::CallError;
using detail::CertificatePointer;
using detail::CertificateStack;
using detail::PkeyPointer;
using detail::PlatformError;

namespace {

using Pkcs12Pointer = std::unique_ptr<PKCS12, detail::Free<PKCS12_free>>;
using LibraryPointer = std::unique_ptr<OSSL_LIB_CTX, detail::Free<OSSL_LIB_CTX_free>>;
using ProviderPointer = std::unique_ptr<OSSL_PROVIDER, detail::Free<OSSL_PROVIDER_unload>>;

constexpr std::size_t kMaxKeyFile = std::size_t{16} << 20;  // bytes
constexpr std::string_view kKeyTypes[] = {"PRIVATE KEY", "RSA PRIVATE KEY", "EC PRIVATE KEY"};

// Overwritten when it goes, as it may hold a key.
class FileText {
 public:
  explicit FileText(std::string_view name) : m_text(platform::ReadWholeFile(name, kMaxKeyFile)) {}
  ~FileText() { platform::WipeMemory(m_text.data(), m_text.size()); }
  FileText(const FileText&) = delete;
  FileText& operator=(const FileText&) = delete;

  std::string_view View() const { return m_text; }

 private:
  std::string m_text;
};

CertificateError FileError(std::string_view name, std::string_view routine) {
  const bool missing = !platform::FileExists(name);
  return PlatformError("CreateFile", routine, missing ? detail::kFileNotFound : detail::kInvalidData);
}

bool ReadCertificates(std::string_view text, std::vector<Bytes>& certificates) {
  const auto blocks = ReadPemBlocks(text, kPemCertificate);
  for (const SecretBuffer& block : blocks ? *blocks : std::vector<SecretBuffer>{}) {
    certificates.emplace_back(block.begin(), block.end());
  }
  return blocks.has_value();
}

struct Pkcs12Contents {
  PkeyPointer key;
  CertificatePointer leaf;
  CertificateStack others;
};

// Files of older systems need ciphers that the library keeps apart: `legacy` makes them known to this one reading.
bool OpenPkcs12(std::string_view file, const std::string& password, bool legacy, Identity& made,
                CertificateError& error) {
  constexpr std::string_view kRoutine = "pvPkiPkcs12ImportCertificates";
  const LibraryPointer library(legacy ? OSSL_LIB_CTX_new() : nullptr);
  const ProviderPointer usual(legacy ? OSSL_PROVIDER_load(library.get(), "default") : nullptr);
  const ProviderPointer old(legacy ? OSSL_PROVIDER_load(library.get(), "legacy") : nullptr);
  PKCS12* container = PKCS12_init_ex(NID_pkcs7_data, library.get(), nullptr);
  const auto* position = reinterpret_cast<const unsigned char*>(file.data());
  // The library frees the container when it cannot fill it.
  const Pkcs12Pointer filled(d2i_PKCS12(&container, &position, static_cast<long>(file.size())));
  EVP_PKEY* key = nullptr;
  X509* leaf = nullptr;
  STACK_OF(X509)* others = nullptr;
  const bool opened = filled && PKCS12_parse(filled.get(), password.c_str(), &key, &leaf, &others) == 1;
  const Pkcs12Contents contents{PkeyPointer(key), CertificatePointer(leaf), CertificateStack(others)};
  if (!opened) {
    error = CallError("PFXImportCertStore", kRoutine);
    return false;
  }
  if (contents.key) {
    made.privateKey = pvPkiExportPrivateKey(contents.key.get(), error);
    if (made.privateKey.empty()) return false;
  }
  if (contents.leaf) pvPkiAppendCertContext(contents.leaf.get(), made.certificates);
  for (int i = 0; contents.others && i < sk_X509_num(contents.others.get()); ++i) {
    pvPkiAppendCertContext(sk_X509_value(contents.others.get(), i), made.certificates);
  }
  return true;
}

}  // namespace

bool pvPkiPemImportCertificates(std::string_view fileNames, Identity& identity, CertificateError& error) {
  constexpr std::string_view kRoutine = "pvPkiPemImportCertificates";
  Identity made;
  std::array<SecretBuffer, std::size(kKeyTypes)> keys;  // the first of each type
  std::size_t start = 0;
  while (start <= fileNames.size()) {
    const std::size_t bar = std::min(fileNames.find('|', start), fileNames.size());
    const std::string_view name = fileNames.substr(start, bar - start);
    start = bar + 1;
    const FileText file(name);
    if (file.View().empty()) {
      error = FileError(name, kRoutine);
      return false;
    }
    bool readable = ReadCertificates(file.View(), made.certificates);
    for (std::size_t type = 0; type < keys.size(); ++type) {
      auto blocks = ReadPemBlocks(file.View(), kKeyTypes[type]);
      readable = readable && blocks;
      if (blocks && !blocks->empty() && keys[type].empty()) keys[type] = std::move(blocks->front());
    }
    if (!readable) {
      error = PlatformError("CryptStringToBinary", kRoutine, detail::kInvalidData);
      return false;
    }
  }
  for (SecretBuffer& key : keys) {
    if (made.privateKey.empty()) made.privateKey = std::move(key);
  }
  identity = std::move(made);
  return true;
}

bool pvPkiPkcs12ImportCertificates(std::string_view fileName, std::string_view password, Identity& identity,
                                   CertificateError& error) {
  const FileText file(fileName);
  if (file.View().empty()) {
    error = FileError(fileName, "pvPkiPkcs12ImportCertificates");
    return false;
  }
  std::string text(password);
  Identity made;
  CertificateError legacyError;
  bool opened = OpenPkcs12(file.View(), text, false, made, error);
  if (!opened) {
    made = {};
    opened = OpenPkcs12(file.View(), text, true, made, legacyError);
  }
  platform::WipeMemory(text.data(), text.size());
  if (opened) identity = std::move(made);
  return opened;
}

bool pvPkiPemImportRootCaCertStore(std::string_view fileName, std::shared_ptr<const RootStore>& rootStore,
                                   CertificateError& error) {
  constexpr std::string_view kRoutine = "pvPkiPemImportRootCaCertStore";
  if (fileName.empty()) {
    rootStore.reset();
    return true;
  }
  const FileText file(fileName);
  std::vector<Bytes> certificates;
  if (file.View().empty()) {
    error = FileError(fileName, kRoutine);
    return false;
  }
  if (!ReadCertificates(file.View(), certificates) || certificates.empty()) {
    error = PlatformError("CryptStringToBinary", kRoutine, detail::kInvalidData);
    return false;
  }
  auto made = MakeRootStore(certificates, false);
  if (!made) {
    error = CallError("CertAddEncodedCertificateToStore", kRoutine);
    return false;
  }
  rootStore = std::move(made);
  return true;
}

}  // namespace quenmark::tls
