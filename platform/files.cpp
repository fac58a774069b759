#include "platform/files.h"

#include "platform/run_time_error.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <system_error>

namespace quenmark::platform {
namespace {

constexpr int kPermissionDenied = 70;
constexpr int kDiskFull = 61;
constexpr int kFileAccess = 75;
constexpr int kPathNotFound = 76;

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
  ~Descriptor() {
    if (m_descriptor >= 0) close(m_descriptor);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return m_descriptor; }
  bool Valid() const { return m_descriptor >= 0; }

 private:
  int m_descriptor;
};

std::string Normalised(std::string_view path) {
  std::string text(path);
  std::replace(text.begin(), text.end(), '\\', '/');
  return text;
}

[[noreturn]] void Fail(int error, const std::string& path) {
  int number = kFileAccess;
  if (error == ENOENT || error == ENOTDIR) number = kPathNotFound;
  if (error == EACCES || error == EPERM || error == EROFS) number = kPermissionDenied;
  if (error == ENOSPC || error == EDQUOT) number = kDiskFull;
  throw RunTimeError(number, fmt::format("{}: {}", path, std::generic_category().message(error)));
}

// 0 or the error.
int WriteAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

bool IsAbsolute(const std::string& path) {
  return !path.empty() && path.front() == '/';
}

}  // namespace

std::string ReadWholeFile(std::string_view path, std::size_t limit) {
  // Opening must not hang on a pipe without a writer.
  const Descriptor file(open(Normalised(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file.Valid() || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size > limit) return {};
  std::string text(size + 1, '\0');  // one byte more than the file, so that its end shows in the same read
  std::size_t used = 0;
  for (;;) {
    if (used == text.size()) text.resize(std::max<std::size_t>(text.size() * 2, 4096));
    const ssize_t count = read(file.Get(), text.data() + used, text.size() - used);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return {};
    if (count == 0) break;
    used += static_cast<std::size_t>(count);
    if (used > limit) return {};
  }
  text.resize(used);
  return text;
}

bool FileExists(std::string_view path) {
  struct stat status {};
  return !path.empty() && stat(Normalised(path).c_str(), &status) == 0;
}

void SalvarArquivo(std::string_view path, std::string_view text) {
  const std::string target = Normalised(path);
  const std::string temporary = fmt::format("{}.{}.tmp", target, getpid());
  unlink(temporary.c_str());  // left by a process that ended in the middle
  {
    const Descriptor file(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!file.Valid()) Fail(errno, target);
    struct stat status {};
    if (stat(target.c_str(), &status) == 0) fchmod(file.Get(), status.st_mode & 07777);
    if (const int error = WriteAll(file.Get(), text); error != 0) {
      unlink(temporary.c_str());
      Fail(error, target);
    }
  }
  if (rename(temporary.c_str(), target.c_str()) != 0) {
    const int error = errno;
    unlink(temporary.c_str());
    Fail(error, target);
  }
}

void AppendToFile(std::string_view path, std::string_view text) {
  const std::string target = Normalised(path);
  const Descriptor file(open(target.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
  if (!file.Valid()) Fail(errno, target);
  const off_t before = lseek(file.Get(), 0, SEEK_END);
  if (const int error = WriteAll(file.Get(), text); error != 0) {
    // A full disk may have taken a part of the record: none of it stays.
    if (before >= 0 && ftruncate(file.Get(), before) != 0) Fail(errno, target);
    Fail(error, target);
  }
}

void CreatePrivateFolders(std::string_view folder) {
  const std::string path = Normalised(folder);
  for (std::size_t end = path.find('/', 1); !path.empty(); end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    struct stat status {};
    if (mkdir(part.c_str(), 0700) != 0 && (stat(part.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))) {
      Fail(errno == EEXIST ? ENOTDIR : errno, part);
    }
    if (end == std::string::npos) break;
  }
}

bool IsSafeInFileName(std::string_view symbol) {
  return !symbol.empty() && symbol.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos &&
         symbol.find("..") == std::string_view::npos;
}

std::string ExecutablePath() {
  std::array<char, 4096> buffer;
  const ssize_t size = readlink("/proc/self/exe", buffer.data(), buffer.size());
  if (size <= 0) return {};
  std::string path(buffer.data(), static_cast<std::size_t>(size));
  constexpr std::string_view kReplaced = " (deleted)";  // the file was replaced while the program runs
  if (path.ends_with(kReplaced)) path.resize(path.size() - kReplaced.size());
  return path;
}

std::string ProgramFolder() {
  std::string folder = Normalised(Environment("FEEDER_HOME"));
  if (folder.empty()) {
    folder = ExecutablePath();
    folder.resize(folder.find_last_of('/') == std::string::npos ? 0 : folder.find_last_of('/'));
  }
  while (folder.ends_with('/')) folder.pop_back();
  return folder;
}

std::string StorePath() {
  if (std::string named = Normalised(Environment("FEEDER_STORE")); !named.empty()) return named;
  // A relative folder in either variable is invalid (XDG base directories) and is passed over.
  constexpr const char* kName = "/quenmark/settings.db";
  if (const std::string data = Environment("XDG_DATA_HOME"); IsAbsolute(data)) return data + kName;
  if (const std::string home = Environment("HOME"); IsAbsolute(home)) return home + "/.local/share" + kName;
  return {};
}

std::string Environment(const char* name) {
  const char* value = getenv(name);
  return value == nullptr ? std::string() : std::string(value);
}

}  // namespace quenmark::platform
