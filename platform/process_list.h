// Other processes: looking them up, ending them, launching programs.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quenmark::platform {

class MessageLoop;

using ProcessId = int;  // 0: none

// One running process of this user and the names it can be found by: the executable's file name, the kernel's command
// name, and the last part (after "/" or "\") of the first command-line word.
struct ProcessEntry {
  ProcessId id = 0;
  std::vector<std::string> names;
};

class ProcessList {
 public:
  virtual ~ProcessList() = default;

  // The processes of this user, ascending by id. Zombies and the calling process are left out.
  virtual std::vector<ProcessEntry> List() = 0;
  // Asks the process to end and kills it after a second. True when it is gone.
  virtual bool End(ProcessId process) = 0;
  // Starts a program with its own folder as working folder, without arguments. The value the desktop platform's
  // ShellExecute gives: above 32 on success, else 2 (file not found), 3 (path not found), 5 (access denied) or 8.
  virtual int Launch(const std::string& file) = 0;
};

// The first process one of whose names contains `name` (ASCII case ignored), 0 when none.
ProcessId FindProcess(const std::vector<ProcessEntry>& processes, std::string_view name);

// The real list, over /proc. End waits on the loop. Children are reaped.
class SystemProcessList final : public ProcessList {
 public:
  explicit SystemProcessList(MessageLoop& loop) : m_loop(loop) {}
  std::vector<ProcessEntry> List() override;
  bool End(ProcessId process) override;
  int Launch(const std::string& file) override;

 private:
  MessageLoop& m_loop;
};

}  // namespace quenmark::platform
