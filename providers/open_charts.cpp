#include "providers/open_charts.h"

#include "platform/code_page.h"
#include "providers/text_pieces.h"

namespace quenmark::providers {

void OpenSymbols::Rebuild(Context& context) {
  const std::uint64_t revision = context.store.SectionRevision(context.settingsApp, kOpenChartsSection);
  if (m_read && revision == m_revision) return;
  const auto entries = context.store.GetAllSettings(context.settingsApp, kOpenChartsSection);
  m_text.clear();
  m_symbols.clear();
  std::unordered_set<std::string_view> seen;  // views into `entries`
  for (const auto& [chart, symbol] : entries) {
    if (symbol.empty() || symbol.find_first_of("\",") != std::string::npos || !seen.insert(symbol).second) continue;
    m_text.append(1, '"').append(symbol).append("\",");
    m_symbols.push_back(symbol);
  }
  m_revision = revision;
  m_read = true;
}

std::string JoinedSymbols(std::string_view listText) {
  if (!listText.empty()) listText.remove_suffix(1);
  return WithoutCharacters(listText, "\"");
}

void RemoveOpenChart(Context& context, std::string_view symbol) {
  if (symbol.empty()) return;
  for (const auto& [chart, value] : context.store.GetAllSettings(context.settingsApp, kOpenChartsSection)) {
    if (platform::EqualsIgnoreAsciiCase(value, symbol)) {
      context.store.DeleteSetting(context.settingsApp, kOpenChartsSection, chart);
    }
  }
}

}  // namespace quenmark::providers
