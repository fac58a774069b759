// The vendor's own endpoints, at the root of the server.
#pragma once

#include "simulator/event_stream.h"
#include "simulator/http_message.h"
#include "simulator/market.h"
#include "simulator/sent_state.h"
#include "simulator/vendor_news.h"

#include <optional>

namespace quenmark::simulator {

class VendorApi {
 public:
  // Everything referred to must outlive it.
  VendorApi(Market& market, SentState& sent, EventShared& events, const NewsOptions& news)
      : m_market(market), m_sent(sent), m_events(events), m_news(market, news) {}

  // Nothing when the path is not the vendor's. `recorded` is false when the answer will not arrive whole, `odd` asks
  // for content that no reader expects.
  std::optional<HttpAnswer> Answer(const HttpRequest& request, bool recorded, bool odd);

 private:
  HttpAnswer TimeZone();
  HttpAnswer SymbolList() const;
  HttpAnswer Quotes(const HttpRequest& request, bool recorded, bool odd);
  HttpAnswer News(const HttpRequest& request, bool odd);
  HttpAnswer Icon(const HttpRequest& request) const;

  Market& m_market;
  SentState& m_sent;
  EventShared& m_events;
  VendorNews m_news;
};

}  // namespace quenmark::simulator
