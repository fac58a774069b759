// Feeds every file of the folders named on the command line to a fuzz target: whole, and cut at a few offsets.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  std::size_t files = 0;
  for (int index = 1; index < argc; ++index) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[index])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
      const auto feed = [&](std::size_t size) {
        const std::vector<std::uint8_t> input(content.begin(), content.begin() + static_cast<std::ptrdiff_t>(size));
        LLVMFuzzerTestOneInput(input.data(), input.size());
      };
      feed(content.size());
      for (std::size_t part = 0; part < 8; ++part) feed(content.size() * part / 8);
      if (!content.empty()) feed(content.size() - 1);
      ++files;
    }
  }
  std::cout << files << " files replayed\n";
  return files > 0 ? 0 : 1;
}
