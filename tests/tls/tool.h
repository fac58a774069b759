// A command-line program whose standard input stays open, and what it is given.
#pragma once

#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace quenmark::test {

class Tool {
 public:
  explicit Tool(std::vector<std::string> words) {
    const std::string fifo = m_folder.File("input");
    if (mkfifo(fifo.c_str(), 0600) != 0) throw std::runtime_error("no fifo");
    m_input = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    // Line by line, whatever the program itself would do.
    words.insert(words.begin(), {"-c", "exec stdbuf -oL \"$@\" <\"$0\"", fifo});
    m_child = std::make_unique<ChildProcess>("sh", words);
  }
  ~Tool() { close(m_input); }
  Tool(const Tool&) = delete;
  Tool& operator=(const Tool&) = delete;

  void Type(std::string_view text) const {
    if (write(m_input, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      throw std::runtime_error("no input");
    }
  }
  // Reads lines until one contains the text; false when none comes.
  bool Prints(const std::string& text) {
    while (const auto line = m_child->ReadLine()) {
      if (line->find(text) != std::string::npos) return true;
    }
    return false;
  }
  ChildProcess& Process() { return *m_child; }

 private:
  TemporaryFolder m_folder;
  int m_input = -1;
  std::unique_ptr<ChildProcess> m_child;
};

}  // namespace quenmark::test
