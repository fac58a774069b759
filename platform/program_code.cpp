#include "platform/program_code.h"

#include <sys/mman.h>

#include <bit>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

namespace quenmark::platform {

// A line of the list: "START-END r-xp OFFSET DEVICE INODE PATH", the addresses in hexadecimal. Code that is mapped
// without the right to write is the same in the file, so nothing is lost but a debugger's breakpoints.
void UnmapUsedCode() {
  std::ifstream list("/proc/self/maps");
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line);
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    char dash = 0;
    std::string rights;
    std::string offset;
    std::string device;
    std::uint64_t inode = 0;
    words >> std::hex >> begin >> dash >> end >> rights >> offset >> device >> std::dec >> inode;
    if (!words || rights != "r-xp" || inode == 0 || end <= begin) continue;
    madvise(std::bit_cast<void*>(begin), end - begin, MADV_DONTNEED);
  }
}

}  // namespace quenmark::platform
