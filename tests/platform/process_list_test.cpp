#include "platform/process_list.h"

#include "platform/files.h"
#include "platform/message_loop.h"
#include "platform/stop_signals.h"
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <optional>
#include <string>

namespace quenmark::platform {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::HasSubstr;

class ProcessListTest : public ::testing::Test {
 protected:
  std::optional<ProcessEntry> Entry(ProcessId id) {
    for (const ProcessEntry& entry : list.List()) {
      if (entry.id == id) return entry;
    }
    return std::nullopt;
  }

  SystemClock clock;
  MessageLoop loop{clock};
  SystemProcessList list{loop};
};

void WriteProgram(const std::string& path, const std::string& text) {
  SalvarArquivo(path, text);
  std::filesystem::permissions(path, std::filesystem::perms(0700));
}

TEST(FindProcess, ContainsWithoutRegardToCase) {
  const std::vector<ProcessEntry> processes = {{3, {"bash"}}, {5, {"preloader", "KLV.EXE"}}, {9, {"klv.exe"}}};
  EXPECT_EQ(FindProcess(processes, "klv.exe"), 5);
  EXPECT_EQ(FindProcess(processes, "LOAD"), 5);
  EXPECT_EQ(FindProcess(processes, "klv.exe2"), 0);
  EXPECT_EQ(FindProcess(processes, ""), 0);
  EXPECT_EQ(FindProcess({}, "a"), 0);
}

TEST_F(ProcessListTest, FindsAProcessByAnyOfItsNames) {
  for (const auto& [first, name] : {std::pair{"klv.exe", "klv.exe"}, std::pair{"C:\\x\\QX.exe", "QX.exe"},
                                    std::pair{"/opt/a b/quenmark.exe", "quenmark.exe"}}) {
    test::ChildProcess::Options options;
    options.argv0 = first;
    const test::ChildProcess child("sleep", {"60"}, options);
    std::optional<ProcessEntry> entry;
    // The kernel shows the command line of a new program a moment after its name.
    test::Eventually([&] { return (entry = Entry(child.Id())) && entry->names.size() > 1; });
    ASSERT_TRUE(entry) << first;
    EXPECT_THAT(entry->names, Contains(name));
    EXPECT_THAT(entry->names, Contains("sleep"));
  }
}

TEST_F(ProcessListTest, LeavesOutItselfAndTheDeadAndIsSorted) {
  test::ChildProcess child("true", {});
  ASSERT_TRUE(test::Eventually([&] { return !Entry(child.Id()); }));  // a zombie: nobody has waited for it
  EXPECT_EQ(kill(child.Id(), 0), 0);
  const std::vector<ProcessEntry> processes = list.List();
  EXPECT_TRUE(std::is_sorted(processes.begin(), processes.end(),
                             [](const ProcessEntry& left, const ProcessEntry& right) { return left.id < right.id; }));
  EXPECT_FALSE(Entry(getpid()));
}

TEST_F(ProcessListTest, KillsAStubbornProcessWhileTheLoopGoesOn) {
  test::ChildProcess child("sh", {"-c", "trap '' TERM; echo ready; while :; do sleep 60; done"});
  ASSERT_EQ(child.ReadLine(), "ready");
  int ticks = 0;
  Timer timer(loop, 50ms, [&ticks] { ++ticks; });
  timer.SetEnabled(true);
  EXPECT_TRUE(list.End(child.Id()));
  EXPECT_EQ(child.Wait(), 128 + SIGKILL);
  EXPECT_GE(ticks, 1);
}

TEST_F(ProcessListTest, EndsAWillingProcessAndRefusesWhatIsNoneAndItself) {
  for (const ProcessId process : {0, -1, getpid()}) EXPECT_FALSE(list.End(process)) << process;
  test::ChildProcess willing("sleep", {"60"});
  EXPECT_TRUE(list.End(willing.Id()));
  EXPECT_EQ(willing.Wait(), 128 + SIGTERM);
  test::ChildProcess child("true", {});
  child.Wait();
  EXPECT_TRUE(list.End(child.Id()));  // gone already
}

TEST_F(ProcessListTest, LaunchesInTheProgramsFolderWithACleanState) {
  const test::TemporaryFolder folder;
  const std::string report = folder.File("report");
  const std::string name = "qf" + std::to_string(getpid()) + ".exe";  // nobody else's on this machine
  WriteProgram(folder.File(name),
               "#!/bin/sh\n{ pwd; echo $#; ls /proc/self/fd; grep -E 'SigBlk|SigIgn' /proc/self/status; } > part\n"
               "mv part report\nwhile :; do sleep 0.1; done\n");
  const int kept = dup(0);  // inheritable
  std::string path = folder.File(name);
  path[path.find_last_of('/')] = '\\';
  const StopSignals blocked(loop, [] {});
  IgnoreBrokenPipes();
  EXPECT_GT(list.Launch(path), 32);
  close(kept);
  ASSERT_TRUE(test::Eventually([&] { return FileExists(report); }));
  const std::string text = ReadWholeFile(report);
  // No arguments, and no descriptors but the standard ones and the one that ls itself reads the folder with.
  EXPECT_THAT(text, HasSubstr(std::filesystem::canonical(folder.Path()).string() + "\n0\n0\n1\n2\n3\nSig"));
  EXPECT_THAT(text, HasSubstr("SigBlk:\t0000000000000000\n"));
  // The two signals above these 31 are the C library's own.
  EXPECT_EQ(std::stoull(text.substr(text.find("SigIgn:") + 7), nullptr, 16) & 0x7FFFFFFF, 0u) << text;

  const ProcessId process = FindProcess(list.List(), name);  // a script has its own name
  ASSERT_NE(process, 0);
  EXPECT_TRUE(list.End(process));
  // Reaped, not left as a zombie.
  EXPECT_TRUE(loop.WaitUntil([&] { return kill(process, 0) != 0; }, clock.Monotonic() + 20s));
}

TEST_F(ProcessListTest, LaunchFailuresHaveTheShellsNumbers) {
  const test::TemporaryFolder folder;
  SalvarArquivo(folder.File("plain"), "text");
  WriteProgram(folder.File("garbage"), "no program");
  using Row = std::pair<std::string, int>;
  for (const auto& [path, result] :
       {Row{folder.File("missing"), 2}, Row{folder.File("no/missing"), 3}, Row{folder.File("plain/below"), 3},
        Row{folder.File("plain"), 5}, Row{folder.Path(), 5}, Row{folder.File("garbage"), 11}, Row{"", 2}}) {
    EXPECT_EQ(list.Launch(path), result) << path;
  }
}

}  // namespace
}  // namespace quenmark::platform
