// Symbol descriptions: asked from the configured provider once and kept in section "Descs" of the settings application.
#pragma once

#include "providers/context.h"

#include <string>
#include <string_view>
#include <unordered_set>

namespace quenmark::providers {

// The description of the symbol (the part before its first ":"), every "&" doubled, or the symbol itself when the
// provider has none; then nothing is stored and the next call asks again.
std::string GetSymbolDescription(Context& context, std::string_view symbol, std::string_view providerName);

// Which symbols have a stored description. The section is read once and again only after it has changed, so that asking
// for thousands of described symbols at every tick costs a lookup each.
class DescribedSymbols {
 public:
  void Refresh(Context& context);
  bool Has(std::string_view symbol) const;

 private:
  std::unordered_set<std::string> m_symbols;  // upper case
  std::uint64_t m_revision = 0;
  bool m_read = false;
};

}  // namespace quenmark::providers
