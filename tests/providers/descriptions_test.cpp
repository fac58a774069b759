#include "providers/descriptions.h"

#include "providers/station_symbols.h"
#include "providers/web_pages.h"
#include "tests/support/feeder_fixture.h"

#include <fstream>

namespace quenmark::test {
namespace {

using providers::GetSymbolDescription;

class Descriptions : public FeederFixture {
 protected:
  Descriptions() {
    context.apiBase = server.Address("/v1/");
    context.hosts.yahoo1 = server.Address("/first");
    context.hosts.yahoo2 = server.Address("/second");
    context.hosts.barchart = server.Address("").substr(0, server.Address("").find_last_not_of('/') + 1);
    context.hosts.barchartSuffix = " - Barchart.com";
  }
  std::string Stored(const char* symbol) { return store->GetSetting(kApp, "Descs", symbol); }

  HttpServer server;
};

TEST_F(Descriptions, AreAskedOnceAndKeptWithDoubledAmpersands) {
  server.Put("/v1/markets/lookup", {.body = R"({"securities":{"security":{"symbol":"T","description":"AT&T Inc"}}})"});
  EXPECT_EQ(GetSymbolDescription(context, "T:NYSE", "Tradier"), "AT&&T Inc");
  EXPECT_EQ(Stored("T"), "AT&&T Inc");
  EXPECT_EQ(GetSymbolDescription(context, "T", "Tradier"), "AT&&T Inc");
  store->SaveSetting(kApp, "Descs", "T", "AT&T");
  EXPECT_EQ(GetSymbolDescription(context, "T", "Tradier"), "AT&&T");
  EXPECT_EQ(server.Seen().size(), 1u);
}

TEST_F(Descriptions, NothingFoundIsTheSymbolAndIsAskedAgain) {
  for (const auto& answer : {HttpAnswer{.body = R"({"securities":null})"},
                             HttpAnswer{.status = 500, .body = R"({"description":"out of order"})"}}) {
    server.Put("/v1/markets/lookup", answer);
    EXPECT_EQ(GetSymbolDescription(context, "ZZ", "Tradier"), "ZZ");
  }
  EXPECT_EQ(server.Seen().size(), 2u);
  EXPECT_EQ(Stored("ZZ"), "");
  EXPECT_EQ(GetSymbolDescription(context, "ZZ", "Barchart"), "ZZ");  // not a name that has descriptions
}

TEST_F(Descriptions, YahooAsksASecondPlaceOnlyAfterNotFound) {
  server.Put("/first", {.body = R"({"name":"First"})"});
  server.Put("/second", {.body = R"({"name":"Second"})"});
  EXPECT_EQ(GetSymbolDescription(context, "A", "Yahoo! Free API"), "First");
  EXPECT_EQ(server.Seen().back().target, "/first?query=A&region=1&lang=en");
  server.Put("/first", {.body = "404 Not Found"});
  EXPECT_EQ(GetSymbolDescription(context, "B", "Yahoo! Free API"), "Second");
}

TEST_F(Descriptions, DirectoryProvidersLoadTheDirectory) {
  std::ofstream(folder.File("pb_cad_stock.log"))
      << R"([{"description":"Apple","displaySymbol":"AAPL","symbol":"AAPL","type":"C"}])";
  for (const char* provider : {"Finnhub Stock API", "Quenmark API"}) {
    store->DeleteSection(kApp, "Descs");
    EXPECT_EQ(GetSymbolDescription(context, "AAPL", provider), "Apple");
    EXPECT_EQ(GetSymbolDescription(context, "^GSPC", provider), "S&&P 500");
    EXPECT_EQ(GetSymbolDescription(context, "AAP", provider), "AAP");
  }
}

TEST_F(Descriptions, BarchartNamesComeFromThePageTitle) {
  using Row = std::pair<const char*, const char*>;
  for (const auto& [title, name] :
       {Row{"ESZ4 - E-mini S&amp;P 500 Price - Barchart.com", "E-mini S&P 500"}, Row{"Plain title", "Plain title"},
        Row{"Advanced Search - Barchart.com", "Not Found"}, Row{"", ""}}) {
    server.Put("/quotes/ESZ4", {.body = std::string("<html><head><title>") + title + "</title></head></html>"});
    EXPECT_EQ(providers::GetBarchartName(context, "esz4"), name);
  }
  EXPECT_EQ(providers::GetTagText("<title>a</title><title>b</title>", "title"), "a");
  for (const char* html : {"", "<title>", "</title><title>", "<title lang=en>a</title>"}) {
    EXPECT_EQ(providers::GetTagText(html, "title"), "") << html;
  }
}

TEST_F(Descriptions, StationSymbolsAreFetchedOnce) {
  server.Put("/v1/marketdata/symbols/MSFT",
             {.body = R"({"Symbols":[{"Symbol":"MSFT","AssetType":"STOCK","Description":"Micro"}]})"});
  EXPECT_EQ(providers::GetStationSymbolInfo(context, "msft", "TYPE"), "STOCK");
  EXPECT_EQ(providers::GetStationSymbolInfo(context, "msft", "desc"), "Micro");
  EXPECT_EQ(context.providerName, "TradeStation");
  EXPECT_EQ(server.Seen().size(), 1u);
}

}  // namespace
}  // namespace quenmark::test
