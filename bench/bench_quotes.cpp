// The quote scan over stream bodies of growing size, and the bar update with growing numbers of symbols.
#include "feeder/bar_builder.h"
#include "providers/quote_scan.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::bench {
namespace {

constexpr std::size_t kPiece = 512;  // bytes, as the stream is read

std::string StreamBody(std::size_t size) {
  std::string body;
  for (int i = 0; body.size() < size; ++i) {
    body +=
        R"({"Symbol":"SYM)" + std::to_string(i % 50) + R"(","Open":"340.64","High":"349.05","Low":"337.72",)" +
        R"("PreviousClose":"337.32","Last":"346.)" + std::to_string(i % 90 + 10) +
        R"(","Ask":"346.36","AskSize":"40","Bid":"346","BidSize":"80","Volume":"23212592","Restrictions":[],)" +
        R"("TradeTime":"2026-09-30T20:21:49Z","MarketFlags":{"IsDelayed":false,"IsHalted":false},"LastSize":"125"})" +
        "\r\n";
  }
  return body;
}

std::size_t Occurrences(std::string_view text, std::string_view part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

void ScanInPieces(benchmark::State& state) {
  const std::string body = StreamBody(static_cast<std::size_t>(state.range(0)) * 1024);
  const std::size_t expected = Occurrences(body, "\"Symbol\"");
  for (auto unused : state) {
    std::size_t quotes = 0;
    providers::QuoteScan scan([&quotes](const providers::StreamQuote& quote) { quotes += quote.hasBook ? 1 : 0; });
    for (std::size_t at = 0; at < body.size(); at += kPiece) scan.Feed(std::string_view(body).substr(at, kPiece));
    if (quotes != expected) state.SkipWithError("quotes were lost");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(body.size()));
}
BENCHMARK(ScanInPieces)->Arg(256)->Arg(512)->Arg(1024)->Arg(2048);

// What no scan can beat: every byte of the body copied and compared once.
void CopyAndCompare(benchmark::State& state) {
  const std::string body = StreamBody(static_cast<std::size_t>(state.range(0)) * 1024);
  std::string copy(body.size(), '\0');
  for (auto unused : state) {
    std::memcpy(copy.data(), body.data(), body.size());
    benchmark::DoNotOptimize(std::memchr(copy.data(), 0, copy.size()));
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(body.size()));
}
BENCHMARK(CopyAndCompare)->Arg(1024);

// Without files: the folder does not exist.
void UpdateBars(benchmark::State& state) {
  feeder::BarBuilder bars("/nonexistent");
  const int symbols = static_cast<int>(state.range(0));
  std::vector<std::string> names;
  for (int i = 0; i < symbols; ++i) names.push_back("SYM" + std::to_string(i) + "/");  // a "/" keeps it off the disk
  std::size_t turn = 0;
  for (auto unused : state) {
    bars.Update(names[turn % names.size()], 100 + static_cast<double>(turn % 7) / 4,
                turn / names.size() % 2 == 0 ? "20240102093005" : "20240102093105");
    ++turn;
  }
  if (bars.Buffer().find("(SYM0/)") == std::string::npos) state.SkipWithError("no bars");
}
BENCHMARK(UpdateBars)->Arg(10)->Arg(100)->Arg(1000)->Arg(10000);

}  // namespace
}  // namespace quenmark::bench

BENCHMARK_MAIN();
