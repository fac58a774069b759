// The symbols open in the charts, as section "GrafAbertPapel" of the settings application lists them.
#pragma once

#include "providers/context.h"

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace quenmark::providers {

// The list in its text form (each symbol as double quote, symbol, double quote, comma, run together) and as symbols.
// Each symbol appears once, in stored order. An empty value, or one that holds a double quote or a comma, is no symbol.
class OpenSymbols {
 public:
  // Reads the section when it has changed since the last call.
  void Rebuild(Context& context);

  const std::string& Text() const { return m_text; }
  const std::vector<std::string>& Symbols() const { return m_symbols; }

 private:
  std::string m_text;
  std::vector<std::string> m_symbols;
  std::uint64_t m_revision = 0;
  bool m_read = false;
};

// The symbols of such a text joined by ",": without its double quotes and its last comma.
std::string JoinedSymbols(std::string_view listText);

// Deletes every entry whose value equals the symbol (ASCII case ignored). An empty symbol removes nothing.
void RemoveOpenChart(Context& context, std::string_view symbol);

}  // namespace quenmark::providers
