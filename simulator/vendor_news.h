// The vendor's news: a history at start, then a new item at every interval. Items repeat with the market's seed and
// clock.
#pragma once

#include "simulator/answer_tree.h"
#include "simulator/market.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace quenmark::simulator {

struct NewsOptions {
  std::int64_t history = 60;  // items at start
  std::chrono::seconds interval{20};
};

class VendorNews {
 public:
  static constexpr std::int64_t kFirstId = 1'001;

  VendorNews(Market& market, const NewsOptions& options)
      : m_market(market), m_options(options), m_start(market.Now() / 1000) {}

  // {"data":[...]}: the items with ids above `id`, the newest first.
  std::string Since(std::int64_t id);
  // Items that no reader expects: ids that are equal, text or missing, times as text, an element that is no object.
  std::string Odd();

 private:
  Node Item(std::int64_t id) const;

  Market& m_market;
  const NewsOptions m_options;
  const std::int64_t m_start;  // seconds since 1970 UTC
};

}  // namespace quenmark::simulator
