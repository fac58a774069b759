// Reads TradeStation's quote stream for a bounded time.
#pragma once

#include "providers/context.h"
#include "providers/quote_scan.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::providers {

// What a read of the stream came to.
struct HttpResult {
  std::string statusLine;          // "[200] OK"; "" when no answer came
  std::vector<std::uint8_t> body;  // all bytes read
  std::int32_t bodyLength = 0;
  std::int32_t statusCode = 0;  // 0 when unknown
  std::string errorText;        // of the failure that ended the request
};

struct StreamTarget {
  bool get = true;  // else POST
  int port = 443;
  bool secure = true;
  std::string host;
  std::string path;
  std::string query;    // GET: appended to the path after "?"; POST: the body
  std::string headers;  // lines, each ended by CR LF
};

struct StreamHooks {
  QuoteScan::Handler onQuote;
  std::function<void()> onTimeUp;  // the read time is used up: read again later
  std::string symbolList;          // what the charts showed at the start; the read ends when that changes
  std::chrono::milliseconds readTime{5000};
};

// Opens the stream and reads it until it ends, its time is up, or the open charts change. Every failure stores
// "ask_new_session" and stands in the result's error text. Keeps the loop alive.
HttpResult StreamRequest(Context& context, const StreamTarget& target, const StreamHooks& hooks);

}  // namespace quenmark::providers
