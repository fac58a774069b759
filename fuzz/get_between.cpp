// The marker scan against the plain search of the standard library. The first two bytes say where the markers end.
#include "providers/get_between.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

std::string Expected(const std::string& text, const std::string& start, const std::string& end) {
  const std::size_t found = text.find(start);
  if (found == std::string::npos) return {};
  const std::size_t first = found + start.size();
  const std::size_t last = text.find(end, first);
  if (last == std::string::npos) return {};
  std::string between = text.substr(first, last - first);
  between.erase(0, std::min(between.find_first_not_of(' '), between.size()));
  between.erase(between.find_last_not_of(' ') + 1);
  return between;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::string rest(reinterpret_cast<const char*>(data + 2), size - 2);
  const std::size_t first = std::min<std::size_t>(data[0] & 31, rest.size());
  const std::size_t second = std::min<std::size_t>(first + (data[1] & 31), rest.size());
  const std::string start = rest.substr(0, first);
  const std::string end = rest.substr(first, second - first);
  const std::string text = rest.substr(second);
  if (quenmark::providers::GetBetween(text, start, end) != Expected(text, start, end)) std::abort();
  return 0;
}
