#include "tls/certificate_names.h"

#include "platform/code_page.h"
#include "tls/certificate_library.h"

#include <algorithm>

namespace quenmark::tls {

namespace {

using GeneralNames = std::unique_ptr<GENERAL_NAMES, detail::Free<GENERAL_NAMES_free>>;

// "*" matches any run of characters, everything else itself.
bool MatchesPattern(std::string_view text, std::string_view pattern) {
  std::size_t at = 0;
  std::size_t in = 0;
  std::size_t star = std::string_view::npos;  // the last "*" met, and where the text stood then
  std::size_t resume = 0;
  while (at < text.size()) {
    if (in < pattern.size() && pattern[in] == '*') {
      star = in++;
      resume = at;
    } else if (in < pattern.size() && pattern[in] == text[at]) {
      ++in;
      ++at;
    } else if (star != std::string_view::npos) {
      in = star + 1;
      at = ++resume;
    } else {
      return false;
    }
  }
  return std::all_of(pattern.begin() + static_cast<std::ptrdiff_t>(in), pattern.end(), [](char c) { return c == '*'; });
}

bool IsAddress(std::string_view host) {
  return host.find(':') != std::string_view::npos || host.find_first_not_of("0123456789.") == std::string_view::npos;
}

}  // namespace

bool CoversHost(std::string_view dnsName, std::string_view host) {
  if (host.empty() || IsAddress(host)) return false;
  const std::string entry = platform::AsciiLower(dnsName);
  const std::string name = platform::AsciiLower(host);
  if (entry.empty() || entry.front() != '*') return entry == name || entry == "www." + name;
  return MatchesPattern(name, entry) && !MatchesPattern(name, "*." + entry);
}

HostMatch MatchHost(const std::vector<Bytes>& certificates, std::string_view host) {
  for (std::size_t i = 0; i < certificates.size(); ++i) {
    const auto certificate = detail::ParseCertificate(certificates[i]);
    if (!certificate) continue;
    int found = 0;
    const GeneralNames names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate.get(), NID_subject_alt_name, &found, nullptr)));
    if (!names) {
      if (found == -1) continue;
      ERR_clear_error();
      return HostMatch::kUnreadable;
    }
    for (int n = 0; n < sk_GENERAL_NAME_num(names.get()); ++n) {
      const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), n);
      if (name->type != GEN_DNS) continue;
      const auto* text = reinterpret_cast<const char*>(ASN1_STRING_get0_data(name->d.dNSName));
      const auto size = static_cast<std::size_t>(ASN1_STRING_length(name->d.dNSName));
      if (CoversHost({text, size}, host)) return i == 0 ? HostMatch::kFirst : HostMatch::kNone;
    }
  }
  return HostMatch::kNone;
}

}  // namespace quenmark::tls
