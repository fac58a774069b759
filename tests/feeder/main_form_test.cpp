#include "feeder/main_form.h"

#include "feeder/quote_record.h"
#include "platform/number_text.h"
#include "tests/support/feeder_fixture.h"
#include "tests/support/simulator_process.h"
#include "websocket/tls_transport.h"

#include <nlohmann/json.hpp>

#include <memory>

namespace quenmark::test {
namespace {

using namespace std::chrono_literals;

// The sandbox branch against the simulator. The test's clock jumps over every pause, so minutes pass in no time; while
// a request is out it stands.
class MainForm : public FeederFixture {
 protected:
  static constexpr const char* kSandboxApp = "Quenmark_Tradier_12_-SandBox";

  MainForm() {
    Configure("name", "Tradier");
    Configure("#", "12-SandBox");
    Configure("t", "c2VjcmV0");  // secret
    Configure("q", "dG9rZW4=");  // token
    Configure("EP", Simulator().PlainBase() + "/sandbox/v1/");
    context.settingsApp = kSandboxApp;
    for (const char* symbol : {"AAPL", "MSFT", "SPY", "ZZZZ"}) Describe(symbol);
    Simulator().Post("/sim/fault", "none");
    Simulator().Post("/sim/session", "open");
  }

  // One for all tests; each asks for the state it needs.
  static SimulatorProcess& Simulator() {
    static SimulatorProcess simulator({"--seed", "3", "--clock", "1710513000"});
    return simulator;
  }

  void Configure(const char* key, const std::string& value) { store->SaveSetting("Quenmark", "API", key, value); }
  std::string Sent(const std::string& symbol, const char* endpoint, const char* field) {
    const auto state = nlohmann::json::parse(Simulator().Get("/sim/state"));
    const auto& value = state.at("symbols").at(symbol).at(endpoint).at("fields").at(field);
    return value.is_null() ? "null" : value.get<std::string>();
  }
  std::string Field(const std::string& symbol, feeder::QuoteField field) {
    const std::string record = Feeder(symbol);
    return std::string(feeder::SplitQuoteRecord(record)[field]);
  }
  // What the record must show for a price that was sent, and for a volume: before the first trade of a day last stands
  // in for a null, and 1 for no volume.
  std::string PriceOf(const std::string& symbol, const char* field) {
    const std::string sent = Sent(symbol, "quote", field);
    return NumberOf(sent == "null" ? Sent(symbol, "quote", "last") : sent);
  }
  std::string VolumeOf(const std::string& symbol) {
    const std::string sent = Sent(symbol, "quote", "volume");
    return sent == "0" ? "1" : sent;
  }
  static std::string NumberOf(const std::string& text) { return platform::NumberText(platform::ReadNumber(text)); }

  feeder::frmPBF& Start() {
    form = std::make_unique<feeder::frmPBF>(context, websocket::MakeWebsocketServices(loop, nullptr));
    form->Form_Load();
    return *form;
  }

  std::unique_ptr<feeder::frmPBF> form;
};

TEST_F(MainForm, StartUpBuildsTheApplicationNameAndTheOffset) {
  Start();
  EXPECT_EQ(context.settingsApp, kSandboxApp);
  EXPECT_EQ(context.instanceTag, "12");
  EXPECT_EQ(context.serviceCredential, "secret");
  EXPECT_EQ(context.accessToken, "token");
  EXPECT_EQ(context.gmtOffsetMinutes, 240);  // no time-zone service is configured: the machine's own
}

TEST_F(MainForm, FirstTickWritesWhatTheProviderSent) {
  OpenChart("AAPL");
  OpenChart("MSFT");
  Start();
  for (const std::string symbol : {"AAPL", "MSFT"}) {
    EXPECT_EQ(Field(symbol, feeder::kLast), NumberOf(Sent(symbol, "quote", "last")));
    EXPECT_EQ(Field(symbol, feeder::kHigh), PriceOf(symbol, "high"));
    EXPECT_EQ(Field(symbol, feeder::kVolume), VolumeOf(symbol));
    EXPECT_EQ(Feeder(symbol + "-pc"), NumberOf(Sent(symbol, "quote", "prevclose")));
    EXPECT_EQ(Feeder(symbol + "-bid@ask"), Sent(symbol, "quote", "bid") + "|" + Sent(symbol, "quote", "bidsize") + "@" +
                                               Sent(symbol, "quote", "ask") + "|" + Sent(symbol, "quote", "asksize"));
  }
  EXPECT_EQ(form->TickInterval(), 750ms);
}

TEST_F(MainForm, SessionsSwitchTheIntervalAndTheWork) {
  OpenChart("AAPL");
  Start();
  Simulator().Post("/sim/session", "post");
  loop.Sleep(3s);
  EXPECT_EQ(form->TickInterval(), 1000ms);
  const std::string before = Feeder("AAPL");
  loop.Sleep(40s);  // past the 15 s of the bar cache
  EXPECT_EQ(Field("AAPL", feeder::kLast), NumberOf(Sent("AAPL", "bar", "price")));
  EXPECT_EQ(Field("AAPL", feeder::kOpen), std::string(feeder::SplitQuoteRecord(before)[feeder::kOpen]));

  // Without a change of the charts the clock is not asked again; with one it is.
  Simulator().Post("/sim/session", "open");
  loop.Sleep(5s);
  EXPECT_EQ(form->TickInterval(), 1000ms);
  OpenChart("MSFT");
  loop.Sleep(5s);
  EXPECT_EQ(form->TickInterval(), 750ms);
  EXPECT_NE(Feeder("MSFT"), "");
}

TEST_F(MainForm, LowerCaseChartsOnlyAskTheClock) {
  OpenChart("msft");
  Describe("msft");
  Start();
  EXPECT_NE(Feeder("MSFT"), "");  // the first snapshot, while nothing was subscribed
  store->DeleteSection(kSandboxApp, "Feeder");
  loop.Sleep(5s);
  EXPECT_EQ(Feeder("MSFT"), "");
}

TEST_F(MainForm, FaultsWriteNothingAndALaterTickRecovers) {
  OpenChart("AAPL");
  for (const char* fault : {"status401", "status429", "status500", "cut", "html", "empty"}) {
    store->DeleteSection(kSandboxApp, "Feeder");
    Simulator().Post("/sim/fault", std::string(fault) + "@quotes*1");
    Start();
    EXPECT_EQ(Feeder("AAPL"), "") << fault;
    loop.Sleep(3s);
    EXPECT_NE(Feeder("AAPL"), "") << fault;
    form.reset();
  }
}

TEST_F(MainForm, OversizedAnswerWritesNothing) {
  store->SaveSetting("Quenmark", "Hosts", "AnswerLimit", "100000");
  OpenChart("AAPL");
  Simulator().Post("/sim/fault", "huge@quotes*1");
  Start();
  EXPECT_EQ(Feeder("AAPL"), "");
  loop.Sleep(3s);
  EXPECT_NE(Feeder("AAPL"), "");
}

TEST_F(MainForm, UnknownSymbolLeavesTheOthersAlone) {
  OpenChart("AAPL");
  OpenChart("ZZZZ");
  Start();
  EXPECT_NE(Feeder("AAPL"), "");
  EXPECT_EQ(Feeder("ZZZZ"), "");
}

TEST_F(MainForm, DescriptionsAndCatalogueEntriesAreAskedOnce) {
  OpenChart("GOOG");
  Start();
  const std::string description = store->GetSetting(kSandboxApp, "Descs", "GOOG");
  EXPECT_NE(description, "");
  EXPECT_NE(store->GetSetting("Tradier", "Symbols", "GOOG").find(R"("symbol":"GOOG")"), std::string::npos);
  Simulator().Post("/sim/fault", "status500@lookup");
  loop.Sleep(3s);
  EXPECT_EQ(store->GetSetting(kSandboxApp, "Descs", "GOOG"), description);
}

TEST_F(MainForm, SiblingToolGetsItsBars) {
  store->SaveSetting("Quenmark", "QX", "QXPapeis", "AAPL-ZZZZ-MSFT");
  store->SaveSetting("Quenmark", "QX", "HrLM", "2024-03-15 10:30:00");
  Start();
  const std::string answer = store->GetSetting("Quenmark", "QX", "QXPapResp");
  std::string expected = "@!@";
  for (const std::string symbol : {"AAPL", "MSFT"}) {
    expected += symbol + "-1015";
    for (const char* field : {"open", "high", "low", "close", "volume"}) {
      expected += "-" + NumberOf(Sent(symbol, "bar", field));
    }
    expected += "-1-1|";
  }
  EXPECT_EQ(answer, expected + " 20240315101955");
}

TEST_F(MainForm, TickWalksTheProcessListOnce) {
  Start();
  processes.walks = 0;
  form->Timer1_Timer();
  EXPECT_EQ(processes.walks, 1);
}

TEST_F(MainForm, CompanionsAreEndedByBrokerBranches) {
  processes.running = {{1, {"QX.exe"}}, {2, {"pellbrook1.exe"}}, {3, {"PELLBROOK2.EXE"}}, {4, {"pellbrook1.exe"}}};
  Start();
  EXPECT_EQ(processes.ended, (std::vector<platform::ProcessId>{2, 4, 3}));
}

TEST_F(MainForm, StubbornCompanionDoesNotHoldTheTick) {
  processes.running = {{1, {"QX.exe"}}, {2, {"pellbrook1.exe"}}};
  processes.stubborn = true;
  Start();
  EXPECT_EQ(processes.ended, std::vector<platform::ProcessId>{2});
}

struct CompanionCase {
  const char* name;
  const char* tag;
  const char* section;
  const char* launched;
  platform::ProcessId ended;
};

class CompanionBranch : public MainForm, public ::testing::WithParamInterface<CompanionCase> {};

TEST_P(CompanionBranch, LaunchesItsOwnAndEndsTheOther) {
  Configure("name", GetParam().name);
  Configure("#", GetParam().tag);
  processes.running = {{7, {"klv.exe"}}, {8, {"pellbrook1.exe"}}, {9, {"pellbrook2.exe"}}};
  std::erase_if(processes.running, [](const auto& entry) { return entry.names.front() == GetParam().launched; });
  Start();
  EXPECT_EQ(store->GetSetting("Quenmark", GetParam().section, "app"), context.settingsApp);
  EXPECT_EQ(processes.launched, std::vector<std::string>{folder.Path() + "/" + GetParam().launched});
  EXPECT_EQ(processes.ended, std::vector<platform::ProcessId>{GetParam().ended});
}

INSTANTIATE_TEST_SUITE_P(Rows, CompanionBranch,
                         ::testing::Values(CompanionCase{"Barchart", "1", "Barchart", "pellbrook1.exe", 9},
                                           CompanionCase{"Tradier", "3512", "Barchart", "pellbrook1.exe", 9},
                                           CompanionCase{"Finnhub", "1", "Finnhub", "pellbrook2.exe", 8},
                                           CompanionCase{"Tradier", "4512", "Finnhub", "pellbrook2.exe", 8}));

TEST_F(MainForm, EndsWithoutACredential) {
  Configure("t", "");
  EXPECT_THROW(Start(), ProgramEnded);
}

TEST_F(MainForm, EndsWhenTheCredentialChanges) {
  Start();
  Configure("t", "b3RoZXI=");
  EXPECT_THROW(loop.Sleep(2s), ProgramEnded);
}

TEST_F(MainForm, EndsForAnUnknownProvider) {
  for (const char* name : {"", "Yahoo", "barchart"}) {
    Configure("name", name);
    EXPECT_THROW(Start(), ProgramEnded) << name;
  }
}

TEST_F(MainForm, EndsWhenNoHostRuns) {
  Start();
  processes.running = {{5, {"bash"}}};
  EXPECT_THROW(loop.Sleep(2s), ProgramEnded);
}

TEST_F(MainForm, LiveTickEndsWithoutAHostCheck) {
  Configure("EP", Simulator().PlainBase() + "/v1/");
  store->SaveSetting("Quenmark", "Hosts", "Stream", "wss://127.0.0.1:1/");
  processes.running.clear();
  EXPECT_NO_THROW(Start());
}

TEST_F(MainForm, ChartsAreReadInOrderOnceEachAndFiltered) {
  for (const auto& [chart, symbol] :
       {std::pair{"a", "MSFT"}, {"b", ""}, {"c", "AAPL"}, {"d", "MSFT"}, {"e", "A\"B"}, {"f", "A,B"}}) {
    store->SaveSetting(kSandboxApp, "GrafAbertPapel", chart, symbol);
  }
  providers::OpenSymbols open;
  open.Rebuild(context);
  EXPECT_EQ(open.Text(), "\"MSFT\",\"AAPL\",");
  EXPECT_EQ(providers::JoinedSymbols(open.Text()), "MSFT,AAPL");
  providers::RemoveOpenChart(context, "msft");
  open.Rebuild(context);
  EXPECT_EQ(open.Text(), "\"AAPL\",");
}

}  // namespace
}  // namespace quenmark::test
