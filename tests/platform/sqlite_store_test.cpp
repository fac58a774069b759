#include "platform/sqlite_store.h"

#include "platform/clock.h"
#include "platform/code_page.h"
#include "platform/files.h"
#include "platform/message_loop.h"
#include "platform/store_cache.h"
#include "tests/support/manual_clock.h"
#include "tests/support/memory_store.h"
#include "tests/support/temporary_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace quenmark::platform {
namespace {

using test::ManualClock;
using test::TemporaryFolder;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

class SqliteStoreTest : public testing::Test {
 protected:
  std::unique_ptr<SqliteStore> Open(std::chrono::milliseconds busyLimit = std::chrono::seconds{20}) {
    return SqliteStore::Open(m_path, m_clock, busyLimit);
  }
  std::string OpenFault(std::chrono::milliseconds busyLimit = std::chrono::seconds{20}) {
    try {
      Open(busyLimit);
    } catch (const RunTimeError& fault) {
      return fault.Description();
    }
    return "";
  }
  static void SaveNow(SqliteStore& store, std::string_view key, std::string_view value) {
    store.SaveSetting("a", "s", key, value);
    store.Flush();
  }
  // Runs SQL on the file from outside, on a connection that lives as long as its pointer.
  std::shared_ptr<sqlite3> Sql(const std::string& sql) {
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open(m_path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
    return {database, &sqlite3_close};
  }

  TemporaryFolder m_folder;
  std::string m_path = m_folder.File("sub/folder/settings.db");
  ManualClock m_clock;
};

// Two stores on one file and the reference go through the same random operations, one at a time.
class RandomOperations : public SqliteStoreTest, public testing::WithParamInterface<unsigned> {
 protected:
  std::size_t Below(std::size_t limit) { return m_random() % limit; }
  std::string Name(char kind) {
    std::string name = kind + std::to_string(Below(kind == 'k' ? 6 : 3)) + (kind == 'k' ? "-Bid" : "");
    for (char& letter : name) {
      if (Below(4) == 0 && letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 'a' + 'A');
    }
    return name;
  }
  void Step();
  void Compare();

  std::mt19937 m_random{GetParam()};
  test::MemoryStore m_reference;
  std::unique_ptr<SqliteStore> m_stores[2];
  struct Seen {
    std::uint64_t revision = 0;
    SettingsStore::Pairs pairs;
  };
  std::map<std::string, Seen> m_seen[2];
  std::size_t m_active = 0;
};

void RandomOperations::Step() {
  SqliteStore& store = *m_stores[m_active];
  const std::string application = Name('a');
  const std::string section = Name('s');
  const std::string key = Name('k');
  const std::size_t choice = Below(100);
  if (choice < 45) {
    const std::string value(Below(4), 'v');
    store.SaveSetting(application, section, key, value);
    m_reference.SaveSetting(application, section, key, value);
  } else if (choice < 65) {
    EXPECT_EQ(store.GetSetting(application, section, key), m_reference.GetSetting(application, section, key));
  } else if (choice < 75) {
    store.DeleteSetting(application, section, key);
    m_reference.DeleteSetting(application, section, key);
  } else if (choice < 79) {
    store.DeleteSection(application, section);
    m_reference.DeleteSection(application, section);
  } else if (choice < 81) {
    store.DeleteApplication(application);
    m_reference.DeleteApplication(application);
  } else if (choice < 88) {
    const std::uint64_t revision = store.SectionRevision(application, section);
    const auto pairs = m_reference.GetAllSettings(application, section);
    Seen& seen = m_seen[m_active][AsciiLower(application + "/" + section)];
    if (seen.revision == revision) {
      EXPECT_EQ(seen.pairs, pairs) << "an unchanged revision";
    }
    seen = {revision, pairs};
  } else if (choice < 92) {
    Compare();
  } else if (choice < 94) {
    store.Flush();
  } else if (choice < 98) {
    store.Flush();
    m_active = 1 - m_active;
  } else {
    m_stores[m_active].reset();
    m_seen[m_active].clear();
    m_stores[m_active] = Open();
  }
}

void RandomOperations::Compare() {
  SqliteStore& store = *m_stores[m_active];
  ASSERT_EQ(store.Applications(), m_reference.Applications());
  for (const std::string& application : m_reference.Applications()) {
    ASSERT_EQ(store.Sections(application), m_reference.Sections(application));
    for (const std::string& section : m_reference.Sections(application)) {
      ASSERT_EQ(store.GetAllSettings(application, section), m_reference.GetAllSettings(application, section));
    }
  }
}

TEST_P(RandomOperations, AgreeWithTheReference) {
  for (auto& store : m_stores) store = Open();
  for (int step = 0; step < 600 && !HasFailure(); ++step) Step();
  Compare();
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomOperations, testing::Range(1u, 21u));

TEST_F(SqliteStoreTest, AnyBytesRoundTrip) {
  using namespace std::string_literals;
  const std::string large(65536, 'K');
  const auto texts = {""s, "\0"s, "a\0b"s, "a\0c"s, "\xFF\xFE\x80"s, "tab\tline\r\n'\"%"s, large, large + "z"};
  for (const bool reopened : {false, true}) {
    auto store = Open();
    for (const std::string& text : texts) {
      if (!reopened) store->SaveSetting(text, text, text, text);
      EXPECT_EQ(store->GetSetting(text, text, text), text) << text.size();
    }
    EXPECT_EQ(store->Applications().size(), std::size(texts));
  }
  auto store = Open();
  std::string value(5u << 20, '\0');
  std::mt19937 random(7);
  for (char& letter : value) letter = static_cast<char>(random());
  SaveNow(*store, "large", value);
  EXPECT_TRUE(Open()->GetSetting("a", "s", "large") == value);
  EXPECT_THROW(store->SaveSetting("a", "s", std::string(kStoreNameLimit + 1, 'k'), ""), RunTimeError);
}

TEST(FoldedNames, FoldOnlyAToZAtEveryPlaceOfAWord) {
  for (int letter = 0; letter < 256; ++letter) {
    for (std::size_t at = 0; at < 17; ++at) {
      std::string name(17, 'x');
      name[at] = static_cast<char>(letter);
      const std::string folded = FoldName(name);
      EXPECT_EQ(folded, AsciiLower(name));
      EXPECT_TRUE(FoldedEqual{}(name, folded));
      EXPECT_EQ(FoldedHash{}(name), FoldedHash{}(folded));
      name[at] = static_cast<char>(letter ^ 0x20);
      EXPECT_EQ(FoldedEqual{}(name, folded), AsciiLower(name) == folded) << letter << " at " << at;
    }
  }
}

TEST_F(SqliteStoreTest, OrderOfRivalsIsThatOfTheirCommits) {
  auto one = Open();
  auto two = Open();
  SaveNow(*one, "first", "1");
  two->SaveSetting("a", "s", "second", "2");
  one->SaveSetting("a", "s", "third", "3");
  SaveNow(*two, "THIRD", "of two");
  one->Flush();
  EXPECT_THAT(two->GetAllSettings("a", "s"), ElementsAre(Pair("first", "1"), Pair("second", "2"), Pair("THIRD", "3")));
}

TEST_F(SqliteStoreTest, SeesARivalsChangesBetweenItsOwn) {
  auto one = Open();
  auto two = Open();
  one->SaveSetting("a", "s", "k", "old");
  SaveNow(*one, "other", "x");
  EXPECT_EQ(one->GetSetting("a", "s", "missing"), "");
  const std::uint64_t revision = one->SectionRevision("a", "s");
  // The rival deletes the section and makes it anew, so that rows known here now belong to other keys.
  two->DeleteSection("a", "s");
  two->SaveSetting("a", "s", "other", "y");
  SaveNow(*two, "missing", "z");
  EXPECT_NE(one->SectionRevision("a", "s"), revision);
  one->SaveSetting("a", "s", "k", "new");
  EXPECT_EQ(one->GetSetting("a", "s", "missing"), "z");
  one->Flush();
  EXPECT_THAT(two->GetAllSettings("a", "s"), ElementsAre(Pair("other", "y"), Pair("missing", "z"), Pair("k", "new")));
  // An unchanged value is no write.
  const std::uint64_t unchanged = two->SectionRevision("a", "s");
  SaveNow(*one, "k", "new");
  EXPECT_EQ(two->SectionRevision("a", "s"), unchanged);
  SaveNow(*two, "k", "newer");
  SaveNow(*one, "k", "new");
  EXPECT_EQ(two->GetSetting("a", "s", "k"), "new") << "not unchanged any more";
}

TEST_F(SqliteStoreTest, TheLoopCommits) {
  auto rival = Open();
  ManualClock clock;
  MessageLoop loop(clock);
  auto store = SqliteStore::Open(m_path, clock);
  store->AttachTo(loop);
  std::vector<std::string> seen;
  const WindowId window = loop.CreateHiddenWindow("writer", [&](const Message& message) {
    seen.push_back(rival->GetSetting("a", "s", "k"));
    if (message.wParam == 9) return loop.Quit();
    store->SaveSetting("a", "s", "k", std::to_string(message.wParam));
    if (message.wParam == 2) clock.Advance(std::chrono::milliseconds{1});
  });
  for (std::uintptr_t i = 1; i <= 4; ++i) loop.Post({window, kMessageUser, i, 0});
  loop.WaitUntil([&] { return seen.size() == 4; }, clock.Monotonic() + std::chrono::seconds{1});
  EXPECT_THAT(seen, ElementsAre("", "", "2", "2")) << "a burst groups itself, for a millisecond";
  loop.WaitUntil([] { return false; }, clock.Monotonic() + std::chrono::seconds{1});
  EXPECT_EQ(rival->GetSetting("a", "s", "k"), "4") << "committed before the loop waits";
}

TEST_F(SqliteStoreTest, FilesArePrivate) {
  auto store = Open();
  SaveNow(*store, "k", "v");
  const auto mode = [](const std::string& path) {
    return static_cast<unsigned>(std::filesystem::status(path).permissions());
  };
  for (const char* name : {"sub", "sub/folder"}) EXPECT_EQ(mode(m_folder.File(name)), 0700u) << name;
  for (const char* suffix : {"", "-wal", "-shm", "-turn"}) EXPECT_EQ(mode(m_path + suffix), 0600u) << suffix;
  chmod(m_path.c_str(), 0644);
  Open();
  EXPECT_EQ(mode(m_path), 0600u);
}

TEST_F(SqliteStoreTest, AFileThatIsNotAStoreIsLeftAlone) {
  std::filesystem::create_directories(m_folder.File("sub/folder"));
  using Row = std::pair<const char*, const char*>;
  for (const auto& [sql, fault] :
       {Row{"", "not a database"}, Row{"PRAGMA user_version=2", "newer version"},
        Row{"CREATE TABLE theirs(x)", "another program"}, Row{"PRAGMA application_id=5", "another program"}}) {
    std::filesystem::remove(m_path);
    *sql == '\0' ? platform::SalvarArquivo(m_path, std::string(5000, 'x')) : void(Sql(sql));
    const std::string before = ReadWholeFile(m_path);
    EXPECT_THAT(OpenFault(), HasSubstr(fault));
    EXPECT_TRUE(ReadWholeFile(m_path) == before) << fault;
  }
}

TEST_F(SqliteStoreTest, ALockedStoreIsWaitedForAndNothingIsDropped) {
  auto store = Open(std::chrono::milliseconds{20});
  SaveNow(*store, "k", "0");
  std::vector<std::string> faults;
  store->OnFault([&](const std::string& fault) { faults.push_back(fault); });
  MessageLoop loop(m_clock);
  store->AttachTo(loop);

  auto rival = Sql("BEGIN IMMEDIATE");
  store->SaveSetting("a", "new section", "k", "1");
  store->SaveSetting("a", "s", "k", "1");
  EXPECT_THROW(store->Flush(), RunTimeError);
  loop.WaitUntil([] { return false; }, m_clock.Monotonic() + std::chrono::milliseconds{350});
  EXPECT_EQ(faults.size(), 1u);
  EXPECT_EQ(store->GetSetting("a", "s", "k"), "1");
  rival.reset();
  loop.WaitUntil([] { return false; }, m_clock.Monotonic() + std::chrono::milliseconds{350});
  EXPECT_EQ(Open()->GetSetting("a", "s", "k"), "1") << "the loop has tried again by itself";
  EXPECT_EQ(Open()->GetSetting("a", "new section", "k"), "1");
}

TEST_F(SqliteStoreTest, AStoreLockedAsAWholeIsAFaultOfOpen) {
  Open()->SaveSetting("a", "s", "k", "v");
  auto rival = Sql("PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE; PRAGMA user_version=1; COMMIT");
  EXPECT_THAT(OpenFault(std::chrono::milliseconds{20}), HasSubstr("locked"));
  rival.reset();
  EXPECT_EQ(OpenFault(), "");
}

TEST_F(SqliteStoreTest, TheLogStaysBoundedInABurst) {
  auto store = Open();
  std::string value(256u << 10, 'x');
  std::uintmax_t longest = 0;
  for (int i = 0; i < 1000; ++i) {
    value[0] = static_cast<char>('a' + i % 26);
    SaveNow(*store, std::to_string(i % 10), value);
    longest = std::max(longest, std::filesystem::file_size(m_path + "-wal"));
  }
  EXPECT_LT(longest, 130u << 20) << "of 260 MB written";
}

}  // namespace
}  // namespace quenmark::platform
