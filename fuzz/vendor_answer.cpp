// The vendor's quote answer: the first line of the input names the symbols asked for, the rest is the answer. Items are
// whole, wanted and in order, and a cut answer gives a beginning of the same list.
#include "feeder/vendor_quotes.h"
#include "fuzz/offline_feeder.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace quenmark;

std::vector<std::string_view> Scan(std::string_view answer, std::string_view symbols) {
  std::vector<std::string_view> items;
  feeder::ScanVendorAnswer(answer, symbols, [&](std::string_view symbol, std::string_view item) {
    const std::size_t end = static_cast<std::size_t>(item.data() - answer.data()) + item.size();
    const bool whole = end < answer.size() && answer[end] == '|' && item.find('|') == std::string_view::npos;
    const bool wanted = !symbol.empty() && symbols.find(symbol) != std::string_view::npos;
    if (!whole || !wanted || item.substr(0, symbol.size() + 1) != std::string(symbol) + "-") std::abort();
    items.push_back(item);
  });
  return items;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static fuzz::OfflineFeeder offline;
  static feeder::BarBuilder bars("/nonexistent");
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const std::string_view symbols = text.substr(0, text.find('\n'));
  const std::string_view answer = text.substr(std::min(size, symbols.size() + 1));
  const auto items = Scan(answer, symbols);
  const auto cut = Scan(answer.substr(0, answer.size() / 2), symbols);
  if (cut.size() > items.size() || !std::equal(cut.begin(), cut.end(), items.begin())) std::abort();

  offline.store = {};
  for (const std::string_view item : items) {
    const std::string_view symbol = item.substr(0, item.find('-'));
    feeder::TakeVendorItem(offline.context, bars, symbol, item);
    if (offline.store.GetSetting("app", "Feeder", symbol) != item) std::abort();
  }
  return 0;
}
