#include "platform/clock.h"
#include "platform/sqlite_store.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace quenmark::platform {
namespace {

using namespace std::string_literals;
using test::ChildProcess;

class FeederSettings : public testing::Test {
 protected:
  struct Outcome {
    int status;
    std::string output;
    std::string error;
  };
  ChildProcess::Options Options(const std::string& input = "") {
    ChildProcess::Options options;
    options.environment["FEEDER_STORE"] = m_path;
    options.input = input;
    return options;
  }
  Outcome Run(const std::vector<std::string>& arguments, const std::string& input = "") {
    ChildProcess child(BIN_DIR "/feeder-settings", arguments, Options(input));
    const std::string output = child.ReadAll();
    return {child.Wait().value_or(-1), output, child.ErrorText()};
  }
  void Check(const std::vector<std::string>& arguments, const std::string& input = "", const std::string& output = "") {
    const Outcome outcome = Run(arguments, input);
    EXPECT_EQ(outcome.status, 0) << testing::PrintToString(arguments) << outcome.error;
    EXPECT_EQ(outcome.output, output) << testing::PrintToString(arguments);
  }

  test::TemporaryFolder m_folder;
  std::string m_path = m_folder.File("missing/folders/settings.db");
};

TEST_F(FeederSettings, CommandsInTheirOrder) {
  Check({"get", "Quenmark", "API", "t"}, "", "\n");
  Check({"list"});
  Check({"list", "none", "none"});
  Check({"delete", "none", "none", "none"});
  Check({"set", "Quenmark", "API", "name", "Tradier"});
  Check({"set", "quenmark", "api", "t", "-", "--base64"}, "secret\0\n"s);
  Check({"set", "Quenmark", "Raw", "k", "-"}, "a\tb\\\r\n\0\xFF"s);
  Check({"set", "--base64", "Quenmark", "Raw", "b", "\xFF\xEF\xBE f"});
  Check({"set", "Quenmark", "Raw", "list", "get"});
  Check({"set", "--", "Quenmark", "Raw", "-n", "--base64"});
  Check({"set", "Quenmark", "Raw", "empty", ""});
  Check({"set", "Other\n", "", "k", "v"});
  Check({"get", "QUENMARK", "RAW", "K"}, "", "a\tb\\\r\n\0\xFF\n"s);
  Check({"get", "--", "Quenmark", "Raw", "-n"}, "", "--base64\n");
  Check({"list"}, "", "Quenmark\nOther\\n\n");
  Check({"list", "quenmark"}, "", "API\nRaw\n");
  Check({"list", "Quenmark", "API"}, "", "name\tTradier\nt\tc2VjcmV0AAo=\n");
  Check({"list", "Quenmark", "Raw"}, "", "k\ta\\tb\\\\\\r\\n\0\xFF\nb\t/+++IGY=\nlist\tget\n-n\t--base64\nempty\t\n"s);
  Check({"list", "Other\n", ""}, "", "k\tv\n");
  Check({"delete", "Quenmark", "Raw", "B"});
  Check({"delete", "Quenmark", "API"});
  Check({"list", "Quenmark"}, "", "Raw\n");
  Check({"delete", "QUENMARK"});
  Check({"list"}, "", "Other\\n\n");
}

TEST_F(FeederSettings, WrongUseIsStatusTwoAndTouchesNoStore) {
  using Words = std::vector<std::string>;
  for (const Words& arguments :
       {Words{}, Words{"frob"}, Words{"get", "a", "b"}, Words{"get", "a", "b", "c", "d"}, Words{"set", "a", "b", "c"},
        Words{"set", "a", "b", "c", "d", "e"}, Words{"set", "a", "b", "c", "-x"},
        Words{"get", "--base64", "a", "b", "c"}, Words{"list", "a", "b", "c"}, Words{"delete"},
        Words{"delete", "a", "b", "c", "d"}, Words{"watch", "a"}}) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 2) << testing::PrintToString(arguments);
    EXPECT_EQ(outcome.output, "");
    EXPECT_NE(outcome.error, "");
  }
  EXPECT_FALSE(std::filesystem::exists(m_folder.File("missing")));
  EXPECT_EQ(Run({"--help"}).status, 0);
}

TEST_F(FeederSettings, AStoreFaultIsStatusOneAndOneLine) {
  m_path = m_folder.File("settings.db");
  std::ofstream(m_path) << std::string(2000, 'x');
  for (const auto& arguments : {std::vector<std::string>{"get", "a", "b", "c"}, {"watch", "a", "b"}, {"list"}}) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_NE(outcome.error.find("not a database"), std::string::npos) << outcome.error;
    EXPECT_EQ(outcome.error.find('\n'), outcome.error.size() - 1);
  }
}

TEST_F(FeederSettings, WatchPrintsWhatIsThereAndWhatChanges) {
  SystemClock clock;
  auto store = SqliteStore::Open(m_path, clock);
  const auto save = [&](const char* section, const char* key, const char* value) {
    store->SaveSetting("App", section, key, value);
    store->Flush();
  };
  for (const int signal : {SIGINT, SIGTERM}) {
    save("Sec", "b", "1");
    save("Sec", "a", "2");
    ChildProcess watch(BIN_DIR "/feeder-settings", {"watch", "app", "sec"}, Options());
    EXPECT_EQ(watch.ReadLine(), "b\t1");
    EXPECT_EQ(watch.ReadLine(), "a\t2");
    save("Sec", "b", "line\n\ttab");
    EXPECT_EQ(watch.ReadLine(), "b\tline\\n\\ttab");
    save("Other", "b", "unseen");
    save("Sec", "new", "");
    EXPECT_EQ(watch.ReadLine(), "new\t");
    store->DeleteSetting("App", "Sec", "new");
    store->Flush();
    EXPECT_EQ(watch.ReadLine(), "new\t");
    Check({"set", "App", "Sec", "a", "from elsewhere"});
    EXPECT_EQ(store->GetSetting("App", "Sec", "a"), "from elsewhere") << "visible when the command returns";
    EXPECT_EQ(watch.ReadLine(), "a\tfrom elsewhere");
    watch.Signal(signal);
    EXPECT_EQ(watch.Wait(), 0);
    EXPECT_EQ(watch.ReadAll(), "");
  }
}

}  // namespace
}  // namespace quenmark::platform
