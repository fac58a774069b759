// From a request to its answer: faults, provider endpoints, control endpoints and the log.
#pragma once

#include "simulator/event_stream.h"
#include "simulator/faults.h"
#include "simulator/http_message.h"
#include "simulator/market.h"
#include "simulator/request_log.h"
#include "simulator/sent_state.h"
#include "simulator/tradestation_api.h"
#include "simulator/tradier_api.h"
#include "simulator/vendor_api.h"

#include <optional>
#include <string>
#include <vector>

namespace quenmark::simulator {

enum class Provider { kTradier, kTradeStation, kVendor };
// "tradier", "tradestation" or "vendor"; nothing for other texts.
std::optional<Provider> ParseProvider(std::string_view text);

struct ServiceOptions {
  MarketOptions market;
  StreamOptions streams;
  EventOptions events;
  NewsOptions news;
  std::optional<Provider> provider;  // the only one that is served, the vendor beside it; all when empty
  std::vector<Fault> faults;
  std::string logFile;  // none when empty
  std::string token;    // any when empty
  bool gzip = false;    // compress answers for clients that ask for it
};

class Service {
 public:
  // Throws std::runtime_error when the log file cannot be opened or there are more faults than FaultList takes.
  explicit Service(const ServiceOptions& options);

  // The fault that hits this request, counted down. Its delay is for the caller to wait before Answer or Abandon.
  std::optional<Fault> Begin(const HttpRequest& request);
  HttpAnswer Answer(const HttpRequest& request, const std::optional<Fault>& fault);
  // The client left before its answer was made.
  void Abandon(const HttpRequest& request, const std::optional<Fault>& fault);

 private:
  bool Serves(Provider provider) const { return !m_provider || *m_provider == provider; }
  // The path below TradeStation's base; nothing for other paths.
  std::optional<std::string_view> StationEndpoint(const HttpRequest& request) const;
  // It asks for the market-events stream.
  bool IsEvents(const HttpRequest& request) const;
  HttpAnswer Route(const HttpRequest& request, bool recorded, bool odd);
  HttpAnswer Control(const HttpRequest& request);
  HttpAnswer State();
  bool ApplyFault(const std::string& text);
  bool ApplyRate(const std::string& text);
  bool ApplyPrice(const std::string& text);

  Market m_market;
  SentState m_sent;
  EventShared m_events;
  FaultList m_faults;
  RequestLog m_log;
  TradierApi m_tradier;
  TradeStationApi m_tradeStation;
  VendorApi m_vendor;
  const std::optional<Provider> m_provider;
  const bool m_gzip;
};

}  // namespace quenmark::simulator
