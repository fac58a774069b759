// The vendor's own endpoints, at the root of the server.
#pragma once

#include "simulator/http_message.h"
#include "simulator/market.h"

#include <optional>

namespace quenmark::simulator {

class VendorApi {
 public:
  explicit VendorApi(Market& market) : m_market(market) {}

  // Nothing when the path is not the vendor's.
  std::optional<HttpAnswer> Answer(const HttpRequest& request);

 private:
  HttpAnswer TimeZone();
  HttpAnswer SymbolList() const;

  Market& m_market;
};

}  // namespace quenmark::simulator
