// Looks at a SQLite file that another process writes and tells how old records are when they can be read. The book
// records carry the microsecond of their sending: "BID|MICROSECOND@ASK|MICROSECOND".
//
// usage: latency_reader DATABASE QUERY SECONDS, with a query of keys and values. Prints
//   COUNT MEDIAN P90 P99 LONGEST, in microseconds
#include <sched.h>
#include <sqlite3.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quenmark::bench {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;

void Check(int code, sqlite3* database) {
  if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE) return;
  std::cerr << "latency_reader: " << sqlite3_errmsg(database) << '\n';
  std::exit(1);
}

std::int64_t Now() {
  return duration_cast<microseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

class Reader {
 public:
  Reader(const char* file, const char* query) {
    Check(sqlite3_open_v2(file, &m_database, SQLITE_OPEN_READWRITE, nullptr), m_database);
    sqlite3_busy_timeout(m_database, 10'000);
    Check(sqlite3_prepare_v2(m_database, "PRAGMA data_version", -1, &m_version, nullptr), m_database);
    Check(sqlite3_prepare_v2(m_database, query, -1, &m_query, nullptr), m_database);
  }
  ~Reader() {
    sqlite3_finalize(m_version);
    sqlite3_finalize(m_query);
    sqlite3_close(m_database);
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  bool Changed() {
    Check(sqlite3_step(m_version), m_database);
    const std::int64_t version = sqlite3_column_int64(m_version, 0);
    sqlite3_reset(m_version);
    const bool changed = version != m_seen;
    m_seen = version;
    return changed;
  }

  // Notes the age of every record that is new since the last call.
  void Look(bool note) {
    // All rows are of one moment: that of the first step.
    int code = sqlite3_step(m_query);
    const std::int64_t now = Now();
    for (; code == SQLITE_ROW; code = sqlite3_step(m_query)) Take(now, note);
    Check(code, m_database);
    sqlite3_reset(m_query);
  }

  std::vector<std::int64_t>& Ages() { return m_ages; }

 private:
  std::string_view Column(int column) {
    const void* bytes = sqlite3_column_blob(m_query, column);
    return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_column_bytes(m_query, column))};
  }

  void Take(std::int64_t now, bool note) {
    m_key.assign(Column(0));
    const std::string_view value = Column(1);
    const std::size_t bar = value.find('|');
    std::int64_t sent = 0;
    if (bar == std::string_view::npos) return;
    std::from_chars(value.data() + bar + 1, value.data() + value.size(), sent);
    std::int64_t& known = m_sent[m_key];
    if (sent == known) return;
    known = sent;
    if (note) m_ages.push_back(now - sent);
  }

  sqlite3* m_database = nullptr;
  sqlite3_stmt* m_version = nullptr;
  sqlite3_stmt* m_query = nullptr;
  std::int64_t m_seen = -1;
  std::string m_key;
  std::unordered_map<std::string, std::int64_t> m_sent;
  std::vector<std::int64_t> m_ages;
};

}  // namespace
}  // namespace quenmark::bench

int main(int argc, char** argv) {
  using namespace quenmark::bench;
  if (argc != 4) {
    std::cerr << "usage: latency_reader DATABASE QUERY SECONDS\n";
    return 2;
  }
  // Looks all the time, but only while a processor has nothing else to do.
  const sched_param none{};
  sched_setscheduler(0, SCHED_IDLE, &none);
  Reader reader(argv[1], argv[2]);
  reader.Look(false);
  const std::int64_t end = Now() + std::strtoll(argv[3], nullptr, 10) * 1'000'000;
  while (Now() < end) {
    if (reader.Changed()) reader.Look(true);
  }
  std::vector<std::int64_t>& ages = reader.Ages();
  std::sort(ages.begin(), ages.end());
  if (ages.empty()) return 1;
  const auto at = [&](double part) {
    return ages[static_cast<std::size_t>(part * static_cast<double>(ages.size() - 1))];
  };
  std::cout << ages.size() << ' ' << at(0.5) << ' ' << at(0.9) << ' ' << at(0.99) << ' ' << ages.back() << '\n';
  return 0;
}
