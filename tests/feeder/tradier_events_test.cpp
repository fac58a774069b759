#include "feeder/tradier_events.h"

#include "tests/support/feeder_fixture.h"

#include <fmt/format.h>

#include <string>
#include <string_view>

namespace quenmark::test {
namespace {

constexpr std::string_view kStored = "QQQ-313-1.00-310-314-309-1000-1-1-20201231162157";

// 1609447718210 ms is 16:48:38 on 31 December 2020 in the fixture's zone, 240 minutes west.
std::string Timesale(std::string_view symbol, std::string_view last, std::string_view size = "110",
                     std::string_view date = "1609447718210") {
  return fmt::format(R"({{"type":"timesale","symbol":"{}","exch":"X","bid":"313.06","ask":"313.07","last":"{}",)"
                     R"("size":"{}","date":"{}","seq":172047,"flag":"@","cancel":false,"session":"normal"}})",
                     symbol, last, size, date);
}

class StreamEvents : public FeederFixture {
 protected:
  // The record after one event on a stored record and previous close.
  std::string After(const std::string& event, std::string_view stored = kStored, std::string_view close = "310") {
    store->DeleteSection(context.settingsApp, "Feeder");
    if (!stored.empty()) SetFeeder("QQQ", stored);
    if (!close.empty()) SetFeeder("QQQ-pc", close);
    events.HandleStreamEvent(event);
    return Feeder("QQQ");
  }

  feeder::TradierEvents events{context};
};

TEST_F(StreamEvents, TradesBecomeQuoteRecords) {
  const std::string same = "QQQ-1-m2-3-4-5-6-1-1-20201231164838";
  const std::string later = "QQQ-1-m2-3-4-5-6-1-1-20201231164839";
  const struct {
    const char* what;
    std::string event;
    std::string_view stored, close;
    std::string expected;
  } cases[] = {
      {"as sent", Timesale("QQQ", "313.06"), kStored, "310", "QQQ-313.06-0.99-310-314-309-1110-1-1-20201231164838"},
      {"lower case", Timesale("qqq", "313.06"), kStored, "310", "QQQ-313.06-0.99-310-314-309-1110-1-1-20201231164838"},
      {"new high", Timesale("QQQ", "315.50"), kStored, "310", "QQQ-315.5-1.77-310-315.5-309-1110-1-1-20201231164838"},
      {"new low", Timesale("QQQ", "300"), kStored, "310", "QQQ-300-m3.23-310-314-300-1110-1-1-20201231164838"},
      {"seconds", Timesale("QQQ", "313", "1", "1609447718"), kStored, "310",
       "QQQ-313-0.97-310-314-309-1001-1-1-20201231164838"},
      {"no close", Timesale("QQQ", "313.06"), kStored, "", "QQQ-313.06-1.00-310-314-309-1110-1-1-20201231164838"},
      {"close 0", Timesale("QQQ", "313.06"), kStored, "0", "QQQ-313.06-1.00-310-314-309-1110-1-1-20201231164838"},
      {"change out of range", Timesale("QQQ", "10000000000"), kStored, "1e-300",
       "QQQ-10000000000-1.00-310-10000000000-309-1110-1-1-20201231164838"},
      {"odd size", Timesale("QQQ", "313.06", "many"), kStored, "310",
       "QQQ-313.06-0.99-310-314-309-1000-1-1-20201231164838"},
      {"stored low 0", Timesale("QQQ", "5"), "QQQ-4-0-4-4-0-1-1-1-20201231162157", "4",
       "QQQ-5-25.00-4-5-0-111-1-1-20201231164838"},
      {"nothing stored", Timesale("QQQ", "5"), "", "4", "QQQ-5-25.00--5--110-1-1-20201231164838"},
      {"same second", Timesale("QQQ", "313.06"), same, "310", same},
      {"older", Timesale("QQQ", "313.06"), later, "310", later},
      {"no number, same second", Timesale("QQQ", "halted"), same, "310", "QQQ-1-m2-3-4-5-116-1-1-20201231164838"},
      {"no number, older", Timesale("QQQ", "halted"), later, "310", later},
      {"no number, nothing stored", Timesale("QQQ", "halted"), "", "310", ""},
      {"negative price", Timesale("QQQ", "-1"), kStored, "310", std::string(kStored)},
      {"negative volume", Timesale("QQQ", "1", "-5000"), kStored, "310", std::string(kStored)},
      {"no date", Timesale("QQQ", "1", "1", ""), kStored, "310", std::string(kStored)},
      {"odd date", Timesale("QQQ", "1", "1", "soon"), kStored, "310", std::string(kStored)},
      {"trade", R"({"type":"trade","symbol":"QQQ","price":"1","size":"1","date":"1609447718210","last":"1"})", kStored,
       "310", std::string(kStored)},
      {"cut off", Timesale("QQQ", "1").substr(0, 120), kStored, "310", std::string(kStored)},
      {"two events", Timesale("QQQ", "313.06") + "\n" + Timesale("QQQ", "1", "1", "1609447720000"), kStored, "310",
       "QQQ-313.06-0.99-310-314-309-1110-1-1-20201231164838"},
  };
  for (const auto& test : cases) EXPECT_EQ(After(test.event, test.stored, test.close), test.expected) << test.what;
}

TEST_F(StreamEvents, WhatWouldBreakARecordOrIsNoneWritesNone) {
  const std::string huge(5000, 'A');
  const auto quote = [](const std::string& symbol, const std::string& bid) {
    return fmt::format(R"({{"type":"quote","symbol":"{}","bid":{},"bidsz":2,"ask":3,"asksz":4,"x":0}})", symbol, bid);
  };
  for (const std::string& symbol : {std::string(), std::string("A-B"), huge}) {
    events.HandleStreamEvent(Timesale(symbol, "1"));
    if (symbol != "A-B") events.HandleStreamEvent(quote(symbol, "1"));
  }
  events.HandleStreamEvent(quote("A", huge));
  EXPECT_TRUE(store->GetAllSettings(context.settingsApp, "Feeder").empty());
}

TEST_F(StreamEvents, QuotesBecomeBooksAsReceived) {
  events.HandleStreamEvent(
      R"({"type":"quote","symbol":"spy","bid":281.840,"bidsz":60,"bidexch":"M","ask": null ,"asksz":6,"askexch":"Z"})");
  EXPECT_EQ(Feeder("SPY-bid@ask"), "281.840|60@null|6");
  EXPECT_EQ(Feeder("SPY"), "");
}

TEST_F(StreamEvents, ATradeOfANewMinuteDropsTheBarCache) {
  for (const auto& [date, kept] : {std::pair{"1609447719000", "bars"}, {"1609447778000", ""}}) {
    store->SaveSetting(context.settingsApp, "TIntra", "Q-x", "bars");
    After(Timesale("QQQ", "1", "1", date), "QQQ-1-1-1-1-1-1-1-1-20201231164838");
    EXPECT_EQ(store->GetSetting(context.settingsApp, "TIntra", "Q-x"), kept) << date;
  }
}

}  // namespace
}  // namespace quenmark::test
