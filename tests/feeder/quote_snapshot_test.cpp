#include "feeder/quote_snapshot.h"

#include "tests/support/feeder_fixture.h"

#include <string>

namespace quenmark::test {
namespace {

// A regular-session quote in the provider's own shape. 1710498600000 is 2024-03-15 10:30:00 UTC.
std::string TradierQuote() {
  return R"({"symbol":"AMZN","description":"Amazon.com, Inc","exch":"Q","type":"stock","last":463.37,"change":0.0,)"
         R"("change_percentage":-1.234,"volume":812,"average_volume":3522497,"last_volume":235852,)"
         R"("trade_date":1710498600000,"open":465.0,"high":466.2,"low":460.01,"close":null,"prevclose":469.16,)"
         R"("week_52_high":580.57,"week_52_low":284.0,"bid":477.2,"bidsize":2,"bidexch":"P","bid_date":1440490442000,)"
         R"("ask":481.16,"asksize":1,"askexch":"P","ask_date":1440490432000,"root_symbols":"AMZN7,AMZN"})";
}

std::string With(std::string text, const std::string& from, const std::string& to) {
  return text.replace(text.find(from), from.size(), to);
}

std::string Single(const std::string& object) {
  return R"({"quotes":{"quote":)" + object + "}}";
}

constexpr const char* kRecord = "AMZN-463.37-m1.23-465-466.2-460.01-812-1-1-20240315063000";

class QuoteSnapshot : public FeederFixture {
 protected:
  QuoteSnapshot() {
    Describe("AMZN");
    Describe("SPY");
  }
};

TEST_F(QuoteSnapshot, WritesEveryRecordOfASingleObject) {
  feeder::ApplyQuoteSnapshot(context, Single(TradierQuote()));
  EXPECT_EQ(Feeder("AMZN"), kRecord);
  EXPECT_EQ(Feeder("AMZN-pc"), "469.16");
  EXPECT_EQ(Feeder("AMZN-all"), "37800");  // 10:30:00 local
  EXPECT_EQ(Feeder("AMZN-bid@ask"), "477.2|2@481.16|1");
  EXPECT_EQ(store->GetSetting("Tradier", "Symbols", "AMZN"),
            R"({"symbol":"AMZN","description":"Amazon.com, Inc","exch":"Q","type":"stock"})");
}

TEST_F(QuoteSnapshot, UnmatchedSymbolsBehindASingleObjectAreNoQuotes) {
  const std::string quote = R"({"quotes":{"quote":)" + TradierQuote();
  feeder::ApplyQuoteSnapshot(context, quote + R"(,"unmatched_symbols":{"symbol":"SPY"}}})");
  EXPECT_EQ(Feeder("AMZN"), kRecord);
  EXPECT_EQ(store->GetSetting("Tradier", "Symbols", "SPY"), "");
}

TEST_F(QuoteSnapshot, WritesAListAndKeepsAnExistingCatalogueEntry) {
  store->SaveSetting("Tradier", "Symbols", "AMZN", "kept");
  const std::string spy = With(TradierQuote(), "\"AMZN\"", "\"SPY\"");
  feeder::ApplyQuoteSnapshot(context, R"({"quotes":{"quote":[)" + TradierQuote() + "," + spy + "]}}");
  EXPECT_EQ(Feeder("AMZN"), kRecord);
  EXPECT_EQ(Feeder("SPY"), "SPY-463.37-m1.23-465-466.2-460.01-812-1-1-20240315063000");
  EXPECT_EQ(store->GetSetting("Tradier", "Symbols", "AMZN"), "kept");
}

TEST_F(QuoteSnapshot, TextsMayHoldBracketsAndBraces) {
  const std::string odd = With(TradierQuote(), "Amazon.com, Inc", "A ]}[{ \\\" B");
  const std::string spy = With(TradierQuote(), "\"AMZN\"", "\"SPY\"");
  feeder::ApplyQuoteSnapshot(context, R"({"quotes":{"quote":[)" + odd + "," + spy + "]}}");
  EXPECT_EQ(Feeder("AMZN"), kRecord);
  EXPECT_NE(Feeder("SPY"), "");
}

struct OneChange {
  const char* name;
  const char* from;
  const char* to;
  const char* record;  // expected quote record, "" for none
};

class TradierFields : public QuoteSnapshot, public ::testing::WithParamInterface<OneChange> {};

TEST_P(TradierFields, GiveTheRecord) {
  feeder::ApplyQuoteSnapshot(context, Single(With(TradierQuote(), GetParam().from, GetParam().to)));
  EXPECT_EQ(Feeder("AMZN"), GetParam().record);
}

INSTANTIATE_TEST_SUITE_P(OneFieldChanged, TradierFields,
                         ::testing::Values(OneChange{"NullOpenIsLast", "\"open\":465.0", "\"open\":null",
                                                     "AMZN-463.37-m1.23-463.37-466.2-460.01-812-1-1-20240315063000"},
                                           OneChange{"NoVolumeIsOne", "\"volume\":812", "\"volume\":0",
                                                     "AMZN-463.37-m1.23-465-466.2-460.01-1-1-1-20240315063000"},
                                           OneChange{"NullVolume", "\"volume\":812", "\"volume\":null", ""},
                                           OneChange{"NullLast", "\"last\":463.37", "\"last\":null", ""},
                                           OneChange{"LastAsText", "\"last\":463.37", "\"last\":\"463.37\"", ""},
                                           OneChange{"NegativeLast", "\"last\":463.37", "\"last\":-463.37", ""},
                                           OneChange{"NoTradeDate", "\"trade_date\":1710498600000,", "", ""},
                                           OneChange{"TradeDateOutOfRange", "\"trade_date\":1710498600000",
                                                     "\"trade_date\":1e300", ""},
                                           OneChange{"MissingHigh", "\"high\":466.2,", "", ""},
                                           OneChange{"TinyChangeHasNoSign", "-1.234", "-0.001",
                                                     "AMZN-463.37-0.00-465-466.2-460.01-812-1-1-20240315063000"},
                                           OneChange{"SecondsAreTakenToo", "1710498600000", "1710498600", kRecord}),
                         [](const auto& row) { return row.param.name; });

TEST_F(QuoteSnapshot, OlderAnswerWritesNothing) {
  const std::string newer = "AMZN-1-0.00-1-1-1-1-1-1-20240315063001";
  SetFeeder("AMZN", newer);
  feeder::ApplyQuoteSnapshot(context, Single(TradierQuote()));
  EXPECT_EQ(Feeder("AMZN"), newer);
  EXPECT_EQ(Feeder("AMZN-pc"), "");
}

TEST_F(QuoteSnapshot, SymbolWithADashGetsAllButTheQuote) {
  Describe("BRK-B");
  feeder::ApplyQuoteSnapshot(context, Single(With(TradierQuote(), "\"AMZN\"", "\"BRK-B\"")));
  EXPECT_EQ(Feeder("BRK-B"), "");
  EXPECT_EQ(Feeder("BRK-B-pc"), "469.16");
  EXPECT_EQ(Feeder("BRK-B-all"), "37800");
  EXPECT_EQ(Feeder("BRK-B-bid@ask"), "477.2|2@481.16|1");
  EXPECT_NE(store->GetSetting("Tradier", "Symbols", "BRK-B"), "");
}

TEST_F(QuoteSnapshot, FailuresWriteNothing) {
  const std::string failed = "not_auth500|" + Single(TradierQuote());
  for (const char* answer : {"", failed.c_str(), "<html></html>", R"({"quotes":null})", R"({"quotes":{"quote":[]}})",
                             R"({"quotes":{"quote":[{]}}})", R"({"quotes":{"quote":{)"}) {
    feeder::ApplyQuoteSnapshot(context, answer);
    EXPECT_TRUE(store->GetAllSettings(kApp, "Feeder").empty()) << answer;
  }
}

TEST_F(QuoteSnapshot, CutAnywhereWritesTheWholeRecordOrNone) {
  const std::string answer = Single(TradierQuote());
  const std::size_t complete = answer.find("\"}") + 2;
  for (std::size_t size = 0; size <= answer.size(); ++size) {
    store->DeleteSection(kApp, "Feeder");
    feeder::ApplyQuoteSnapshot(context, answer.substr(0, size));
    EXPECT_EQ(Feeder("AMZN"), size >= complete ? kRecord : "") << size;
  }
}

constexpr const char* kStationAnswer =
    R"({"Quotes":[{"Symbol":"GOOG","Open":"340.64999","High":"349.05499","Low":"337.72","PreviousClose":"337.32001",)"
    R"("Last":"346.2","Ask":"346.36","AskSize":"40","Bid":"346","BidSize":"80","NetChangePct":"2.63251207658864",)"
    R"("Volume":"0","Restrictions":[],"TradeTime":"2026-09-30T20:21:49Z","MarketFlags":{"IsDelayed":false,)"
    R"("IsHalted":false},"LastVenue":"ARCX"},{"Symbol":"SPY","Open":null,"High":"2","Low":"0.5","PreviousClose":"1",)"
    R"("Last":"1.5","NetChangePct":"-50","Volume":"7","TradeTime":"2026-09-30T20:21:49Z"}],)"
    R"("Errors":[{"Symbol":"BADSYM","Error":"FAILED, EX_INVALID_SYMBOL"}]})";

TEST_F(QuoteSnapshot, TradeStationAnswerIsWrittenTwice) {
  context.providerName = "TradeStation";
  Describe("GOOG");
  for (const char* symbol : {"GOOG", "SPY"}) store->SaveSetting("TradeStation", "Symbols", symbol, "{}");
  feeder::ApplyQuoteSnapshot(context, kStationAnswer);
  EXPECT_EQ(Feeder("GOOG"), "GOOG-346.2-2.63-340.64999-349.05499-337.72-1-1-1-20260930162149");
  EXPECT_EQ(store->GetSetting("Dovecrest", "Feeder", "GOOG"), Feeder("GOOG"));
  EXPECT_EQ(Feeder("GOOG-pc"), "337.32001");
  EXPECT_EQ(Feeder("GOOG-bid@ask"), "346|80@346.36|40");
  EXPECT_EQ(Feeder("SPY"), "SPY-1.5-m50.00-1.5-2-0.5-7-1-1-20260930162149");
  EXPECT_EQ(Feeder("SPY-bid@ask"), "");
  EXPECT_EQ(Feeder("BADSYM"), "");
}

}  // namespace
}  // namespace quenmark::test
