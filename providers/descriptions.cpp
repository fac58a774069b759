#include "providers/descriptions.h"

#include "platform/code_page.h"
#include "providers/get_between.h"
#include "providers/http_requests.h"
#include "providers/symbol_directory.h"
#include "providers/text_pieces.h"
#include "providers/web_pages.h"

namespace quenmark::providers {
namespace {

constexpr std::string_view kSection = "Descs";

std::string_view BeforeColon(std::string_view symbol) {
  return symbol.substr(0, symbol.find(':'));
}

std::string FromTradier(Context& context, std::string_view symbol) {
  const std::string answer = ApiRequest(context, "markets/lookup?q=" + InQuery(symbol));
  if (RequestFailed(answer)) return {};
  return std::string(GetBetween(answer, R"("description":")", "\""));
}

std::string FromYahoo(Context& context, std::string_view symbol) {
  const std::string query = "?query=" + InQuery(symbol) + "&region=1&lang=en";
  std::string answer = GetPageText(context, context.hosts.yahoo1 + query);
  if (Contains(platform::AsciiLower(answer), "not found")) answer = GetPageText(context, context.hosts.yahoo2 + query);
  return std::string(GetBetween(answer, R"("name":")", "\""));
}

// Reads the part of the symbol's object that stands before its "symbol" key.
std::string FromDirectory(Context& context, std::string_view symbol) {
  LoadSymbolDirectory(context);
  const std::string_view entry = DirectoryEntry(context.symbolDirectory, symbol);
  return std::string(GetBetween(entry.substr(0, entry.find(R"("symbol":")")), R"("description":")", "\""));
}

std::string FromBarchart(Context& context, std::string_view symbol) {
  return GetBarchartName(context, symbol);
}

struct SourceRow {
  std::string_view provider;
  std::string (*ask)(Context& context, std::string_view symbol);
};

constexpr SourceRow kSources[] = {
    {"Tradier", FromTradier},        {"Yahoo! Free API", FromYahoo}, {"Finnhub Stock API", FromDirectory},
    {"Quenmark API", FromDirectory}, {"BarChart", FromBarchart},
};

std::string AskProvider(Context& context, std::string_view symbol, std::string_view providerName) {
  for (const SourceRow& row : kSources) {
    if (row.provider == providerName) return row.ask(context, symbol);
  }
  return {};
}

}  // namespace

std::string GetSymbolDescription(Context& context, std::string_view symbol, std::string_view providerName) {
  symbol = BeforeColon(symbol);
  std::string stored = context.store.GetSetting(context.settingsApp, kSection, symbol);
  if (!stored.empty()) return Contains(stored, "&&") ? stored : ReplaceAll(stored, "&", "&&");

  const std::string description = AskProvider(context, symbol, providerName);
  if (description.empty()) return std::string(symbol);
  std::string doubled = ReplaceAll(description, "&", "&&");
  context.store.SaveSetting(context.settingsApp, kSection, symbol, doubled);
  return doubled;
}

void DescribedSymbols::Refresh(Context& context) {
  const std::uint64_t revision = context.store.SectionRevision(context.settingsApp, kSection);
  if (m_read && revision == m_revision) return;
  const auto entries = context.store.GetAllSettings(context.settingsApp, kSection);
  m_symbols.clear();
  for (const auto& [symbol, description] : entries) {
    if (!description.empty()) m_symbols.insert(platform::AsciiUpper(symbol));
  }
  m_revision = revision;
  m_read = true;
}

bool DescribedSymbols::Has(std::string_view symbol) const {
  return m_symbols.contains(platform::AsciiUpper(BeforeColon(symbol)));
}

}  // namespace quenmark::providers
