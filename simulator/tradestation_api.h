// The endpoints of the TradeStation provider, relative to their base "/v3/".
#pragma once

#include "simulator/http_message.h"
#include "simulator/quote_stream.h"

#include <string>
#include <string_view>

namespace quenmark::simulator {

class TradeStationApi {
 public:
  // Requests must carry `token` as their bearer token; any token serves when it is empty.
  TradeStationApi(Market& market, SentState& sent, RequestLog& log, StreamOptions options, std::string token);

  static bool IsStream(std::string_view endpoint);
  // Answers a request for `endpoint`, its path without base. `recorded` is false when the answer will not arrive whole;
  // a stream records by itself.
  HttpAnswer Answer(const HttpRequest& request, std::string_view endpoint, bool recorded);
  const StreamCounts& Streams() const { return m_shared.counts; }

 private:
  HttpAnswer Quotes(std::string_view list, bool recorded);
  HttpAnswer Symbols(std::string_view list, bool recorded);
  HttpAnswer Stream(std::string_view list);

  StreamShared m_shared;
  const std::string m_token;
};

// The provider's error body.
HttpAnswer StationErrorAnswer(int status, const std::string& error, const std::string& message);

}  // namespace quenmark::simulator
