#include "simulator/universe.h"

#include <algorithm>
#include <array>
#include <set>
#include <string_view>

namespace quenmark::simulator {
namespace {

struct KnownName {
  std::string_view symbol;
  std::string_view description;
  std::string_view exchange;
  std::string_view type;
};

// Names with "&", "/" and "-" stand early, so that small runs meet them.
constexpr std::array kKnownNames = std::to_array<KnownName>({
    {"AAPL", "Apple Inc", "Q", "stock"},
    {"MSFT", "Microsoft Corporation", "Q", "stock"},
    {"SPY", "SPDR S&P 500", "P", "etf"},
    {"AMZN", "Amazon.com Inc", "Q", "stock"},
    {"GOOG", "Alphabet Inc - Class C", "Q", "stock"},
    {"GOOGL", "Alphabet Inc - Class A", "Q", "stock"},
    {"QQQ", "Invesco QQQ Trust", "Q", "etf"},
    {"NVDA", "NVIDIA Corporation", "Q", "stock"},
    {"META", "Meta Platforms Inc", "Q", "stock"},
    {"TSLA", "Tesla Inc", "Q", "stock"},
    {"IBM", "International Business Machines Corporation", "N", "stock"},
    {"T", "AT&T Inc", "N", "stock"},
    {"KO", "Coca-Cola Co", "N", "stock"},
    {"JPM", "JPMorgan Chase & Company", "N", "stock"},
    {"F", "Ford Motor Company", "N", "stock"},
    {"PFE", "Pfizer Inc", "N", "stock"},
    {"XOM", "Exxon Mobil Corp", "N", "stock"},
    {"INTC", "Intel Corp", "Q", "stock"},
    {"AMD", "Advanced Micro Devices Inc", "Q", "stock"},
    {"BAC", "Bank of America Corp", "N", "stock"},
    {"BRK/B", "Berkshire Hathaway Inc - Class B", "N", "stock"},
    {"BF-B", "Brown-Forman Corp - Class B", "N", "stock"},
    {"DIS", "Walt Disney Company", "N", "stock"},
    {"WMT", "Walmart Inc", "N", "stock"},
    {"IWM", "iShares Russell 2000", "P", "etf"},
});

constexpr std::string_view kConsonants = "BCDFGHJKLMNPQRSTVWXZ";
constexpr std::string_view kVowels = "AEIOU";
constexpr std::size_t kNames = 20UL * 5 * 20 * 20;  // consonant, vowel, consonant, consonant

// The `index`th invented symbol. The stride shares no factor with kNames, so each occurs once and neighbours look
// different.
std::string InventedSymbol(std::size_t index) {
  std::size_t number = index * 10'007 % kNames;
  std::string symbol;
  for (const std::string_view letters : {kConsonants, kVowels, kConsonants, kConsonants}) {
    symbol += letters[number % letters.size()];
    number /= letters.size();
  }
  return symbol;
}

Instrument InventedInstrument(const std::string& symbol, std::size_t index) {
  constexpr std::array<std::string_view, 8> kTrades{"Holdings Inc",     "Energy Corp",    "Bancorp",
                                                    "Therapeutics Inc", "Software Group", "Mining Ltd",
                                                    "Industries & Co.", "Foods Inc"};
  std::string name = symbol;
  std::transform(name.begin() + 1, name.end(), name.begin() + 1,
                 [](char letter) { return static_cast<char>(letter - 'A' + 'a'); });
  return {symbol, name + "on " + std::string{kTrades.at(index % kTrades.size())}, index % 3 == 0 ? "Q" : "N", "stock"};
}

}  // namespace

std::vector<Instrument> Universe(std::size_t count) {
  count = std::min(count, kMaximumSymbols);
  std::vector<Instrument> instruments;
  std::set<std::string, std::less<>> used;
  for (const KnownName& known : kKnownNames) {
    if (instruments.size() == count) return instruments;
    instruments.push_back({std::string{known.symbol}, std::string{known.description}, std::string{known.exchange},
                           std::string{known.type}});
    used.insert(instruments.back().symbol);
  }
  for (std::size_t index = 0; instruments.size() < count && index < kNames; ++index) {
    const std::string symbol = InventedSymbol(index);
    if (!used.contains(symbol)) instruments.push_back(InventedInstrument(symbol, index));
  }
  return instruments;
}

}  // namespace quenmark::simulator
