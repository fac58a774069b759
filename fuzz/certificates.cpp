// PEM text, the certificates in it, host names and chain validation.
#include "tls/certificate_names.h"
#include "tls/certificate_pem.h"
#include "tls/certificate_validation.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

using namespace quenmark::tls;

namespace {

std::vector<Bytes> Certificates(std::string_view text) {
  std::vector<Bytes> certificates;
  if (const auto blocks = ReadPemBlocks(text, kPemCertificate)) {
    for (const auto& block : *blocks) certificates.emplace_back(block.begin(), block.end());
  }
  return certificates;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string_view host = text.substr(0, text.find('\n'));
  if (CoversHost(text.substr(0, 300), "") || CoversHost(host, "10.0.0.1")) std::abort();

  std::vector<Bytes> chain = Certificates(text);
  if (chain.empty()) chain.emplace_back(data, data + size);
  const auto roots = MakeRootStore({}, false);
  for (const bool revocation : {false, true}) {
    ChainCheck check;
    check.request.remoteHostName = host;
    check.request.chain = &chain;
    check.request.rootStore = roots;
    check.request.checkRevocation = revocation;
    check.time = 1'800'000'000;
    check.fetch = [&](const std::string&) { return chain.back(); };
    CertificateError error;
    // Nobody is trusted.
    if (pvPkiCertChainValidate(check, error) || error.number == 0 || error.description.empty()) std::abort();
  }
  return 0;
}
