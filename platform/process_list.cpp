#include "platform/process_list.h"

#include "platform/code_page.h"
#include "platform/message_loop.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <map>
#include <optional>
#include <system_error>
#include <utility>

extern char** environ;

namespace quenmark::platform {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kGrace{1000};  // between asking and killing, and from killing to giving up
constexpr std::size_t kFirstWordLimit = 4096;
constexpr std::string_view kReplaced = " (deleted)";  // the program file was replaced while the process runs

std::string_view LastPart(std::string_view path) {
  const std::size_t slash = path.find_last_of("/\\");
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void AddName(std::vector<std::string>& names, std::string_view name) {
  if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end()) names.emplace_back(name);
}

// Reads the beginning of a file of /proc into `buffer`; "" when it cannot be read.
std::string_view ReadStart(int folder, const char* path, std::array<char, kFirstWordLimit>& buffer) {
  const int file = openat(folder, path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return {};
  const ssize_t size = read(file, buffer.data(), buffer.size());
  close(file);
  return {buffer.data(), size > 0 ? static_cast<std::size_t>(size) : 0};
}

// The names of one process, nothing for a zombie or a kernel thread: these have neither an executable nor a command
// line.
std::vector<std::string> NamesOf(int proc, const std::string& id) {
  std::array<char, kFirstWordLimit> buffer;
  std::vector<std::string> names;
  const ssize_t size = readlinkat(proc, (id + "/exe").c_str(), buffer.data(), buffer.size());
  if (size > 0) {
    std::string_view path(buffer.data(), static_cast<std::size_t>(size));
    if (path.ends_with(kReplaced)) path.remove_suffix(kReplaced.size());
    AddName(names, LastPart(path));
  }
  std::string_view words = ReadStart(proc, (id + "/cmdline").c_str(), buffer);
  if (size <= 0 && words.empty()) return {};
  const std::string first(LastPart(words.substr(0, words.find('\0'))));
  std::string_view command = ReadStart(proc, (id + "/comm").c_str(), buffer);
  if (command.ends_with('\n')) command.remove_suffix(1);
  AddName(names, command);
  AddName(names, first);
  return names;
}

class PidDescriptor {
 public:
  explicit PidDescriptor(ProcessId process)
      : m_descriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0))), m_error(m_descriptor < 0 ? errno : 0) {}
  ~PidDescriptor() {
    if (m_descriptor >= 0) close(m_descriptor);
  }
  PidDescriptor(PidDescriptor&& other) noexcept
      : m_descriptor(std::exchange(other.m_descriptor, -1)), m_error(other.m_error) {}
  PidDescriptor& operator=(PidDescriptor&&) = delete;

  int Get() const { return m_descriptor; }
  int Error() const { return m_error; }
  // False when the process is gone or not ours.
  bool Signal(int number) const { return syscall(SYS_pidfd_send_signal, m_descriptor, number, nullptr, 0) == 0; }

 private:
  int m_descriptor;
  int m_error;
};

// Notes the end of a process. It does not touch the list that is asked, which a handler may destroy during the wait.
class EndWatch {
 public:
  EndWatch(MessageLoop& loop, int descriptor) : m_loop(loop), m_outside(loop) {
    m_watch = m_loop.Watch(descriptor, {.read = true}, Trigger::kEdge, [this](Readiness) { m_gone = true; });
  }
  ~EndWatch() { m_loop.Unwatch(m_watch); }
  EndWatch(const EndWatch&) = delete;
  EndWatch& operator=(const EndWatch&) = delete;

  bool Wait() {
    return m_loop.WaitUntil([this] { return m_gone; }, m_loop.TheClock().Monotonic() + kGrace);
  }
  bool Gone() const { return m_gone; }

 private:
  MessageLoop& m_loop;
  MessageLoop::OutsideWork m_outside;
  WatchId m_watch = 0;
  bool m_gone = false;
};

int ShellResult(int error, const std::string& folder) {
  struct stat status {};
  switch (error) {
    case 0:
      return 33;
    case ENOENT:
      return stat(folder.c_str(), &status) == 0 ? 2 : 3;
    case ENOTDIR:
      return 3;
    case EACCES:
    case EPERM:
      return 5;
    case ENOEXEC:
      return 11;
    default:
      return 8;
  }
}

// Default signals, nothing blocked, no terminal, no descriptors but three on /dev/null, and `folder` as working folder.
int Spawn(const std::string& path, const std::string& folder, ProcessId& process) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigfillset(&signals);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
  std::string word = path;
  std::array<char*, 2> arguments{word.data(), nullptr};
  const int error = posix_spawn(&process, path.c_str(), &actions, &attributes, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return error;
}

}  // namespace

// The launched programs, watched until they end.
class SystemProcessList::Children {
 public:
  explicit Children(MessageLoop& loop) : m_loop(loop) {}
  ~Children() {
    for (const auto& [process, child] : m_children) m_loop.Unwatch(child.watch);
  }
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;

  void Add(ProcessId process) {
    PidDescriptor descriptor(process);
    const WatchId watch =
        m_loop.Watch(descriptor.Get(), {.read = true}, Trigger::kLevel, [this, process](Readiness) { Reap(process); });
    m_children.emplace(process, Child{std::move(descriptor), watch});
  }

 private:
  struct Child {
    PidDescriptor descriptor;
    WatchId watch;
  };

  void Reap(ProcessId process) {
    if (waitpid(process, nullptr, WNOHANG) == 0) return;
    const auto found = m_children.find(process);
    m_loop.Unwatch(found->second.watch);
    m_children.erase(found);
  }

  MessageLoop& m_loop;
  std::map<ProcessId, Child> m_children;
};

ProcessId FindProcess(const std::vector<ProcessEntry>& processes, std::string_view name) {
  if (name.empty()) return 0;
  const auto same = [](char left, char right) { return AsciiLower(left) == AsciiLower(right); };
  for (const ProcessEntry& process : processes) {
    for (const std::string& candidate : process.names) {
      if (std::search(candidate.begin(), candidate.end(), name.begin(), name.end(), same) != candidate.end()) {
        return process.id;
      }
    }
  }
  return 0;
}

SystemProcessList::SystemProcessList(MessageLoop& loop) : m_loop(loop), m_children(std::make_unique<Children>(loop)) {}

SystemProcessList::~SystemProcessList() = default;

std::vector<ProcessEntry> SystemProcessList::List() {
  std::vector<ProcessEntry> processes;
  const std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), &closedir);
  if (!proc) return processes;
  const int folder = dirfd(proc.get());
  const uid_t user = geteuid();
  const ProcessId self = getpid();
  while (const dirent* entry = readdir(proc.get())) {
    const std::string id = entry->d_name;
    ProcessId process = 0;
    const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), process);
    if (error != std::errc() || end != id.data() + id.size() || process == self) continue;
    struct stat status {};
    if (fstatat(folder, id.c_str(), &status, 0) != 0 || status.st_uid != user) continue;
    if (std::vector<std::string> names = NamesOf(folder, id); !names.empty()) {
      processes.push_back({process, std::move(names)});
    }
  }
  std::sort(processes.begin(), processes.end(),
            [](const ProcessEntry& left, const ProcessEntry& right) { return left.id < right.id; });
  return processes;
}

bool SystemProcessList::End(ProcessId process) {
  if (process <= 0 || process == getpid()) return false;
  // The descriptor stays with this process even when its number is given to another one meanwhile.
  const PidDescriptor descriptor(process);
  if (descriptor.Get() < 0) return descriptor.Error() == ESRCH;
  EndWatch end(m_loop, descriptor.Get());
  if (descriptor.Signal(SIGTERM) && !end.Wait() && descriptor.Signal(SIGKILL)) end.Wait();
  return end.Gone() || (!descriptor.Signal(0) && errno == ESRCH);
}

int SystemProcessList::Launch(const std::string& file) {
  std::string name = file;
  std::replace(name.begin(), name.end(), '\\', '/');
  std::error_code failure;
  const std::filesystem::path path = std::filesystem::absolute(name, failure);
  if (name.empty() || failure) return 2;
  ProcessId process = 0;
  const std::string folder = path.parent_path().string();
  const int error = Spawn(path.string(), folder, process);
  if (error == 0) m_children->Add(process);
  return ShellResult(error, folder);
}

}  // namespace quenmark::platform
