// Runs the tests in a process namespace of their own where the machine allows that: the feeders under test look at the
// process list, and end companions they find there.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

constexpr const char* kMarker = "QUENMARK_TEST_ISOLATED";

using Words = std::vector<std::string>;

void Become(Words words) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  execvp(argv[0], argv.data());
}

bool Works(Words words) {
  const pid_t child = fork();
  if (child == 0) {
    if (freopen("/dev/null", "w", stderr) != nullptr) Become(std::move(words));
    _exit(127);
  }
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

// Comes back only where namespaces are refused; the tests then run among all processes, as the lock they hold with the
// other suites of that kind allows.
void Isolate(char** argv) {
  setenv(kMarker, "1", 1);
  for (const Words& user : {Words{}, Words{"--user", "--map-current-user"}}) {
    Words words{"unshare", "--fork", "--pid", "--mount-proc", "--kill-child"};
    words.insert(words.end(), user.begin(), user.end());
    Words probe = words;
    probe.emplace_back("true");
    if (!Works(probe)) continue;
    // The shell is the namespace's first process: it reaps what is left behind, and a test that aborts still ends.
    words.insert(words.end(), {"sh", "-c", "\"$0\" \"$@\"; exit $?", argv[0]});
    for (char** word = argv + 1; *word != nullptr; ++word) words.emplace_back(*word);
    Become(std::move(words));
  }
}

bool ListsOnly(char** argv) {
  for (char** word = argv; *word != nullptr; ++word) {
    if (std::string(*word) == "--gtest_list_tests") return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (getenv(kMarker) == nullptr && !ListsOnly(argv)) Isolate(argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
