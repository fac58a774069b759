// The feeder's own work per tick and per snapshot: the store is real, requests answer at once and pauses are skipped.
#include "feeder/main_form.h"
#include "feeder/news_feed.h"
#include "feeder/quote_snapshot.h"
#include "platform/sqlite_store.h"
#include "tests/support/manual_clock.h"
#include "tests/support/temporary_folder.h"
#include "websocket/tls_transport.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace quenmark::bench {
namespace {

class InstantRequest final : public platform::HttpRequest {
 public:
  void Open(std::string_view, std::string_view) override {}
  void setRequestHeader(std::string_view, std::string_view) override {}
  void Send(std::string_view) override {}
  int Status() const override { return 200; }
  const std::string& responseText() const override { return m_answer; }

 private:
  std::string m_answer = R"({"clock":{"state":"open"}})";
};

class InstantHttp final : public platform::HttpClient {
 public:
  std::unique_ptr<platform::HttpRequest> CreateRequest() override { return std::make_unique<InstantRequest>(); }
  std::unique_ptr<platform::HttpStream> CreateStream() override { return nullptr; }
  void SetLimits(const platform::HttpLimits&) override {}
};

// The machine's own process list, without the means to end or start anything.
class WatchedProcesses final : public platform::ProcessList {
 public:
  explicit WatchedProcesses(platform::MessageLoop& loop) : m_list(loop) {}
  std::vector<platform::ProcessEntry> List() override {
    auto entries = m_list.List();
    entries.push_back({1, {"klv.exe"}});
    return entries;
  }
  bool End(platform::ProcessId) override { return false; }
  int Launch(const std::string&) override { return 0; }

 private:
  platform::SystemProcessList m_list;
};

struct Bench {
  Bench() : store(platform::SqliteStore::Open(folder.File("settings.db"), clock)), processes(loop) {
    store->AttachTo(loop);
    context.gmtOffsetMinutes = 240;
    context.providerName = "Tradier";
    context.settingsApp = "Quenmark_Tradier_1_-SandBox";
  }

  std::string Symbol(int number) const { return "SYM" + std::to_string(number); }
  void Describe(int symbols, bool open) {
    for (int i = 0; i < symbols; ++i) {
      store->SaveSetting(context.settingsApp, "Descs", Symbol(i), "described");
      if (open) store->SaveSetting(context.settingsApp, "GrafAbertPapel", "chart" + std::to_string(i), Symbol(i));
    }
    store->Flush();
  }

  test::TemporaryFolder folder;
  test::ManualClock clock;
  platform::MessageLoop loop{clock};
  platform::Log log;
  InstantHttp http;
  std::unique_ptr<platform::SqliteStore> store;
  WatchedProcesses processes;
  providers::Context context{.store = *store,
                             .loop = loop,
                             .clock = clock,
                             .http = http,
                             .processes = processes,
                             .log = log,
                             .programFolder = folder.Path(),
                             .endProcess = [] { std::abort(); }};
};

std::string Quote(const std::string& symbol, int turn) {
  return R"({"symbol":")" + symbol +
         R"(","description":"Some Company Inc","exch":"Q","type":"stock","last":463.37,"change":0.0,"change_percentage":)" +
         std::to_string(turn % 10) + R"(.25,"volume":)" + std::to_string(1000 + turn) +
         R"(,"average_volume":3522497,"last_volume":235852,"trade_date":1440446400000,"open":460.1,"high":466.2,)"
         R"("low":459.9,"close":null,"prevclose":463.37,"week_52_high":580.57,"week_52_low":284.0,"bid":477.2,)"
         R"("bidsize":2,"bidexch":"P","bid_date":1440490442000,"ask":481.16,"asksize":1,"askexch":"P",)"
         R"("ask_date":1440490432000,"root_symbols":"A"})";
}

void ApplySnapshotAndCommit(benchmark::State& state) {
  Bench bench;
  const int symbols = static_cast<int>(state.range(0));
  bench.Describe(symbols, false);
  std::string answers[2];
  for (int turn = 0; turn < 2; ++turn) {
    answers[turn] = R"({"quotes":{"quote":[)";
    for (int i = 0; i < symbols; ++i) answers[turn] += (i == 0 ? "" : ",") + Quote(bench.Symbol(i), turn);
    answers[turn] += "]}}";
  }
  int turn = 0;
  for (auto unused : state) {
    feeder::ApplyQuoteSnapshot(bench.context, answers[turn ^= 1]);
    bench.store->Flush();
  }
  const std::string record = bench.store->GetSetting(bench.context.settingsApp, "Feeder", bench.Symbol(symbols - 1));
  if (record.find(std::to_string(1000 + turn)) == std::string::npos) state.SkipWithError("wrong record");
  state.counters["per_symbol"] = benchmark::Counter(
      static_cast<double>(symbols), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(ApplySnapshotAndCommit)->Arg(250)->Arg(500)->Arg(1000)->Arg(2000)->Unit(benchmark::kMillisecond);

void MainTickNothingChanged(benchmark::State& state) {
  Bench bench;
  bench.Describe(static_cast<int>(state.range(0)), true);
  const auto configure = [&](const char* key, const char* value) {
    bench.store->SaveSetting("Quenmark", "API", key, value);
  };
  configure("name", "Tradier");
  configure("#", "1-SandBox");
  configure("t", "c2VjcmV0");
  configure("EP", "https://sandbox.invalid/v1/");
  feeder::frmPBF form(bench.context, websocket::MakeWebsocketServices(bench.loop, nullptr));
  form.Form_Load();
  for (auto unused : state) form.Timer1_Timer();
}
BENCHMARK(MainTickNothingChanged)->Arg(5000)->Arg(10000)->Arg(20000)->Unit(benchmark::kMillisecond);

std::string NewsAnswer(int items) {
  std::string answer = R"({"data":[)";
  for (int i = 0; i < items; ++i) {
    const std::string id = std::to_string(1'000'000 + i);
    answer +=
        (i == 0 ? "" : ",") + std::string(R"({"ts_id":)") + id + R"(,"category":"company","datetime":17)" + id +
        R"(0,"headline":"Shares of Some Company Inc move on heavy volume","image":"https://news.example/)" + id +
        R"(.jpg","related":"AAPL,MSFT","source":"The Ticker","summary":"The company did not comment on the move.",)" +
        R"("symbol":"AAPL","url":"https://news.example/)" + id + R"("})";
  }
  return answer + "]}";
}

// A whole answer into an empty history, committed.
void StoreNews(benchmark::State& state) {
  const int items = static_cast<int>(state.range(0));
  const std::string answer = NewsAnswer(items);
  for (auto unused : state) {
    state.PauseTiming();
    Bench bench;
    platform::Timer timer(bench.loop, std::chrono::seconds{30}, [] {});
    feeder::NewsFeed feed(bench.context, timer, nullptr);
    state.ResumeTiming();
    feed.Tsock_CloseEvent(200, answer);
    bench.store->Flush();
    state.PauseTiming();
    const std::string last =
        "17" + std::to_string(1'000'000 + items - 1) + "0_" + std::to_string(1'000'000 + items - 1);
    if (bench.store->GetSetting("KLV-News", last, "source") != "The Ticker") state.SkipWithError("wrong item");
    state.ResumeTiming();
  }
}
BENCHMARK(StoreNews)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quenmark::bench

BENCHMARK_MAIN();
