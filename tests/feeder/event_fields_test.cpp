#include "feeder/event_fields.h"

#include "providers/get_between.h"

#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <string>
#include <string_view>

namespace quenmark::feeder {
namespace {

// Every field of these events is what a search for its marker finds, also when a character of the provider's layout is
// missing, replaced or doubled, or the text ends there.
TEST(EventFields, AreThoseThatASearchFindsHoweverTheLayoutIsSpoiled) {
  constexpr struct {
    EventField field;
    std::string_view marker, end;
  } kMarkers[] = {{kName, R"("symbol":")", "\""}, {kBid, R"("bid":)", ","},       {kBidSize, R"("bidsz":)", ","},
                  {kAsk, R"("ask":)", ","},       {kAskSize, R"("asksz":)", ","}, {kLastPrice, R"("last":")", "\""},
                  {kSize, R"("size":")", "\""},   {kDate, R"("date":")", "\""}};
  const auto check = [&](const std::string& event) {
    const EventFields fields(event);
    const std::string_view type = providers::GetBetween(event, R"("type":")", "\"");
    ASSERT_EQ(fields[kType], type) << event;
    if (type != "quote" && type != "timesale") return;
    for (const auto& marker : kMarkers) {
      if (marker.field != kName && (type == "quote") != (marker.field <= kAskSize)) continue;
      ASSERT_EQ(fields[marker.field], providers::GetBetween(event, marker.marker, marker.end)) << event;
    }
  };
  for (const std::string whole :
       {R"({"type":"quote","symbol":"SPY","bid":281.84,"bidsz":60,"bidexch":"M","biddate":"1557757189000",)"
        R"("ask":281.85,"asksz":6,"askexch":"Z","askdate":"1557757190000"})",
        R"({"type":"timesale","symbol":"SPY","exch":"Q","bid":"282.08","ask":"282.09","last":"282.0900","size":"100",)"
        R"("date":"1557758874355","seq":352795,"flag":"","cancel":false,"correction":false,"session":"normal"})"}) {
    check(whole);
    for (std::size_t at = 0; at < whole.size(); ++at) {
      check(whole.substr(0, at));
      check(std::string(whole).erase(at, 1));
      for (const char other : {'"', ' ', ',', ':', 'x', '\n'}) {
        check(std::string(whole).replace(at, 1, 1, other));
        check(std::string(whole).insert(at, 1, other));
      }
      check(std::string(whole).insert(at, R"("bid":1,"symbol":"B","last":"2",)"));
    }
  }
  // And in texts that are not laid out at all.
  constexpr std::string_view kPieces[] = {
      R"("type":")", "quote", "timesale",    R"(",)", R"("symbol":")", "A",           R"("bid":)",   "1",
      R"("bidsz":)", ",",     R"("ask":)",   "\n",    R"("ask")",      R"("asksz":)", R"("last":")", R"("size":")",
      "\"",          " ",     R"("date":")", ":",     R"("type":)",    "2",           "{",           "type\":\""};
  std::mt19937 random(7);
  for (int round = 0; round < 20000; ++round) {
    std::string text = round % 2 == 0 ? R"({"type":"quote")" : "";
    for (int piece = 0; piece < 24; ++piece) text += kPieces[random() % std::size(kPieces)];
    check(text);
  }
}

}  // namespace
}  // namespace quenmark::feeder
