// The REST endpoints of the Tradier provider, relative to their base ("/v1/" or "/sandbox/v1/").
#pragma once

#include "simulator/event_stream.h"
#include "simulator/http_message.h"
#include "simulator/market.h"
#include "simulator/sent_state.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace quenmark::simulator {

class TradierApi {
 public:
  // Requests must carry `token` as their bearer token; any token serves when it is empty.
  TradierApi(Market& market, SentState& sent, EventShared& events, std::string token);

  // Answers a request for `endpoint`, its path without base. `recorded` is false when the answer will not arrive whole.
  HttpAnswer Answer(const HttpRequest& request, std::string_view endpoint, bool sandbox, bool recorded);

 private:
  HttpAnswer Quotes(const HttpRequest& request, bool recorded);
  HttpAnswer TimeSales(const HttpRequest& request, bool recorded);
  HttpAnswer Clock(const HttpRequest& request, bool recorded);
  HttpAnswer Lookup(const HttpRequest& request, bool recorded);
  HttpAnswer StreamSession(const HttpRequest& request, std::string_view endpoint);

  Market& m_market;
  SentState& m_sent;
  EventShared& m_events;
  const std::string m_token;
  std::uint64_t m_accountSessions = 0;  // handed out
};

// The provider's fault body.
HttpAnswer FaultAnswer(int status, const std::string& text, const std::string& code);

}  // namespace quenmark::simulator
