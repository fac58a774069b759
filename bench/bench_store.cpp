// The settings store against a bare loop of prepared SQLite statements with the same durability, in one run.
//
//   bench_store                 Google Benchmark tables; the ratios at the end pair each case with its peer
//   bench_store --rivals [N] [SECONDS]
//                               N processes (default 2) write at full speed; prints how long any write waited
#include "platform/clock.h"
#include "platform/sqlite_store.h"

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace quenmark::platform;

constexpr std::string_view kApplication = "Quenmark_Tradier_7_";
constexpr std::string_view kSection = "Feeder";

class Folder {
 public:
  Folder() {
    // On the disk that holds the working directory: a memory file system would flatter both sides.
    std::string pattern = (std::filesystem::current_path() / "bench-store-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no folder");
    m_path = pattern;
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string File(const char* name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

// Keys and the sequence of 80-byte records that both sides write.
class Load {
 public:
  explicit Load(std::int64_t keys) : m_count(static_cast<std::size_t>(keys)), m_record(80, 'x'), m_written(m_count) {
    for (std::size_t i = 0; i < m_count; ++i) m_keys.push_back(fmt::format("SYM{:05}", i));
  }
  std::size_t Count() const { return m_count; }
  const std::string& Key(std::size_t i) const { return m_keys[i]; }
  std::size_t Next() {
    m_random = m_random * 6364136223846793005u + 1442695040888963407u;
    return static_cast<std::size_t>(m_random >> 33) % m_count;
  }
  // A record that differs from the one before.
  const std::string& Record(std::size_t key) {
    std::uint64_t number = ++m_serial;
    for (std::size_t i = 0; i < 16; ++i, number >>= 4) m_record[i + 20] = "0123456789abcdef"[number & 15];
    m_written[key] = m_serial;
    return m_record;
  }
  bool Holds(std::size_t key, std::string_view record) const {
    std::string expected(80, 'x');
    std::uint64_t number = m_written[key];
    for (std::size_t i = 0; i < 16; ++i, number >>= 4) expected[i + 20] = "0123456789abcdef"[number & 15];
    return record == expected;
  }

 private:
  std::size_t m_count;
  std::vector<std::string> m_keys;
  std::string m_record;
  std::vector<std::uint64_t> m_written;
  std::uint64_t m_serial = 0;
  std::uint64_t m_random = 1;
};

// The peer: one table, prepared statements, WAL with synchronous=NORMAL, pages and cache as good as they get for it.
class Bare {
 public:
  explicit Bare(const std::string& path) {
    sqlite3_open(path.c_str(), &m_database);
    Run("PRAGMA page_size=1024; PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA cache_size=-32768;"
        "PRAGMA wal_autocheckpoint=8192; CREATE TABLE kv(key TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID");
    m_begin = Prepare("BEGIN IMMEDIATE");
    m_commit = Prepare("COMMIT");
    m_upsert = Prepare("INSERT INTO kv VALUES(?1, ?2) ON CONFLICT(key) DO UPDATE SET value = excluded.value");
    m_select = Prepare("SELECT value FROM kv WHERE key = ?1");
  }
  ~Bare() {
    for (sqlite3_stmt* statement : {m_begin, m_commit, m_upsert, m_select}) sqlite3_finalize(statement);
    sqlite3_close(m_database);
  }
  Bare(const Bare&) = delete;
  Bare& operator=(const Bare&) = delete;

  void Begin() { Step(m_begin); }
  void Commit() { Step(m_commit); }
  void Upsert(const std::string& key, const std::string& value) {
    Bind(m_upsert, 1, key);
    Bind(m_upsert, 2, value);
    Step(m_upsert);
  }
  void Read(const std::string& key, std::string& value) {
    Bind(m_select, 1, key);
    if (sqlite3_step(m_select) == SQLITE_ROW) {
      value.assign(static_cast<const char*>(sqlite3_column_blob(m_select, 0)),
                   static_cast<std::size_t>(sqlite3_column_bytes(m_select, 0)));
    }
    sqlite3_reset(m_select);
  }

 private:
  void Run(const char* sql) {
    if (sqlite3_exec(m_database, sql, nullptr, nullptr, nullptr) != SQLITE_OK) throw std::runtime_error(sql);
  }
  sqlite3_stmt* Prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v3(m_database, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sql);
    }
    return statement;
  }
  static void Bind(sqlite3_stmt* statement, int index, const std::string& text) {
    sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
  }
  static void Step(sqlite3_stmt* statement) {
    if (sqlite3_step(statement) != SQLITE_DONE) throw std::runtime_error("step");
    sqlite3_reset(statement);
  }

  sqlite3* m_database = nullptr;
  sqlite3_stmt* m_begin = nullptr;
  sqlite3_stmt* m_commit = nullptr;
  sqlite3_stmt* m_upsert = nullptr;
  sqlite3_stmt* m_select = nullptr;
};

// Our store with what the peer needs.
class Subject {
 public:
  explicit Subject(const std::string& path) : m_store(SqliteStore::Open(path, m_clock)) {}
  void Begin() {}
  void Commit() { m_store->Flush(); }
  void Upsert(const std::string& key, const std::string& value) {
    m_store->SaveSetting(kApplication, kSection, key, value);
  }
  void Read(const std::string& key, std::string& value) { m_store->Read(kApplication, kSection, key, value); }

 private:
  SystemClock m_clock;
  std::unique_ptr<SqliteStore> m_store;
};

template <typename Side>
void Fill(Side& side, Load& load) {
  side.Begin();
  for (std::size_t i = 0; i < load.Count(); ++i) side.Upsert(load.Key(i), load.Record(i));
  side.Commit();
}

// Arguments: keys, upserts per turn.
template <typename Side>
void BM_Upsert(benchmark::State& state) {
  const Folder folder;
  Side side(folder.File("settings.db"));
  Load load(state.range(0));
  Fill(side, load);
  for (auto _ : state) {
    side.Begin();
    for (std::int64_t i = 0; i < state.range(1); ++i) {
      const std::size_t key = load.Next();
      side.Upsert(load.Key(key), load.Record(key));
    }
    side.Commit();
  }
  state.SetItemsProcessed(state.iterations() * state.range(1));
  std::string value;
  for (std::size_t i = 0; i < load.Count(); ++i) {
    side.Read(load.Key(i), value);
    if (!load.Holds(i, value)) state.SkipWithError("wrong value");
  }
}

// Arguments: keys.
template <typename Side>
void BM_Read(benchmark::State& state) {
  const Folder folder;
  Side side(folder.File("settings.db"));
  Load load(state.range(0));
  Fill(side, load);
  std::string value;
  for (auto _ : state) {
    const std::size_t key = load.Next();
    side.Read(load.Key(key), value);
    if (value.size() != 80) state.SkipWithError("wrong value");
  }
  for (std::size_t i = 0; i < load.Count(); ++i) {
    side.Read(load.Key(i), value);
    if (!load.Holds(i, value)) state.SkipWithError("wrong value");
  }
}

// A read right after another process's commit: nothing that is cached counts.
void BM_ReadAfterForeignCommit(benchmark::State& state) {
  const Folder folder;
  Subject side(folder.File("settings.db"));
  Subject rival(folder.File("settings.db"));
  Load load(state.range(0));
  Fill(side, load);
  std::string value;
  std::string tick = "x";
  for (auto _ : state) {
    state.PauseTiming();
    tick[0] = static_cast<char>(tick[0] ^ 1);
    rival.Upsert("rival", tick);
    rival.Commit();
    const std::size_t key = load.Next();
    state.ResumeTiming();
    side.Read(load.Key(key), value);
    if (value.size() != 80) state.SkipWithError("wrong value");
  }
}

void BM_ListSection(benchmark::State& state) {
  const Folder folder;
  SystemClock clock;
  auto store = SqliteStore::Open(folder.File("settings.db"), clock);
  Load load(state.range(0));
  for (std::size_t i = 0; i < load.Count(); ++i) {
    store->SaveSetting(kApplication, kSection, load.Key(i), load.Record(i));
  }
  for (auto _ : state) {
    const auto pairs = store->GetAllSettings(kApplication, kSection);
    if (pairs.size() != load.Count()) state.SkipWithError("wrong list");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void UpsertCases(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"keys", "perTurn"})->UseRealTime();
  for (const std::int64_t keys : {100, 10'000}) {
    for (const std::int64_t group : {1, 10, 100}) benchmark->Args({keys, group});
  }
}

BENCHMARK(BM_Upsert<Bare>)->Apply(UpsertCases);
BENCHMARK(BM_Upsert<Subject>)->Apply(UpsertCases);
BENCHMARK(BM_Read<Bare>)->ArgName("keys")->Arg(100)->Arg(10'000);
BENCHMARK(BM_Read<Subject>)->ArgName("keys")->Arg(100)->Arg(10'000);
BENCHMARK(BM_ReadAfterForeignCommit)->ArgName("keys")->Arg(10'000)->Iterations(20'000);
BENCHMARK(BM_ListSection)->ArgName("keys")->Arg(10'000)->Unit(benchmark::kMillisecond);

// Collects times and prints each case of the store beside its peer: medians when the run repeats.
class RatioReporter final : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        m_times[run.run_name.str()].push_back(run.GetAdjustedRealTime());
      }
    }
  }
  void PrintRatios() {
    for (auto& [name, times] : m_times) {
      const auto at = name.find("<Subject>");
      if (at == std::string::npos) continue;
      auto peer = m_times.find(std::string(name).replace(at, 9, "<Bare>"));
      if (peer == m_times.end()) continue;
      fmt::print("{:50} speed / bare loop: {:.2f}\n", name, Median(peer->second) / Median(times));
    }
  }

 private:
  static double Median(std::vector<double>& times) {
    std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2), times.end());
    return times[times.size() / 2];
  }
  std::map<std::string, std::vector<double>> m_times;
};

// One of the rivals: commits groups of `group` upserts for `seconds`, and prints how long its commits took.
void Write(const std::string& path, int writer, int group, double seconds) {
  SystemClock clock;
  auto store = SqliteStore::Open(path, clock);
  Load load(1000);
  std::vector<double> waits;
  const MonotonicTime end = clock.Monotonic() + std::chrono::microseconds(static_cast<std::int64_t>(seconds * 1e6));
  while (true) {
    const MonotonicTime begin = clock.Monotonic();
    if (begin >= end) break;
    for (int i = 0; i < group; ++i) {
      const std::size_t key = load.Next();
      store->SaveSetting(fmt::format("Rival{}", writer), kSection, load.Key(key), load.Record(key));
    }
    store->Flush();
    waits.push_back(std::chrono::duration<double, std::milli>(clock.Monotonic() - begin).count());
  }
  std::sort(waits.begin(), waits.end());
  const auto quantile = [&](double part) {
    return waits[static_cast<std::size_t>(part * (static_cast<double>(waits.size()) - 1))];
  };
  fmt::print("  writer {}: {:8.0f} commits/s  p50 {:.3f} ms  p99 {:.3f}  p99.9 {:.3f}  p99.99 {:.3f}  longest {:.2f}\n",
             writer, static_cast<double>(waits.size()) / seconds, quantile(0.5), quantile(0.99), quantile(0.999),
             quantile(0.9999), waits.back());
  std::fflush(stdout);
}

int Rivals(int processes, double seconds) {
  for (const int group : {1, 10, 100}) {
    const Folder folder;
    fmt::print("{} processes, {} upserts per commit, {} s\n", processes, group, seconds);
    std::fflush(stdout);
    for (int i = 0; i < processes; ++i) {
      if (fork() == 0) {
        Write(folder.File("settings.db"), i, group, seconds);
        _exit(0);
      }
    }
    while (wait(nullptr) > 0) {
    }
    fmt::print("  log {} KB\n", [&] {
      std::error_code none;
      const auto size = std::filesystem::file_size(folder.File("settings.db-wal"), none);
      return none ? 0 : size / 1024;
    }());
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
#ifndef NDEBUG
  fmt::print("built without optimisation: the figures mean nothing\n");
#endif
  if (argc > 1 && std::string_view(argv[1]) == "--rivals") {
    return Rivals(argc > 2 ? std::atoi(argv[2]) : 2, argc > 3 ? std::atof(argv[3]) : 3);
  }
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  return 0;
}
