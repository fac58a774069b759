#include "feeder/main_form.h"

#include "tests/support/feeder_fixture.h"
#include "tests/support/simulator_process.h"
#include "websocket/tls_transport.h"

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
    for (const char* symbol : {"AAPL", "MSFT"}) Describe(symbol);
    Simulator().Post("/sim/session", "open");
  }

  // One for all tests; each asks for the state it needs.
  static SimulatorProcess& Simulator() {
    static SimulatorProcess simulator({"--seed", "3", "--clock", "1710513000"});
    return simulator;
  }

  void Configure(const char* key, const std::string& value) { store->SaveSetting("Quenmark", "API", key, value); }
  void Start() {
    form = std::make_unique<feeder::frmPBF>(context, websocket::MakeWebsocketServices(loop, nullptr));
    form->Form_Load();
  }

  std::unique_ptr<feeder::frmPBF> form;
};

TEST_F(MainForm, SessionsSwitchTheInterval) {
  OpenChart("AAPL");
  Start();
  EXPECT_EQ(form->TickInterval(), 750ms);
  Simulator().Post("/sim/session", "post");
  loop.Sleep(3s);
  EXPECT_EQ(form->TickInterval(), 1000ms);
  // Without a change of the charts the clock is not asked again; with one it is.
  Simulator().Post("/sim/session", "open");
  loop.Sleep(5s);
  EXPECT_EQ(form->TickInterval(), 1000ms);
  OpenChart("MSFT");
  loop.Sleep(5s);
  EXPECT_EQ(form->TickInterval(), 750ms);
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

TEST_F(MainForm, CompanionBranchesLaunchTheirOwnAndEndTheOther) {
  const struct {
    const char *name, *tag, *section, *launched;
    platform::ProcessId ended;
  } rows[] = {{"Barchart", "1", "Barchart", "pellbrook1.exe", 9},
              {"Tradier", "3512", "Barchart", "pellbrook1.exe", 9},
              {"Finnhub", "1", "Finnhub", "pellbrook2.exe", 8},
              {"Tradier", "4512", "Finnhub", "pellbrook2.exe", 8}};
  for (const auto& row : rows) {
    Configure("name", row.name);
    Configure("#", row.tag);
    processes.launched.clear();
    processes.ended.clear();
    processes.running = {{7, {"klv.exe"}}, {8, {"pellbrook1.exe"}}, {9, {"pellbrook2.exe"}}};
    std::erase_if(processes.running, [&](const auto& entry) { return entry.names.front() == row.launched; });
    Start();
    EXPECT_EQ(store->GetSetting("Quenmark", row.section, "app"), context.settingsApp) << row.tag;
    EXPECT_EQ(processes.launched, std::vector{folder.Path() + "/" + row.launched}) << row.tag;
    EXPECT_EQ(processes.ended, std::vector{row.ended}) << row.tag;
  }
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
