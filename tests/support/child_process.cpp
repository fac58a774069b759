#include "tests/support/child_process.h"

#include "tests/support/eventually.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

extern char** environ;

namespace quenmark::test {
namespace {

std::string TemporaryFile() {
  std::string name = "/tmp/quenmark-child-XXXXXX";
  const int descriptor = mkostemp(name.data(), O_CLOEXEC);
  if (descriptor < 0) throw std::runtime_error("no temporary file");
  close(descriptor);
  return name;
}

std::vector<std::string> MergedEnvironment(const std::map<std::string, std::string>& added) {
  std::vector<std::string> merged;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!added.contains(text.substr(0, text.find('=')))) merged.push_back(text);
  }
  for (const auto& [name, value] : added) merged.push_back(name + "=" + value);
  return merged;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments)
    : ChildProcess(program, arguments, Options{}) {}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const Options& options)
    : m_errorFile(TemporaryFile()) {
  std::vector<std::string> words{options.argv0.empty() ? program : options.argv0};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environment = MergedEnvironment(options.environment);
  std::vector<char*> argv = Pointers(words);
  std::vector<char*> envp = Pointers(environment);
  std::string inputFile = "/dev/null";
  if (!options.input.empty()) {
    inputFile = TemporaryFile();
    std::ofstream(inputFile, std::ios::binary) << options.input;
  }

  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, inputFile.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, m_errorFile.c_str(), O_WRONLY | O_APPEND, 0);
  const int failure = posix_spawnp(&m_id, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  m_output = ends[0];
  if (inputFile != "/dev/null") unlink(inputFile.c_str());
  if (failure != 0) {
    close(m_output);
    unlink(m_errorFile.c_str());
    throw std::runtime_error("cannot start " + program);
  }
}

ChildProcess::~ChildProcess() {
  // Asked first, so that it can tidy up.
  Signal(SIGTERM);
  if (!Wait(std::chrono::seconds{2})) {
    kill(m_id, SIGKILL);
    waitpid(m_id, nullptr, 0);
  }
  close(m_output);
  unlink(m_errorFile.c_str());
}

bool ChildProcess::Fill(std::chrono::milliseconds limit) {
  pollfd wanted{m_output, POLLIN, 0};
  if (poll(&wanted, 1, static_cast<int>(limit.count())) <= 0) return false;
  std::array<char, 65536> piece;
  const ssize_t size = read(m_output, piece.data(), piece.size());
  if (size <= 0) return false;
  m_buffer.append(piece.data(), static_cast<std::size_t>(size));
  return true;
}

std::optional<std::string> ChildProcess::ReadLine(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (const std::size_t end = m_buffer.find('\n'); end != std::string::npos) {
      std::string line = m_buffer.substr(0, end);
      m_buffer.erase(0, end + 1);
      return line;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !Fill(left)) return std::nullopt;
  }
}

std::string ChildProcess::ReadAll() {
  while (Fill(std::chrono::seconds{30})) {
  }
  return std::exchange(m_buffer, {});
}

const std::string& ChildProcess::ErrorText() {
  std::ifstream file(m_errorFile, std::ios::binary);
  m_error.assign(std::istreambuf_iterator<char>(file), {});
  return m_error;
}

void ChildProcess::Signal(int number) {
  if (Running()) kill(m_id, number);
}

bool ChildProcess::Running() {
  if (m_status) return false;
  int status = 0;
  if (waitpid(m_id, &status, WNOHANG) != m_id) return true;
  m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return false;
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds limit) {
  Eventually([this] { return !Running(); }, limit);
  return m_status;
}

}  // namespace quenmark::test
