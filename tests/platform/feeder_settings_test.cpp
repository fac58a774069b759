#include "platform/clock.h"
#include "platform/sqlite_store.h"
#include "platform/store_text.h"
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

  test::TemporaryFolder m_folder;
  std::string m_path = m_folder.File("missing/folders/settings.db");
};

TEST_F(FeederSettings, CommandsInTheirOrder) {
  const struct {
    std::vector<std::string> arguments;
    std::string input;
    int status;
    std::string output;
  } steps[] = {
      {{"get", "Quenmark", "API", "t"}, "", 0, "\n"},
      {{"list"}, "", 0, ""},
      {{"list", "none", "none"}, "", 0, ""},
      {{"delete", "none", "none", "none"}, "", 0, ""},
      {{"set", "Quenmark", "API", "name", "Tradier"}, "", 0, ""},
      {{"set", "quenmark", "api", "t", "-", "--base64"}, "secret\0\n"s, 0, ""},
      {{"set", "Quenmark", "Raw", "k", "-"}, "a\tb\\\r\n\0\xFF"s, 0, ""},
      {{"set", "--base64", "Quenmark", "Raw", "b", "fo"}, "", 0, ""},
      {{"set", "Quenmark", "Raw", "list", "get"}, "", 0, ""},
      {{"set", "--", "Quenmark", "Raw", "-n", "--base64"}, "", 0, ""},
      {{"set", "Quenmark", "Raw", "empty", ""}, "", 0, ""},
      {{"set", "Other\n", "", "k", "v"}, "", 0, ""},
      {{"get", "QUENMARK", "RAW", "K"}, "", 0, "a\tb\\\r\n\0\xFF\n"s},
      {{"get", "--", "Quenmark", "Raw", "-n"}, "", 0, "--base64\n"},
      {{"list"}, "", 0, "Quenmark\nOther\\n\n"},
      {{"list", "quenmark"}, "", 0, "API\nRaw\n"},
      {{"list", "Quenmark", "API"}, "", 0, "name\tTradier\nt\tc2VjcmV0AAo=\n"},
      {{"list", "Quenmark", "Raw"}, "", 0, "k\ta\\tb\\\\\\r\\n\0\xFF\nb\tZm8=\nlist\tget\n-n\t--base64\nempty\t\n"s},
      {{"list", "Other\n", ""}, "", 0, "k\tv\n"},
      {{"delete", "Quenmark", "Raw", "B"}, "", 0, ""},
      {{"delete", "Quenmark", "API"}, "", 0, ""},
      {{"list", "Quenmark"}, "", 0, "Raw\n"},
      {{"delete", "QUENMARK"}, "", 0, ""},
      {{"list"}, "", 0, "Other\\n\n"},
  };
  for (const auto& step : steps) {
    const Outcome outcome = Run(step.arguments, step.input);
    EXPECT_EQ(outcome.status, step.status) << testing::PrintToString(step.arguments) << outcome.error;
    EXPECT_EQ(outcome.output, step.output) << testing::PrintToString(step.arguments);
  }
}

TEST_F(FeederSettings, WrongUseIsStatusTwoAndTouchesNoStore) {
  const std::vector<std::string> wrong[] = {{},
                                            {"frob"},
                                            {"get", "a", "b"},
                                            {"get", "a", "b", "c", "d"},
                                            {"set", "a", "b", "c"},
                                            {"set", "a", "b", "c", "d", "e"},
                                            {"set", "a", "b", "c", "-x"},
                                            {"get", "--base64", "a", "b", "c"},
                                            {"list", "a", "b", "c"},
                                            {"delete"},
                                            {"delete", "a", "b", "c", "d"},
                                            {"watch", "a"}};
  for (const auto& arguments : wrong) {
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
  store->SaveSetting("App", "Sec", "b", "1");
  store->SaveSetting("App", "Sec", "a", "2");
  store->Flush();
  for (const int signal : {SIGINT, SIGTERM}) {
    store->SaveSetting("App", "Sec", "b", "1");
    store->Flush();
    ChildProcess watch(BIN_DIR "/feeder-settings", {"watch", "app", "sec"}, Options());
    EXPECT_EQ(watch.ReadLine(), "b\t1");
    EXPECT_EQ(watch.ReadLine(), "a\t2");
    store->SaveSetting("App", "Sec", "b", "line\n\ttab");
    store->Flush();
    EXPECT_EQ(watch.ReadLine(), "b\tline\\n\\ttab");
    store->SaveSetting("App", "Other", "b", "unseen");
    store->SaveSetting("App", "Sec", "new", "");
    store->Flush();
    EXPECT_EQ(watch.ReadLine(), "new\t");
    store->DeleteSetting("App", "Sec", "new");
    store->Flush();
    EXPECT_EQ(watch.ReadLine(), "new\t");
    EXPECT_EQ(Run({"set", "App", "Sec", "a", "from elsewhere"}).status, 0);
    EXPECT_EQ(store->GetSetting("App", "Sec", "a"), "from elsewhere") << "visible when the command returns";
    EXPECT_EQ(watch.ReadLine(), "a\tfrom elsewhere");
    watch.Signal(signal);
    EXPECT_EQ(watch.Wait(), 0);
    EXPECT_EQ(watch.ReadAll(), "");
    store->SaveSetting("App", "Sec", "a", "2");
    store->Flush();
  }
}

TEST(StoreText, Base64) {
  // RFC 4648 §10
  const std::pair<const char*, const char*> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"},
                                                         {"\xFF\xEF\xBE", "/+++"}};
  for (const auto& [bytes, text] : vectors) EXPECT_EQ(EncodeBase64(bytes), text);
}

}  // namespace
}  // namespace quenmark::platform
