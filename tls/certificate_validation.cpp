#include "tls/certificate_validation.h"

#include "tls/certificate_library.h"
#include "tls/certificate_names.h"
#include "tls/certificate_revocation.h"
#include "tls/error.h"

#include <algorithm>
#include <ctime>

namespace quenmark::tls {

using namespace trust_error;
using detail::CallError;
using detail::CertificatePointer;
using detail::CertificateReferences;
using detail::CertificateStack;

namespace {

constexpr std::string_view kRoutine = "pvPkiCertChainValidate";
constexpr int kMaxIntermediates = 16;
constexpr int kSecurityLevel = 1;  // RSA from 1024 bits, elliptic curves from 160, digests stronger than SHA-1

struct VerdictBit {
  int verdict;
  std::uint32_t bit;
};

// The library's verdicts. One that is missing here counts as an extension that cannot be judged, so the chain fails.
constexpr VerdictBit kVerdictBits[] = {
    {X509_V_ERR_CERT_NOT_YET_VALID, kTime},
    {X509_V_ERR_CERT_HAS_EXPIRED, kTime},
    {X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD, kTime},
    {X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD, kTime},
    {X509_V_ERR_CERT_REVOKED, kRevoked},
    {X509_V_ERR_CERT_SIGNATURE_FAILURE, kSignature},
    {X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE, kSignature},
    {X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY, kSignature},
    {X509_V_ERR_SIGNATURE_ALGORITHM_MISMATCH, kSignature},
    {X509_V_ERR_SIGNATURE_ALGORITHM_INCONSISTENCY, kSignature},
    {X509_V_ERR_UNSUPPORTED_SIGNATURE_ALGORITHM, kSignature},
    {X509_V_ERR_INVALID_PURPOSE, kUsage},
    {X509_V_ERR_KEYUSAGE_NO_CERTSIGN, kUsage},
    {X509_V_ERR_KEYUSAGE_NO_DIGITAL_SIGNATURE, kUsage},
    {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, kUntrustedRoot},
    {X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, kUntrustedRoot},
    {X509_V_ERR_CERT_UNTRUSTED, kUntrustedRoot},
    {X509_V_ERR_CERT_REJECTED, kUntrustedRoot},
    {X509_V_ERR_UNABLE_TO_GET_CRL, kRevocationUnknown},
    {X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER, kRevocationUnknown},
    {X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE, kRevocationUnknown},
    {X509_V_ERR_CRL_SIGNATURE_FAILURE, kRevocationUnknown},
    {X509_V_ERR_CRL_NOT_YET_VALID, kRevocationUnknown},
    {X509_V_ERR_CRL_HAS_EXPIRED, kRevocationUnknown},
    {X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD, kRevocationUnknown},
    {X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD, kRevocationUnknown},
    {X509_V_ERR_KEYUSAGE_NO_CRL_SIGN, kRevocationUnknown},
    {X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION, kRevocationUnknown},
    {X509_V_ERR_DIFFERENT_CRL_SCOPE, kRevocationUnknown},
    {X509_V_ERR_CRL_PATH_VALIDATION_ERROR, kRevocationUnknown},
    {X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION, kExtension},
    {X509_V_ERR_INVALID_EXTENSION, kExtension},
    {X509_V_ERR_INVALID_CA, kBasicConstraints},
    {X509_V_ERR_INVALID_NON_CA, kBasicConstraints},
    {X509_V_ERR_PATH_LENGTH_EXCEEDED, kBasicConstraints},
    {X509_V_ERR_PERMITTED_VIOLATION, kNameConstraints},
    {X509_V_ERR_EXCLUDED_VIOLATION, kNameConstraints},
    {X509_V_ERR_SUBTREE_MINMAX, kNameConstraints},
    {X509_V_ERR_UNSUPPORTED_CONSTRAINT_TYPE, kNameConstraints},
    {X509_V_ERR_UNSUPPORTED_CONSTRAINT_SYNTAX, kNameConstraints},
    {X509_V_ERR_UNSUPPORTED_NAME_SYNTAX, kNameConstraints},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, kIncomplete},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, kIncomplete},
    {X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE, kIncomplete},
    {X509_V_ERR_CERT_CHAIN_TOO_LONG, kIncomplete},
    {X509_V_ERR_EE_KEY_TOO_SMALL, kWeak},
    {X509_V_ERR_CA_KEY_TOO_SMALL, kWeak},
    {X509_V_ERR_CA_MD_TOO_WEAK, kWeak},
};

struct ErrorSentence {
  std::uint32_t bit;
  std::string_view text;
};

// In the order in which they are looked at.
constexpr ErrorSentence kErrorSentences[] = {
    {kRevoked, "Trust for this certificate or one of the certificates in the certificate chain has been revoked"},
    {kIncomplete, "The certificate chain is not complete"},
    {kUntrustedRoot, "The certificate or certificate chain is based on an untrusted root"},
    {kTime, "The certificate has expired"},
    {kRevocationUnknown,
     "The revocation status of the certificate or one of the certificates in the certificate chain is unknown"},
};

class ParsedRoots final : public RootStore {
 public:
  ParsedRoots() : store(X509_STORE_new()) {}

  bool Holds(X509* certificate) const {
    return std::any_of(roots.begin(), roots.end(),
                       [&](const CertificatePointer& root) { return X509_cmp(root.get(), certificate) == 0; });
  }

  detail::StorePointer store;
  std::vector<CertificatePointer> roots;
};

const ParsedRoots& Parsed(const RootStore& roots) {
  return static_cast<const ParsedRoots&>(roots);  // MakeRootStore is the only maker
}

// An issuer that may not sign certificates still closes the path: its fault is the usage, not a missing issuer.
int CheckIssued(X509_STORE_CTX*, X509* subject, X509* issuer) {
  const int verdict = X509_check_issued(issuer, subject);
  return verdict == X509_V_OK || verdict == X509_V_ERR_KEYUSAGE_NO_CERTSIGN ? 1 : 0;
}

struct Verdict {
  int code = 0;
  int depth = 0;
  bool selfSigned = false;
  bool authority = false;  // basic constraints make it a certification authority
};

using Verdicts = std::vector<Verdict>;

// Notes a verdict and lets the check go on, so that all are met.
int NoteVerdict(int ok, X509_STORE_CTX* context) {
  if (ok == 1) return 1;
  auto& verdicts = *static_cast<Verdicts*>(X509_STORE_CTX_get_app_data(context));
  Verdict verdict{X509_STORE_CTX_get_error(context), X509_STORE_CTX_get_error_depth(context)};
  if (X509* certificate = X509_STORE_CTX_get_current_cert(context)) {
    const std::uint32_t flags = X509_get_extension_flags(certificate);
    verdict.selfSigned = (flags & EXFLAG_SS) != 0;
    verdict.authority = (flags & EXFLAG_CA) != 0;
  }
  verdicts.push_back(verdict);
  return 1;
}

std::uint32_t BitOf(const Verdict& verdict) {
  // The library's word for two faults: no authority, or one whose key usage forbids signing certificates.
  if (verdict.code == X509_V_ERR_INVALID_CA && verdict.authority) return kUsage;
  // An issuer that is no authority has no purpose either.
  if (verdict.code == X509_V_ERR_INVALID_PURPOSE && verdict.depth > 0 && !verdict.authority) return kBasicConstraints;
  const auto* found = std::find_if(std::begin(kVerdictBits), std::end(kVerdictBits),
                                   [&](const VerdictBit& entry) { return entry.verdict == verdict.code; });
  return found != std::end(kVerdictBits) ? found->bit : kExtension;
}

struct BuiltPath {
  CertificateStack certificates;  // end-entity first
  Verdicts verdicts;
};

// One run over the path; with revocation lists, also whether its certificates are revoked. False when the library
// could not run it.
bool BuildPath(const ChainCheck& check, const ParsedRoots& roots, X509* leaf, STACK_OF(X509) * others,
               STACK_OF(X509_CRL) * revocationLists, BuiltPath& path) {
  const std::unique_ptr<X509_STORE_CTX, detail::Free<X509_STORE_CTX_free>> context(X509_STORE_CTX_new());
  if (!context || X509_STORE_CTX_init(context.get(), roots.store.get(), leaf, others) != 1) return false;
  const bool server = check.request.usage == PeerUsage::kServer;
  X509_VERIFY_PARAM* parameters = X509_STORE_CTX_get0_param(context.get());
  X509_STORE_CTX_set_app_data(context.get(), &path.verdicts);
  X509_STORE_CTX_set_verify_cb(context.get(), NoteVerdict);
  X509_VERIFY_PARAM_set_time(parameters, static_cast<time_t>(check.time));
  X509_VERIFY_PARAM_set_depth(parameters, kMaxIntermediates);
  X509_VERIFY_PARAM_set_auth_level(parameters, kSecurityLevel);
  X509_VERIFY_PARAM_set_flags(parameters, X509_V_FLAG_TRUSTED_FIRST);
  if (revocationLists != nullptr) {
    X509_STORE_CTX_set0_crls(context.get(), revocationLists);
    X509_VERIFY_PARAM_set_flags(parameters, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
  }
  if (X509_STORE_CTX_set_purpose(context.get(), server ? X509_PURPOSE_SSL_SERVER : X509_PURPOSE_SSL_CLIENT) != 1) {
    return false;
  }
  const int result = X509_verify_cert(context.get());
  if (result < 0 || (result == 0 && path.verdicts.empty())) return false;
  path.certificates.reset(X509_STORE_CTX_get1_chain(context.get()));
  return path.certificates != nullptr && sk_X509_num(path.certificates.get()) > 0;
}

std::uint32_t StatusOf(const BuiltPath& path, const RootStore* ownRoots) {
  const int last = sk_X509_num(path.certificates.get()) - 1;
  X509* root = sk_X509_value(path.certificates.get(), last);
  const bool rootIsLoaded = ownRoots != nullptr && Parsed(*ownRoots).Holds(root);
  std::uint32_t status = 0;
  for (const Verdict& verdict : path.verdicts) {
    const std::uint32_t bit = BitOf(verdict);
    const bool ofRoot = verdict.selfSigned && verdict.depth == last;
    // A root has nobody above it who could revoke it.
    if (ofRoot && bit == kRevocationUnknown) continue;
    if (rootIsLoaded && (bit == kUntrustedRoot || (ofRoot && bit == kSignature))) continue;
    status |= bit;
  }
  return status;
}

bool Fail(CertificateError& error, std::string description) {
  error = {kEngineError, std::move(description), fmt::format("cTlsSocket.{}", kRoutine)};
  return false;
}

bool FailCall(CertificateError& error, std::string_view call) {
  error = CallError(call, kRoutine);
  return false;
}

bool ValidatePath(const ChainCheck& check, const std::vector<CertificatePointer>& chain, CertificateError& error) {
  const RootStore* roots = check.request.rootStore ? check.request.rootStore.get() : check.systemRoots;
  if (roots == nullptr) return FailCall(error, "CertCreateCertificateChainEngine");
  const CertificateReferences others(sk_X509_new_null());
  for (const CertificatePointer& certificate : chain) {
    if (!others || sk_X509_push(others.get(), certificate.get()) == 0) return FailCall(error, "CertOpenStore");
  }
  BuiltPath path;
  if (!BuildPath(check, Parsed(*roots), chain.front().get(), others.get(), nullptr, path)) {
    return FailCall(error, "CertGetCertificateChain");
  }
  if (check.request.checkRevocation) {
    const auto lists = FetchRevocationLists(path.certificates.get(), check.fetch);
    BuiltPath checked;
    if (!lists || !BuildPath(check, Parsed(*roots), chain.front().get(), others.get(), lists.get(), checked)) {
      return FailCall(error, "CertGetCertificateChain");
    }
    path = std::move(checked);
  }
  ERR_clear_error();
  const std::uint32_t status = StatusOf(path, check.request.rootStore.get());
  return status == 0 || Fail(error, TrustErrorText(status));
}

}  // namespace

std::shared_ptr<const RootStore> MakeRootStore(const std::vector<Bytes>& certificates, bool skipUnreadable) {
  auto roots = std::make_shared<ParsedRoots>();
  if (!roots->store) return nullptr;
  X509_STORE_set_check_issued(roots->store.get(), CheckIssued);
  for (const Bytes& der : certificates) {
    CertificatePointer certificate = detail::ParseCertificate(der);
    if (!certificate || X509_STORE_add_cert(roots->store.get(), certificate.get()) != 1) {
      if (!skipUnreadable) return nullptr;
      ERR_clear_error();
      continue;
    }
    roots->roots.push_back(std::move(certificate));
  }
  return roots;
}

std::size_t RootCount(const RootStore& roots) {
  return Parsed(roots).roots.size();
}

std::string TrustErrorText(std::uint32_t status) {
  for (const ErrorSentence& sentence : kErrorSentences) {
    if ((status & sentence.bit) != 0) return std::string(sentence.text);
  }
  return fmt::format("Unknown CertGetCertificateChain error mask (&H{:X})", status);
}

bool pvPkiCertChainValidate(const ChainCheck& check, CertificateError& error) {
  if (check.request.chain == nullptr || check.request.chain->empty()) {
    return Fail(error, "No server certificate found");
  }
  std::vector<CertificatePointer> chain;
  for (const Bytes& der : *check.request.chain) {
    chain.push_back(detail::ParseCertificate(der));
    if (!chain.back()) return FailCall(error, "CertAddEncodedCertificateToStore");
  }
  if (check.request.usage == PeerUsage::kServer) {
    switch (MatchHost(*check.request.chain, check.request.remoteHostName)) {
      case HostMatch::kFirst:
        break;
      case HostMatch::kNone:
        return Fail(error, "No certificate subject name matches target host name");
      case HostMatch::kUnreadable:
        return FailCall(error, "CryptDecodeObjectEx(szOID_SUBJECT_ALT_NAME2)");
    }
  }
  return ValidatePath(check, chain, error);
}

}  // namespace quenmark::tls
