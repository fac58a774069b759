// One event of the live stream: its text handled without a store beside RapidJSON parsing the same text, the cost by
// the number of symbols up to the hand-over to the store and with the commit, and allocations per event, of which there
// are none.
#include "feeder/tradier_events.h"
#include "platform/sqlite_store.h"
#include "tests/sockets/allocation_count.h"
#include "tests/support/manual_clock.h"
#include "tests/support/temporary_folder.h"

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::bench {
namespace {

constexpr std::string_view kRecord = "SYM00000-346.29-2.66-340.64-349.05-337.72-23212592-1-1-20190101093000";
constexpr std::string_view kApp = "Quenmark_Tradier_1_";

constexpr std::size_t kSymbolLength = 8;

std::string SymbolText(std::size_t number) {
  return std::to_string(100000 + number).replace(0, 1, "SYM");
}

std::size_t SymbolNumber(std::string_view symbol) {
  std::size_t number = 0;
  for (const char digit : symbol.substr(3)) number = number * 10 + static_cast<std::size_t>(digit - '0');
  return number;
}

// Knows one record for all symbols and takes what it is given.
class NoStore : public platform::SettingsStore {
 public:
  explicit NoStore(std::string_view record = kRecord) : m_record(record) {}

  void Read(std::string_view, std::string_view, std::string_view key, std::string& value) override {
    value.assign(key.ends_with("-pc") ? "337.32" : m_record);
  }
  void SaveSetting(std::string_view, std::string_view, std::string_view, std::string_view value) override {
    bytes += value.size();
  }
  Pairs GetAllSettings(std::string_view, std::string_view) override { return {}; }
  std::uint64_t SectionRevision(std::string_view, std::string_view) override { return 1; }
  void DeleteSetting(std::string_view, std::string_view, std::string_view) override {}
  void DeleteSection(std::string_view, std::string_view) override {}
  void DeleteApplication(std::string_view) override {}
  std::vector<std::string> Applications() override { return {}; }
  std::vector<std::string> Sections(std::string_view) override { return {}; }
  void Flush() override {}

  std::size_t bytes = 0;

 private:
  const std::string_view m_record;
};

struct NoHttp final : platform::HttpClient {
  std::unique_ptr<platform::HttpRequest> CreateRequest() override { return nullptr; }
  std::unique_ptr<platform::HttpStream> CreateStream() override { return nullptr; }
  void SetLimits(const platform::HttpLimits&) override {}
};

struct NoProcesses final : platform::ProcessList {
  std::vector<platform::ProcessEntry> List() override { return {}; }
  bool End(platform::ProcessId) override { return false; }
  int Launch(const std::string&) override { return 0; }
};

struct Bench {
  explicit Bench(platform::SettingsStore& store)
      : context{.store = store,
                .loop = loop,
                .clock = clock,
                .http = http,
                .processes = processes,
                .log = log,
                .programFolder = {},
                .endProcess = [] { std::abort(); }} {
    context.settingsApp = kApp;
    context.gmtOffsetMinutes = 240;
  }

  test::ManualClock clock;
  platform::MessageLoop loop{clock};
  platform::Log log;
  NoHttp http;
  NoProcesses processes;
  providers::Context context;
  feeder::TradierEvents events{context};
};

// A timesale is written once a second and symbol; a later one of the same second finds the record and is dropped.
enum Kind : int { kQuote, kTimesale, kRepeated };
constexpr std::array kKindNames{"quote", "timesale, written", "timesale, dropped"};

// A text as the provider sends it, its symbol and date changed in place: like a receive buffer it stays in the cache.
class EventText {
 public:
  explicit EventText(int kind)
      : m_text(kind == kQuote
                   ? R"({"type":"quote","symbol":"SYM00000","bid":281.84,"bidsz":60,"bidexch":"M","biddate":)"
                     R"("1557757189000","ask":281.85,"asksz":6,"askexch":"Z","askdate":"1557757190000"})"
                   : R"({"type":"timesale","symbol":"SYM00000","exch":"Q","bid":"282.08","ask":"282.09","last":)"
                     R"("282.0900","size":"100","date":"1557758874355","seq":352795,"flag":"","cancel":false,)"
                     R"("correction":false,"session":"normal"})"),
        m_symbol(m_text.find("SYM") + 3),
        m_changing(m_text.find(kind == kQuote ? "84,\"bidsz" : "74355")) {}

  // Every turn through the symbols has another price or second.
  std::string_view Next(std::size_t symbols) {
    CountUp(m_symbol + 5);
    if (++m_place < symbols) return m_text;
    m_text.replace(m_symbol, 5, 5, '0');
    m_place = 0;
    CountUp(m_changing + 2);
    return m_text;
  }

 private:
  // A text of digits that ends at `end` and overflows into nothing that matters.
  void CountUp(std::size_t end) {
    while (m_text[--end] == '9') m_text[end] = '0';
    if (m_text[end] != '.') ++m_text[end];
  }

  std::string m_text;
  std::size_t m_symbol;
  std::size_t m_changing;
  std::size_t m_place = 0;
};

void RequireNoAllocations(benchmark::State& state, std::size_t before) {
  const double each = static_cast<double>(test::AllocationCount() - before) / static_cast<double>(state.iterations());
  state.counters["allocations"] = each;
  if (each > 0.001) state.SkipWithError("an event allocates");
}

void Handle(benchmark::State& state) {
  const auto kind = static_cast<Kind>(state.range(0));
  state.SetLabel(kKindNames[kind]);
  NoStore store(kind == kRepeated ? "SYM00000-346.29-2.66-340.64-349.05-337.72-23212592-1-1-20190513104754" : kRecord);
  Bench bench(store);
  EventText text(kind);
  const std::size_t symbols = kind == kRepeated ? SIZE_MAX : 50;
  bench.events.HandleStreamEvent(text.Next(symbols));
  const std::size_t before = test::AllocationCount();
  for (auto unused : state) bench.events.HandleStreamEvent(text.Next(symbols));
  const bool written = store.bytes >= 10 * static_cast<std::size_t>(state.iterations());
  if (written == (kind == kRepeated)) state.SkipWithError("wrong records");
  RequireNoAllocations(state, before);
}
BENCHMARK(Handle)->Arg(kQuote)->Arg(kTimesale)->Arg(kRepeated);

// RapidJSON at its best: its memory is on the stack.
class JsonReader {
 public:
  bool Read(std::string_view text) {
    Pool values(m_values.data(), m_values.size());
    Pool stack(m_stack.data(), m_stack.size());
    Document document(&values, 4096, &stack);
    document.Parse(text.data(), text.size());
    return !document.HasParseError() && document.MemberCount() > 0;
  }

 private:
  using Pool = rapidjson::MemoryPoolAllocator<>;
  using Document = rapidjson::GenericDocument<rapidjson::UTF8<>, Pool, Pool>;

  std::array<char, 8192> m_values;
  std::array<char, 8192> m_stack;
};

void RapidJson(benchmark::State& state) {
  state.SetLabel(kKindNames[static_cast<std::size_t>(state.range(0))]);
  EventText text(static_cast<int>(state.range(0)));
  JsonReader reader;
  for (auto unused : state) {
    if (!reader.Read(text.Next(50))) state.SkipWithError("no JSON");
  }
}
BENCHMARK(RapidJson)->Arg(kQuote)->Arg(kTimesale);

// A second of 50 symbols at 5,000 events a second, in the mix and the shapes of the provider, with the record of each
// symbol: only its first trade of the second is written.
class Market final {
 public:
  static constexpr std::size_t kEvents = 5000;
  static constexpr std::size_t kSymbols = 50;

  Market() {
    std::uint32_t random = 1;
    for (std::size_t i = 0; i < kEvents; ++i) {
      random = random * 1664525 + 1013904223;
      Add(random >> 16, 1557758874000 + static_cast<std::int64_t>(i) / 5);
    }
  }

  std::vector<std::string> texts;

 private:
  void Add(std::uint32_t random, std::int64_t time) {
    const std::string symbol = SymbolText(random % kSymbols);
    const std::uint32_t price = 28200 + random / 7 % 100;
    const std::string whole = std::to_string(price / 100) + "." + std::to_string(price % 100 + 100).substr(1);
    const std::string stamp = std::to_string(time);
    const std::string size = std::to_string(random % 900 + 1);
    std::string& text = texts.emplace_back();
    switch (random / 64 % 16) {
      case 0:
        text = R"({"type":"summary","symbol":")" + symbol + R"(","open":"281.10","high":"283.55","low":"280.06",)" +
               R"("prevClose":"280.85"})";
        break;
      case 1:
      case 2:
      case 3:
      case 4:
        text = R"({"type":"trade","symbol":")" + symbol + R"(","exch":"J","price":")" + whole + R"(00","size":")" +
               size + R"(","cvol":"27841277","date":")" + stamp + R"(","last":")" + whole + R"(00"})";
        break;
      case 5:
      case 6:
      case 7:
      case 8:
        text = R"({"type":"timesale","symbol":")" + symbol + R"(","exch":"Q","bid":"282.08","ask":"282.09","last":")" +
               whole + R"(00","size":")" + size + R"(","date":")" + stamp +
               R"(","seq":352795,"flag":"","cancel":false,"correction":false,"session":"normal"})";
        break;
      default:
        text = R"({"type":"quote","symbol":")" + symbol + R"(","bid":)" + whole + R"(,"bidsz":)" + size +
               R"(,"bidexch":"M","biddate":")" + stamp + R"(","ask":)" + whole +
               R"(,"asksz":6,"askexch":"Z","askdate":")" + stamp + R"("})";
    }
  }
};

// Keeps the record of each symbol.
class RecordStore final : public NoStore {
 public:
  explicit RecordStore(std::size_t symbols) {
    for (std::size_t i = 0; i < symbols; ++i) m_records.push_back(std::string(kRecord).replace(0, 8, SymbolText(i)));
  }
  void Read(std::string_view application, std::string_view section, std::string_view key, std::string& value) override {
    if (key.size() == kSymbolLength) {
      value.assign(m_records[SymbolNumber(key)]);
    } else {
      NoStore::Read(application, section, key, value);
    }
  }
  void SaveSetting(std::string_view, std::string_view, std::string_view key, std::string_view value) override {
    bytes += value.size();
    if (key.size() == kSymbolLength) m_records[SymbolNumber(key)].assign(value);
  }

 private:
  std::vector<std::string> m_records;
};

void HandleMarket(benchmark::State& state) {
  const Market market;
  for (auto unused : state) {
    state.PauseTiming();
    RecordStore store(Market::kSymbols);
    Bench bench(store);
    bench.events.HandleStreamEvent(market.texts.front());
    state.ResumeTiming();
    for (const std::string& text : market.texts) bench.events.HandleStreamEvent(text);
    if (store.bytes < Market::kEvents * 5) state.SkipWithError("wrong records");
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(Market::kEvents) * static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(HandleMarket);

void RapidJsonMarket(benchmark::State& state) {
  const Market market;
  JsonReader reader;
  for (auto unused : state) {
    for (const std::string& text : market.texts) {
      if (!reader.Read(text)) state.SkipWithError("no JSON");
    }
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(Market::kEvents) * static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(RapidJsonMarket);

// A quote and a timesale for each turn.
void HandOver(benchmark::State& state) {
  NoStore store;
  Bench bench(store);
  EventText quote(kQuote);
  EventText timesale(kTimesale);
  const auto symbols = static_cast<std::size_t>(state.range(0));
  for (auto unused : state) {
    bench.events.HandleStreamEvent(quote.Next(symbols));
    bench.events.HandleStreamEvent(timesale.Next(symbols));
  }
  state.SetItemsProcessed(2 * static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(HandOver)->Arg(50)->Arg(2000)->Arg(10000);

// The same, committed after every 100 events.
void HandleAndCommit(benchmark::State& state) {
  const test::TemporaryFolder folder;
  platform::SystemClock clock;
  const auto store = platform::SqliteStore::Open(folder.File("settings.db"), clock);
  Bench bench(*store);
  const auto symbols = static_cast<std::size_t>(state.range(0));
  EventText quote(kQuote);
  EventText timesale(kTimesale);
  std::string symbol;
  for (std::size_t i = 0; i < symbols; ++i) {
    symbol = SymbolText(i);
    store->SaveSetting(kApp, providers::kFeederSection, symbol, std::string(kRecord).replace(0, 8, symbol));
    store->SaveSetting(kApp, providers::kFeederSection, symbol + "-pc", "337.32");
  }
  store->Flush();
  std::size_t count = 0;
  const auto run = [&] {
    bench.events.HandleStreamEvent(quote.Next(symbols));
    bench.events.HandleStreamEvent(timesale.Next(symbols));
    if (++count % 50 == 0) store->Flush();
  };
  for (std::size_t i = 0; i < 2 * symbols; ++i) run();  // every record is in memory from then on
  const std::size_t before = test::AllocationCount();
  for (auto unused : state) run();
  RequireNoAllocations(state, before);
  state.SetItemsProcessed(2 * static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(HandleAndCommit)->Arg(50)->Arg(2000)->Arg(10000);

}  // namespace
}  // namespace quenmark::bench

BENCHMARK_MAIN();
