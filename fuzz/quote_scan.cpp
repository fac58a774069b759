// Feeds a stream text to the quote scan in pieces whose sizes the input chooses, and again whole: both give the same
// quotes.
#include "providers/quote_scan.h"

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>

namespace {

using quenmark::providers::QuoteScan;
using quenmark::providers::StreamQuote;

struct Collector {
  std::string text;
  void operator()(const StreamQuote& quote) {
    for (const std::string_view value : {quote.symbol, quote.last, quote.tradeTime, quote.bid, quote.bidSize, quote.ask,
                                         quote.askSize, std::string_view(quote.hasBook ? "book" : "")}) {
      text.append(value).append("|");
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t step = data[0] % 64 + 1u;
  const std::string text(data + 1, data + size);
  Collector whole;
  QuoteScan atOnce(std::ref(whole));
  atOnce.Feed(text);
  Collector cut;
  QuoteScan pieces(std::ref(cut));
  for (std::size_t at = 0; at < text.size(); at += step) pieces.Feed(std::string_view(text).substr(at, step));
  if (whole.text != cut.text) std::abort();
  return 0;
}
