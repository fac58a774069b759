#include "feeder/quote_snapshot.h"

#include "tests/support/feeder_fixture.h"

#include <string>

namespace quenmark::test {
namespace {

// A regular-session quote in the provider's own shape. 1710498600000 is 2024-03-15 10:30:00 UTC.
const std::string kQuote =
    R"({"symbol":"AMZN","description":"Amazon.com, Inc","exch":"Q","type":"stock","last":463.37,"change":0.0,)"
    R"("change_percentage":-1.234,"volume":812,"average_volume":3522497,"last_volume":235852,)"
    R"("trade_date":1710498600000,"open":465.0,"high":466.2,"low":460.01,"close":null,"prevclose":469.16,)"
    R"("week_52_high":580.57,"week_52_low":284.0,"bid":477.2,"bidsize":2,"bidexch":"P","bid_date":1440490442000,)"
    R"("ask":481.16,"asksize":1,"askexch":"P","ask_date":1440490432000,"root_symbols":"AMZN7,AMZN"})";
constexpr const char* kRecord = "AMZN-463.37-m1.23-465-466.2-460.01-812-1-1-20240315063000";

// The quote with one change.
std::string With(const std::string& from, const std::string& to) {
  return std::string(kQuote).replace(kQuote.find(from), from.size(), to);
}

class QuoteSnapshot : public FeederFixture {
 protected:
  QuoteSnapshot() {
    for (const char* symbol : {"AMZN", "SPY", "BRK-B", "GOOG"}) Describe(symbol);
  }
  void Apply(const std::string& quotes) { feeder::ApplyQuoteSnapshot(context, R"({"quotes":{"quote":)" + quotes); }
  std::string Catalogue(const std::string& symbol) { return store->GetSetting("Tradier", "Symbols", symbol); }
};

TEST_F(QuoteSnapshot, WritesEveryRecordOfASingleObject) {
  Apply(kQuote + R"(,"unmatched_symbols":{"symbol":"SPY"}}})");  // no quote
  EXPECT_EQ(Feeder("AMZN"), kRecord);
  EXPECT_EQ(Feeder("AMZN-pc"), "469.16");
  EXPECT_EQ(Feeder("AMZN-all"), "37800");  // 10:30:00 local
  EXPECT_EQ(Feeder("AMZN-bid@ask"), "477.2|2@481.16|1");
  EXPECT_EQ(Catalogue("AMZN"), R"({"symbol":"AMZN","description":"Amazon.com, Inc","exch":"Q","type":"stock"})");
  EXPECT_EQ(Catalogue("SPY"), "");
}

TEST_F(QuoteSnapshot, WritesAListAndKeepsAnExistingCatalogueEntry) {
  store->SaveSetting("Tradier", "Symbols", "AMZN", "kept");
  Apply("[" + With("Amazon.com, Inc", "A ]}[{ \\\" B") + "," + With("\"AMZN\"", "\"SPY\"") + "]}}");
  EXPECT_EQ(Feeder("AMZN"), kRecord);
  EXPECT_EQ(Feeder("SPY"), "SPY-463.37-m1.23-465-466.2-460.01-812-1-1-20240315063000");
  EXPECT_EQ(Catalogue("AMZN"), "kept");
}

TEST_F(QuoteSnapshot, OneFieldChanged) {
  const struct {
    const char *name, *from, *to;
    const char* record;  // "" for none
  } rows[] = {
      {"null open is last", "\"open\":465.0", "\"open\":null",
       "AMZN-463.37-m1.23-463.37-466.2-460.01-812-1-1-20240315063000"},
      {"no volume is one", "\"volume\":812", "\"volume\":0", "AMZN-463.37-m1.23-465-466.2-460.01-1-1-1-20240315063000"},
      {"null volume", "\"volume\":812", "\"volume\":null", ""},
      {"null last", "\"last\":463.37", "\"last\":null", ""},
      {"last as text", "\"last\":463.37", "\"last\":\"463.37\"", ""},
      {"negative last", "\"last\":463.37", "\"last\":-463.37", ""},
      {"no trade date", "\"trade_date\":1710498600000,", "", ""},
      {"trade date out of range", "\"trade_date\":1710498600000", "\"trade_date\":1e300", ""},
      {"missing high", "\"high\":466.2,", "", ""},
      {"tiny change has no sign", "-1.234", "-0.001", "AMZN-463.37-0.00-465-466.2-460.01-812-1-1-20240315063000"},
      {"seconds are taken too", "1710498600000", "1710498600", kRecord},
  };
  for (const auto& row : rows) {
    store->DeleteSection(kApp, "Feeder");
    Apply(With(row.from, row.to));
    EXPECT_EQ(Feeder("AMZN"), row.record) << row.name;
  }
}

TEST_F(QuoteSnapshot, OlderAnswerWritesNothing) {
  const std::string newer = "AMZN-1-0.00-1-1-1-1-1-1-20240315063001";
  SetFeeder("AMZN", newer);
  Apply(kQuote);
  EXPECT_EQ(Feeder("AMZN"), newer);
  EXPECT_EQ(Feeder("AMZN-pc"), "");
}

TEST_F(QuoteSnapshot, SymbolWithADashGetsAllButTheQuote) {
  Apply(With("\"AMZN\"", "\"BRK-B\""));
  EXPECT_EQ(Feeder("BRK-B"), "");
  EXPECT_EQ(Feeder("BRK-B-pc"), "469.16");
  EXPECT_EQ(Feeder("BRK-B-all"), "37800");
  EXPECT_EQ(Feeder("BRK-B-bid@ask"), "477.2|2@481.16|1");
  EXPECT_NE(Catalogue("BRK-B"), "");
}

TEST_F(QuoteSnapshot, FailuresWriteNothing) {
  const std::string failed = R"(not_auth500|{"quotes":{"quote":)" + kQuote;
  for (const char* answer : {"", failed.c_str(), "<html></html>", R"({"quotes":null})", R"({"quotes":{"quote":[]}})",
                             R"({"quotes":{"quote":[{]}}})", R"({"quotes":{"quote":{)"}) {
    feeder::ApplyQuoteSnapshot(context, answer);
    EXPECT_TRUE(store->GetAllSettings(kApp, "Feeder").empty()) << answer;
  }
}

TEST_F(QuoteSnapshot, CutAnywhereWritesTheWholeRecordOrNone) {
  for (std::size_t size = 0; size <= kQuote.size(); ++size) {
    store->DeleteSection(kApp, "Feeder");
    Apply(kQuote.substr(0, size));
    EXPECT_EQ(Feeder("AMZN"), size == kQuote.size() ? kRecord : "") << size;
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
