#include "feeder/symbol_master.h"

#include "providers/station_symbols.h"
#include "providers/symbol_directory.h"
#include "tests/support/feeder_fixture.h"

#include <fstream>

namespace quenmark::test {
namespace {

using feeder::PegaTickFatorLote;

class SymbolMaster : public FeederFixture {
 protected:
  void Catalogue(const std::string& provider, const std::string& entry) {
    context.providerName = provider;
    store->SaveSetting(provider, "Symbols", "ES", entry);
  }
};

constexpr const char* kStationEntry =
    R"({"AssetType":"FUTURE","Description":"E-mini","ExpirationDate":"2026-12-18T00:00:00Z","PriceFormat":{)"
    R"("Decimals":"2","Increment":"0.25","PointValue":50.0},"QuantityFormat":{"Decimals":0,)"
    R"("MinimumTradeQuantity":"1"},"Symbol":"ES"})";

TEST_F(SymbolMaster, AnswersEveryQuestion) {
  constexpr struct {
    const char *name, *tradier, *station;
  } kQuestions[] = {
      {"venc", "-", "2026-12-18"}, {"desc", "Futures & more", "E-mini"},
      {"TYPE", "index", "FUTURE"}, {"tick", "0.01", "0.25"},
      {"tickdec", "2", "2"},       {"fator", "1", "50"},
      {"lote", "1", "1"},          {"lotedec", "0", "0"},
      {"other", "", ""},
  };
  for (const auto& question : kQuestions) {
    Catalogue("Tradier", R"({"symbol":"ES","description":"Futures & more","type":"index"})");
    EXPECT_EQ(PegaTickFatorLote(context, "es", question.name), question.tradier) << question.name;
    Catalogue("TradeStation", kStationEntry);
    EXPECT_EQ(PegaTickFatorLote(context, "es", question.name), question.station) << question.name;
  }
  EXPECT_EQ(PegaTickFatorLote(context, "", "tick"), "");
  context.providerName = "Finnhub";
  EXPECT_EQ(PegaTickFatorLote(context, "ES", "tick"), "");
}

TEST_F(SymbolMaster, RejectedSymbolHasTwoDecimalsAndBrokenEntriesHaveNone) {
  Catalogue("TradeStation", R"({"Symbol":"ES","Error":"Invalid Symbol"})");
  EXPECT_EQ(PegaTickFatorLote(context, "ES", "tickdec"), "2");
  EXPECT_EQ(PegaTickFatorLote(context, "ES", "tick"), "");
  // A tick that cannot be told is none, not a rounded one.
  Catalogue("TradeStation", R"({"PriceFormat":{"Increment":"0.25"},"QuantityFormat":{"MinimumTradeQuantity":"1.5"}})");
  for (const char* question : {"tick", "lote"}) EXPECT_EQ(PegaTickFatorLote(context, "ES", question), "") << question;
  Catalogue("Tradier", "no json");
  EXPECT_EQ(PegaTickFatorLote(context, "ES", "tickdec"), "");
}

TEST_F(SymbolMaster, StoresSymbolsAndErrors) {
  providers::StoreStationSymbols(
      context, "TradeStation", R"({"Symbols":[{"Symbol":"A","X":1}],"Errors":[{"Symbol":"B","Error":"no"},{"X":2}]})");
  EXPECT_EQ(store->GetSetting("TradeStation", "Symbols", "A"), R"({"Symbol":"A","X":1})");
  EXPECT_EQ(store->GetSetting("TradeStation", "Symbols", "B"), R"({"Symbol":"B","Error":"no"})");
  EXPECT_EQ(store->GetAllSettings("TradeStation", "Symbols").size(), 2u);
}

TEST_F(SymbolMaster, DirectoryComesFromTheCacheFileWithTheIndexes) {
  std::ofstream(folder.File("pb_cad_stock.log"))
      << R"([{"description":"Apple \u0026 Co","displaySymbol":"AAPL","symbol":"AAPL","type":"Common"}])";
  context.providerName = "Quenmark";
  EXPECT_EQ(PegaTickFatorLote(context, "AAPL", "desc"), "Apple & Co");
  EXPECT_EQ(PegaTickFatorLote(context, "^GSPC", "desc"), "S&P 500");
  EXPECT_EQ(PegaTickFatorLote(context, "^FTSE", "type"), "Indice");
  EXPECT_EQ(PegaTickFatorLote(context, "NONE", "desc"), "");
  EXPECT_EQ(store->GetSetting("Quenmark", "Symbols", "^GSPC"),
            R"({"description":"S&P 500","displaySymbol":"^GSPC","symbol":"^GSPC","type":"Indice"})");
}

TEST_F(SymbolMaster, AFileWithoutSymbolsIsNoDirectory) {
  std::ofstream(folder.File("pb_cad_stock.log")) << "<html>maintenance</html>";
  providers::LoadSymbolDirectory(context);
  EXPECT_EQ(context.symbolDirectory, "");
}

}  // namespace
}  // namespace quenmark::test
