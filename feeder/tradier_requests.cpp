#include "feeder/tradier_requests.h"

#include "providers/http_requests.h"
#include "providers/text_pieces.h"

namespace quenmark::feeder {

std::string SnapshotPath(std::string_view symbols) {
  return std::string("markets/quotes?symbols=").append(providers::InQuery(symbols)).append("&greeks=false");
}

std::string MinuteBarsPath(std::string_view symbol, std::string_view start) {
  std::string path("markets/timesales?symbol=");
  path.append(providers::InQuery(symbol)).append("&interval=1min&start=").append(start).append("&session_filter=all");
  return path;
}

std::string_view NewestBar(std::string_view answer) {
  if (providers::RequestFailed(answer)) return {};
  return providers::AfterLast(answer, R"("time")");
}

}  // namespace quenmark::feeder
