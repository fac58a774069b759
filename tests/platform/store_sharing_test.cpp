// Several processes on one store: nothing is lost, nothing is torn, a killed process leaves a whole store behind.
#include "platform/clock.h"
#include "platform/sqlite_store.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace quenmark::platform {
namespace {

// Records are only right as a whole: a number, and a filling that follows from it.
std::string Record(int number, char writer) {
  return std::to_string(number) + writer + std::string(static_cast<std::size_t>(number * 7 % 300), writer);
}
int NumberOf(const std::string& record) {
  return record.empty() ? 0 : std::stoi(record);
}

class StoreSharing : public testing::Test {
 protected:
  std::unique_ptr<SqliteStore> Open() { return SqliteStore::Open(m_path, m_clock); }
  // Runs `work` in a process of its own; its exit status is 0 when nothing was thrown.
  static pid_t Start(const std::function<void()>& work) {
    const pid_t child = fork();
    if (child != 0) return child;
    try {
      work();
      _exit(0);
    } catch (const std::exception& fault) {
      fprintf(stderr, "%s\n", fault.what());
      _exit(1);
    }
  }
  static int Wait(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  static bool Runs(pid_t child) {
    siginfo_t ended{};
    return waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid == 0;
  }
  std::string IntegrityCheck() {
    sqlite3* database = nullptr;
    char** cells = nullptr;  // the column's name, then its values
    sqlite3_open(m_path.c_str(), &database);
    sqlite3_get_table(database, "PRAGMA integrity_check", &cells, nullptr, nullptr, nullptr);
    const std::string answer = cells == nullptr ? "" : cells[1];
    sqlite3_free_table(cells);
    sqlite3_close(database);
    return answer;
  }

  test::TemporaryFolder m_folder;
  std::string m_path = m_folder.File("settings.db");
  SystemClock m_clock;
};

TEST_F(StoreSharing, TwoWritersAndAReaderLoseAndTearNothing) {
  constexpr int kRecords = 6000;
  std::vector<pid_t> writers;
  for (const char writer : {'A', 'B'}) {
    // They start at once, so the file is made by both.
    writers.push_back(Start([&] {
      auto store = Open();
      for (int i = 1; i <= kRecords; ++i) {
        store->SaveSetting("shared", "Feeder", std::string(1, writer) + std::to_string(i % 20), Record(i, writer));
        store->SaveSetting("shared", "Feeder", "both", Record(i, writer));
        if (i % 50 == 10) store->DeleteSetting("shared", "Feeder", std::string(1, writer) + "7");
        if (i % 3 != 0) store->Flush();
      }
      store->Flush();
    }));
  }
  auto reader = Open();
  int last[2] = {0, 0};
  while (Runs(writers[0]) || Runs(writers[1])) {
    for (int w = 0; w < 2; ++w) {
      const char writer = static_cast<char>('A' + w);
      const std::string record = reader->GetSetting("shared", "Feeder", std::string(1, writer) + "0");
      const int number = NumberOf(record);
      if (number != 0) {
        ASSERT_EQ(record, Record(number, writer));
      }
      ASSERT_GE(number, last[w]) << "a record went back";
      last[w] = number;
    }
    const std::string both = reader->GetSetting("shared", "Feeder", "both");
    if (!both.empty()) {
      ASSERT_EQ(both, Record(NumberOf(both), both.find('A') != std::string::npos ? 'A' : 'B'));
    }
  }
  for (const pid_t writer : writers) EXPECT_EQ(Wait(writer), 0);
  for (const char writer : {'A', 'B'}) {
    for (int i = kRecords - 19; i <= kRecords; ++i) {
      const std::string key = std::string(1, writer) + std::to_string(i % 20);
      EXPECT_EQ(reader->GetSetting("shared", "Feeder", key), Record(i, writer)) << key;
    }
  }
  EXPECT_EQ(reader->GetAllSettings("shared", "Feeder").size(), 41u);
  EXPECT_EQ(IntegrityCheck(), "ok");
}

TEST_F(StoreSharing, AKilledWriterLeavesEveryFlushedRecordWhole) {
  for (int round = 0; round < 5; ++round) {
    int flushed[2];
    ASSERT_EQ(pipe(flushed), 0);
    const pid_t writer = Start([&] {
      auto store = Open();
      for (int i = 1;; ++i) {
        for (int key = 0; key < 5; ++key) store->SaveSetting("a", "s", std::to_string(key), Record(i, 'K'));
        store->Flush();
        if (write(flushed[1], &i, sizeof i) != sizeof i) _exit(2);
      }
    });
    int last = 0;
    while (last < 100 + 37 * round) ASSERT_EQ(read(flushed[0], &last, sizeof last), static_cast<ssize_t>(sizeof last));
    kill(writer, SIGKILL);
    EXPECT_EQ(Wait(writer), 128 + SIGKILL);
    close(flushed[1]);
    for (int more = 0; read(flushed[0], &more, sizeof more) == sizeof more;) last = more;
    close(flushed[0]);

    auto store = Open();
    for (int key = 0; key < 5; ++key) {
      const std::string record = store->GetSetting("a", "s", std::to_string(key));
      EXPECT_GE(NumberOf(record), last);
      EXPECT_EQ(record, Record(NumberOf(record), 'K'));
      EXPECT_EQ(record, store->GetSetting("a", "s", "0")) << "a commit is all or nothing";
    }
    EXPECT_EQ(IntegrityCheck(), "ok");
    store->DeleteApplication("a");
  }
}

TEST_F(StoreSharing, AFullDiskDelaysWritesAndDropsNone) {
  const pid_t writer = Start([&] {
    signal(SIGXFSZ, SIG_IGN);
    auto store = Open();
    store->SaveSetting("a", "s", "k", "old");
    store->Flush();
    // No file may grow beyond this, at whatever point of the commit.
    for (rlim_t room = 3000; room < 40'000; room += 1000) {
      const rlimit small{room, RLIM_INFINITY};
      setrlimit(RLIMIT_FSIZE, &small);
      const std::string value = std::to_string(room) + std::string(20'000, 'v');
      store->SaveSetting("a", "section " + std::to_string(room), "k", value);
      store->SaveSetting("a", "s", "k", value);
      bool failed = false;
      try {
        store->Flush();
      } catch (const RunTimeError&) {
        failed = true;
      }
      if (room == 3000 && !failed) throw RunTimeError(1, "the limit has no effect");
      if (store->GetSetting("a", "s", "k") != value) throw RunTimeError(1, "a pending write is not seen");
      const rlimit ample{RLIM_INFINITY, RLIM_INFINITY};
      setrlimit(RLIMIT_FSIZE, &ample);
      auto other = Open();
      // Another section gets the row that the failed commit had made for ours.
      other->SaveSetting("a", "theirs", "uncached " + std::to_string(room), "x");
      other->Flush();
      if (!store->GetSetting("a", "section " + std::to_string(room), "uncached " + std::to_string(room)).empty()) {
        throw RunTimeError(1, "a section is taken for another");
      }
      store->Flush();
      other->DeleteSection("a", "theirs");
      if (other->GetSetting("a", "s", "k") != value) throw RunTimeError(1, "a write was dropped");
      other->DeleteSection("a", "section " + std::to_string(room));
    }
  });
  EXPECT_EQ(Wait(writer), 0);
  EXPECT_EQ(Open()->Sections("a"), std::vector<std::string>{"s"});
  EXPECT_EQ(IntegrityCheck(), "ok");
}

}  // namespace
}  // namespace quenmark::platform
