// From a request to its answer: faults, provider endpoints, control endpoints and the log.
#pragma once

#include "simulator/faults.h"
#include "simulator/http_message.h"
#include "simulator/market.h"
#include "simulator/request_log.h"
#include "simulator/sent_state.h"
#include "simulator/tradier_api.h"
#include "simulator/vendor_api.h"

#include <optional>
#include <string>
#include <vector>

namespace quenmark::simulator {

struct ServiceOptions {
  MarketOptions market;
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
  HttpAnswer Route(const HttpRequest& request, bool recorded);
  HttpAnswer Control(const HttpRequest& request);
  HttpAnswer State();
  bool ApplyFault(const std::string& text);
  bool ApplyPrice(const std::string& text);

  Market m_market;
  SentState m_sent;
  FaultList m_faults;
  RequestLog m_log;
  TradierApi m_tradier;
  VendorApi m_vendor;
  const bool m_gzip;
};

}  // namespace quenmark::simulator
