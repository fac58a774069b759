#include "simulator/vendor_news.h"

#include "simulator/random.h"

#include <fmt/format.h>

#include <array>
#include <string_view>

namespace quenmark::simulator {
namespace {

constexpr std::array<std::string_view, 6> kHeadlines{
    "{} raises its outlook for the year",     "What to expect from {} this week",
    "{} – analysts see “limited” downside",   "Regulators ask {} about its \"pricing\" & fees",
    "{} names a new chief financial officer", "Shares of {} move on heavy volume",
};
constexpr std::array<std::string_view, 4> kSources{"Market Wire", "The Ticker", "Street Notes", "Café Économique"};

}  // namespace

Node VendorNews::Item(std::int64_t id) const {
  std::uint64_t random = static_cast<std::uint64_t>(id) * 0xD1B54A32D192ED03U;
  const auto pick = [&random](std::size_t count) {
    return static_cast<std::size_t>(Draw(random, 0, static_cast<std::int64_t>(count) - 1));
  };
  const std::vector<Stock>& stocks = m_market.Stocks();
  const Instrument& about = stocks[pick(stocks.size())].instrument;
  const Instrument& related = stocks[pick(stocks.size())].instrument;
  const std::string headline = fmt::format(fmt::runtime(kHeadlines.at(pick(kHeadlines.size()))), about.description);
  const std::int64_t time = m_start + (id - kFirstId - m_options.history + 1) * m_options.interval.count();
  Node item = Node::Object();
  item.Add("ts_id", Node::Number(id))
      .Add("category", Node::Text("company"))
      .Add("datetime", Node::Number(time))
      .Add("headline", Node::Text(headline))
      .Add("image", Node::Text(fmt::format("https://news.example.com/images/{}.jpg", id)))
      .Add("related", Node::Text(about.symbol + "," + related.symbol))
      .Add("source", Node::Text(std::string{kSources.at(pick(kSources.size()))}))
      .Add("summary", Node::Text(headline + ".\nThe company did not comment; " + related.description + " fell <1%."))
      .Add("symbol", Node::Text(about.symbol))
      .Add("url", Node::Text(fmt::format("https://news.example.com/{}?from=feed", id)));
  return item;
}

std::string VendorNews::Since(std::int64_t id) {
  const std::int64_t passed = m_market.Now() / 1000 - m_start;
  const std::int64_t newest = kFirstId - 1 + m_options.history + passed / m_options.interval.count();
  std::vector<Node> items;
  for (std::int64_t item = newest; item > id && item >= kFirstId; --item) items.push_back(Item(item));
  Node answer = Node::Object();
  answer.Add("data", Node::List(std::move(items)));
  return ToJson(answer);
}

std::string VendorNews::Odd() {
  const std::int64_t next = kFirstId + m_options.history;
  Node text = Item(next);
  text.values[0] = Node::Text(std::to_string(next));
  text.values[2] = Node::Text(text.values[2].text);
  Node nameless = Node::Object();
  nameless.Add("datetime", Node::Number(m_start)).Add("headline", Node::Text("without an id"));
  Node timeless = Node::Object();
  timeless.Add("ts_id", Node::Number(next)).Add("headline", Node::Null());
  Node answer = Node::Object();
  answer.Add("data",
             Node::List({Item(next), Item(next), text, nameless, Node::Text("no object"), timeless, Node::Null()}));
  return ToJson(answer);
}

}  // namespace quenmark::simulator
