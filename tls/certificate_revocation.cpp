#include "tls/certificate_revocation.h"

#include <map>

namespace quenmark::tls {

using detail::RevocationListPointer;
using detail::RevocationListStack;

namespace {

using DistributionPoints = std::unique_ptr<CRL_DIST_POINTS, detail::Free<CRL_DIST_POINTS_free>>;

bool IsHttpAddress(std::string_view address) {
  return address.size() <= kMaxRevocationAddress && address.substr(0, 7) == "http://" &&
         address.find('\0') == std::string_view::npos;
}

RevocationListPointer ParseList(BytesView der) {
  const unsigned char* position = der.data();
  return RevocationListPointer(d2i_X509_CRL(nullptr, &position, static_cast<long>(der.size())));
}

}  // namespace

std::vector<std::string> RevocationAddresses(X509* certificate) {
  std::vector<std::string> addresses;
  const DistributionPoints points(
      static_cast<CRL_DIST_POINTS*>(X509_get_ext_d2i(certificate, NID_crl_distribution_points, nullptr, nullptr)));
  for (int p = 0; points && p < sk_DIST_POINT_num(points.get()); ++p) {
    const DIST_POINT_NAME* name = sk_DIST_POINT_value(points.get(), p)->distpoint;
    if (name == nullptr || name->type != 0) continue;  // 0: full names
    for (int n = 0; n < sk_GENERAL_NAME_num(name->name.fullname); ++n) {
      const GENERAL_NAME* entry = sk_GENERAL_NAME_value(name->name.fullname, n);
      if (entry->type != GEN_URI) continue;
      const ASN1_IA5STRING* uri = entry->d.uniformResourceIdentifier;
      std::string address(reinterpret_cast<const char*>(ASN1_STRING_get0_data(uri)),
                          static_cast<std::size_t>(ASN1_STRING_length(uri)));
      if (IsHttpAddress(address)) addresses.push_back(std::move(address));
    }
  }
  return addresses;
}

RevocationListStack FetchRevocationLists(STACK_OF(X509) * path, const FetchRevocationList& fetch) {
  RevocationListStack lists(sk_X509_CRL_new_null());
  std::map<std::string, bool> asked;  // and whether a list came
  for (int i = 0; lists && fetch && i < sk_X509_num(path); ++i) {
    X509* certificate = sk_X509_value(path, i);
    if ((X509_get_extension_flags(certificate) & EXFLAG_SS) != 0) continue;
    // The addresses of one certificate are places of the same list: the first that answers is enough.
    for (const std::string& address : RevocationAddresses(certificate)) {
      const auto [place, isNew] = asked.try_emplace(address, false);
      if (!isNew && place->second) break;
      if (!isNew) continue;
      if (asked.size() > kMaxRevocationFetches) return lists;
      RevocationListPointer list = ParseList(fetch(address));
      if (!list) continue;
      if (sk_X509_CRL_push(lists.get(), list.get()) == 0) return nullptr;
      static_cast<void>(list.release());
      place->second = true;
      break;
    }
  }
  return lists;
}

}  // namespace quenmark::tls
