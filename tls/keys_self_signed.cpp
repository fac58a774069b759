#include "platform/code_page.h"
#include "platform/files.h"
#include "platform/socket_api.h"
#include "tls/certificate_library.h"
#include "tls/keys.h"

#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <optional>

namespace quenmark::tls {

using detail::CallError;
using detail::PlatformError;
using platform::Environment;

namespace {

constexpr std::string_view kRoutine = "pvPkiGenerSelfSignedCertificate";
constexpr int kKeyBits = 1024;
constexpr std::int64_t kValidity = 365LL * 86400;  // seconds

std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) quoted.append(c == '"' ? 2 : 1, c);
  return quoted + '"';
}

std::string ComputerName() {
  std::string name = Environment("COMPUTERNAME");
  if (name.empty()) platform::SystemSocketApi().HostName(name);
  return platform::AsciiLower(name);
}

struct NamePart {
  std::string key;
  std::string value;
};

std::string_view Trim(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

// key=value pairs between commas or semicolons; a value may stand in double quotes, doubled inside.
std::optional<std::vector<NamePart>> SplitName(std::string_view text) {
  std::vector<NamePart> parts;
  while (!Trim(text).empty()) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    NamePart part{std::string(Trim(text.substr(0, equals))), {}};
    text = Trim(text.substr(equals + 1));
    if (!text.empty() && text.front() == '"') {
      std::size_t at = 1;
      for (;; ++at) {
        if (at >= text.size()) return std::nullopt;
        if (text[at] == '"' && (at + 1 >= text.size() || text[at + 1] != '"')) break;
        if (text[at] == '"') ++at;
        part.value += text[at];
      }
      text = Trim(text.substr(at + 1));
      if (!text.empty() && text.front() != ',' && text.front() != ';') return std::nullopt;
    } else {
      const std::size_t end = std::min(text.find_first_of(",;"), text.size());
      part.value = Trim(text.substr(0, end));
      text.remove_prefix(end);
    }
    if (!text.empty()) text.remove_prefix(1);
    parts.push_back(std::move(part));
  }
  return parts;
}

bool SetSubject(X509* certificate, std::string_view subject) {
  const auto parts = SplitName(subject);
  if (!parts || parts->empty()) return false;
  X509_NAME* name = X509_get_subject_name(certificate);
  for (const auto& [key, value] : *parts) {
    const int attribute = OBJ_txt2nid(key == "E"   ? LN_pkcs9_emailAddress
                                      : key == "S" ? SN_stateOrProvinceName
                                                   : key.c_str());
    const int type = attribute == NID_countryName                                              ? V_ASN1_PRINTABLESTRING
                     : attribute == NID_pkcs9_emailAddress || attribute == NID_domainComponent ? V_ASN1_IA5STRING
                                                                                               : V_ASN1_UTF8STRING;
    if (attribute == NID_undef ||
        X509_NAME_add_entry_by_NID(name, attribute, type, reinterpret_cast<const unsigned char*>(value.data()),
                                   static_cast<int>(value.size()), -1, 0) != 1) {
      return false;
    }
  }
  return X509_set_issuer_name(certificate, name) == 1;
}

bool SetSerialNumber(X509* certificate) {
  std::array<std::uint8_t, 16> serial{};
  pvTlsGetRandom(serial);
  serial[0] = static_cast<std::uint8_t>((serial[0] & 0x7F) | 0x40);  // positive and of full length
  const std::unique_ptr<BIGNUM, detail::Free<BN_free>> number(
      BN_bin2bn(serial.data(), static_cast<int>(serial.size()), nullptr));
  return number && BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr;
}

}  // namespace

std::string SelfSignedSubject(std::string_view subject) {
  if (subject.substr(0, 3) == "CN=") return std::string(subject);
  std::string name = subject.empty() ? ComputerName() : std::string(subject);
  const std::string domain = Environment("USERDNSDOMAIN");
  if (!domain.empty()) name += "." + domain;
  return "CN=" + Quoted(name) + ",OU=" + Quoted(Environment("USERDOMAIN") + "\\" + Environment("USERNAME")) +
         ",O=" + Quoted("Sockwell Self-Signed Certificate");
}

bool pvPkiGenerSelfSignedCertificate(std::string_view subject, std::int64_t now, Identity& identity,
                                     CertificateError& error) {
  const detail::PkeyPointer key(EVP_RSA_gen(kKeyBits));
  if (!key) {
    error = CallError("CryptGenKey", kRoutine);
    return false;
  }
  const detail::CertificatePointer certificate(X509_new());
  if (!certificate || !SetSubject(certificate.get(), SelfSignedSubject(subject))) {
    ERR_clear_error();
    error = PlatformError("CertStrToNameW", kRoutine, detail::kInvalidData);
    error.source += ".baName";
    return false;
  }
  const bool made =
      X509_set_version(certificate.get(), X509_VERSION_3) == 1 && SetSerialNumber(certificate.get()) &&
      ASN1_TIME_set(X509_getm_notBefore(certificate.get()), static_cast<time_t>(now)) != nullptr &&
      ASN1_TIME_set(X509_getm_notAfter(certificate.get()), static_cast<time_t>(now + kValidity)) != nullptr &&
      X509_set_pubkey(certificate.get(), key.get()) == 1 && X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0;
  if (!made) {
    error = CallError("CertCreateSelfSignCertificate", kRoutine);
    return false;
  }
  Identity result;
  result.privateKey = pvPkiExportPrivateKey(key.get(), error);
  if (result.privateKey.empty()) return false;
  pvPkiAppendCertContext(certificate.get(), result.certificates);
  identity = std::move(result);
  return true;
}

}  // namespace quenmark::tls
