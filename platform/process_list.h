// Other processes: looking them up, ending them, launching programs.
#pragma once

#include <memory>
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
  // Asks the process to end and kills it after a second. True when it is gone. The own process is refused.
  virtual bool End(ProcessId process) = 0;
  // Starts a program with its own folder as working folder, without arguments, in a session of its own; it outlives
  // this process and inherits no descriptor. The value the desktop platform's ShellExecute gives: above 32 on success,
  // else 2 (file not found), 3 (path not found), 5 (access denied), 8 (out of memory) or 11 (not a program).
  virtual int Launch(const std::string& file) = 0;
};

// The first process one of whose names contains `name` (ASCII case ignored), 0 when none. No process has the empty
// name.
ProcessId FindProcess(const std::vector<ProcessEntry>& processes, std::string_view name);

// The real list, over /proc. End waits on the loop, so other handlers run meanwhile. Launched programs that end are
// reaped while this object and the loop live. The loop must outlive the list.
class SystemProcessList final : public ProcessList {
 public:
  explicit SystemProcessList(MessageLoop& loop);
  ~SystemProcessList() override;
  SystemProcessList(const SystemProcessList&) = delete;
  SystemProcessList& operator=(const SystemProcessList&) = delete;

  std::vector<ProcessEntry> List() override;
  bool End(ProcessId process) override;
  int Launch(const std::string& file) override;

 private:
  class Children;

  MessageLoop& m_loop;
  std::unique_ptr<Children> m_children;
};

}  // namespace quenmark::platform
