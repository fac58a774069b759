// A program started by a test: its output line by line, its end, and its death with the test.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quenmark::test {

class ChildProcess {
 public:
  struct Options {
    std::map<std::string, std::string> environment;  // added to the test's own
    std::string argv0;                               // first command-line word; the program's path when empty
    std::string input;                               // standard input; /dev/null when empty
  };

  // Starts the program (looked up in PATH when it has no slash). Throws std::runtime_error when it cannot.
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments, const Options& options);
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments);
  // Ends what still runs, killing it after two seconds.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  int Id() const { return m_id; }
  // The next line of standard output without its line feed; nothing at its end or when the time is up.
  std::optional<std::string> ReadLine(std::chrono::milliseconds limit = std::chrono::seconds{20});
  // All further standard output up to its end.
  std::string ReadAll();
  const std::string& ErrorText();  // standard error so far
  void Signal(int number);
  bool Running();
  // Exit status; 128 + signal number when a signal ended it; nothing when it still runs after the limit.
  std::optional<int> Wait(std::chrono::milliseconds limit = std::chrono::seconds{20});

 private:
  bool Fill(std::chrono::milliseconds limit);

  int m_id = -1;
  int m_output = -1;
  std::string m_errorFile;
  std::string m_error;
  std::string m_buffer;
  std::optional<int> m_status;
};

}  // namespace quenmark::test
