#include "platform/files.h"

#include "tests/support/environment_variable.h"
#include "tests/support/fault_number.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <string>

namespace quenmark::platform {
namespace {

using test::FaultNumber;

std::filesystem::perms Mode(const std::string& path) {
  return std::filesystem::status(path).permissions();
}

std::size_t EntriesIn(const std::string& folder) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

TEST(Files, WriteReplacesReadsBackAndLeavesNothingBeside) {
  const test::TemporaryFolder folder;
  const std::string path = folder.File("a.txt");
  EXPECT_EQ(ReadWholeFile(path), "");
  EXPECT_FALSE(FileExists(path));
  EXPECT_FALSE(FileExists(""));
  const std::string text(100'000, 'x');
  SalvarArquivo(path, text);
  EXPECT_EQ(ReadWholeFile(path), text);
  std::filesystem::permissions(path, std::filesystem::perms(0640));
  SalvarArquivo(folder.Path() + "\\a.txt", std::string("\0\xFF", 2));
  EXPECT_EQ(ReadWholeFile(folder.Path() + "\\a.txt"), std::string("\0\xFF", 2));
  EXPECT_EQ(Mode(path), std::filesystem::perms(0640));
  EXPECT_EQ(EntriesIn(folder.Path()), 1u);
  EXPECT_TRUE(FileExists(folder.Path()));
}

TEST(Files, ReadHasALimitAndTakesRegularFilesOnly) {
  const test::TemporaryFolder folder;
  SalvarArquivo(folder.File("a"), "12345");
  EXPECT_EQ(ReadWholeFile(folder.File("a"), 5), "12345");
  EXPECT_EQ(ReadWholeFile(folder.File("a"), 4), "");
  EXPECT_NE(ReadWholeFile("/proc/self/status"), "");  // tells size 0
  EXPECT_EQ(ReadWholeFile("/proc/self/status", 10), "");
  EXPECT_EQ(ReadWholeFile(folder.Path()), "");
  EXPECT_EQ(ReadWholeFile("/dev/zero"), "");
  ASSERT_EQ(mkfifo(folder.File("pipe").c_str(), 0600), 0);
  EXPECT_EQ(ReadWholeFile(folder.File("pipe")), "");  // and does not wait for a writer
}

TEST(Files, AppendAddsAndFailuresAreNumberedAndKeepTheOldContents) {
  const test::TemporaryFolder folder;
  EXPECT_EQ(FaultNumber([&] { SalvarArquivo(folder.File("no/a"), "x"); }), 76);
  EXPECT_EQ(FaultNumber([&] { AppendToFile(folder.File("no/a"), "x"); }), 76);
  EXPECT_EQ(FaultNumber([&] { AppendToFile(folder.Path(), "x"); }), 75);
  AppendToFile(folder.File("a"), "o");
  AppendToFile(folder.File("a"), "ld");
  const auto oldTreatment = signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  rlimit small = old;
  small.rlim_cur = 4096;  // a device that is full after so many bytes
  setrlimit(RLIMIT_FSIZE, &small);
  const std::string text(10'000, 'x');
  const int write = FaultNumber([&] { SalvarArquivo(folder.File("a"), text); });
  const int append = FaultNumber([&] { AppendToFile(folder.File("a"), text); });
  setrlimit(RLIMIT_FSIZE, &old);
  signal(SIGXFSZ, oldTreatment);
  EXPECT_EQ(write, 75);
  EXPECT_EQ(append, 75);
  EXPECT_EQ(ReadWholeFile(folder.File("a")), "old");
  EXPECT_EQ(EntriesIn(folder.Path()), 1u);
}

TEST(Files, PrivateFolders) {
  const test::TemporaryFolder folder;
  CreatePrivateFolders(folder.File("a/b/"));
  CreatePrivateFolders(folder.File("a/b"));
  EXPECT_EQ(Mode(folder.File("a")), std::filesystem::perms(0700));
  EXPECT_EQ(Mode(folder.File("a/b")), std::filesystem::perms(0700));
  SalvarArquivo(folder.File("file"), "");
  EXPECT_EQ(FaultNumber([&] { CreatePrivateFolders(folder.File("file")); }), 76);
  EXPECT_EQ(FaultNumber([&] { CreatePrivateFolders(folder.File("file/below")); }), 76);
}

TEST(Files, SymbolsThatStayInTheirFolder) {
  for (const char* safe : {"AAPL", "BRK.B", "^GSPC", "a b", "."}) EXPECT_TRUE(IsSafeInFileName(safe)) << safe;
  EXPECT_FALSE(IsSafeInFileName(std::string_view("a\0b", 3)));
  for (const char* unsafe : {"", "a/b", "a\\b", "..", "a..b"}) {
    EXPECT_FALSE(IsSafeInFileName(unsafe)) << unsafe;
  }
}

TEST(Files, ProgramAndStorePlaces) {
  EXPECT_EQ(ExecutablePath(), std::filesystem::read_symlink("/proc/self/exe").string());
  test::EnvironmentVariable feederHome("FEEDER_HOME");
  test::EnvironmentVariable store("FEEDER_STORE");
  test::EnvironmentVariable data("XDG_DATA_HOME");
  test::EnvironmentVariable home("HOME");
  EXPECT_EQ(ProgramFolder(), std::filesystem::path(ExecutablePath()).parent_path().string());
  feederHome.Set("/opt/feeder\\bin//");
  EXPECT_EQ(ProgramFolder(), "/opt/feeder/bin");
  EXPECT_EQ(StorePath(), "");
  home.Set("/home/user");
  EXPECT_EQ(StorePath(), "/home/user/.local/share/quenmark/settings.db");
  data.Set("relative");
  EXPECT_EQ(StorePath(), "/home/user/.local/share/quenmark/settings.db");
  data.Set("/data");
  EXPECT_EQ(StorePath(), "/data/quenmark/settings.db");
  store.Set("there.db");
  EXPECT_EQ(StorePath(), "there.db");
}

}  // namespace
}  // namespace quenmark::platform
