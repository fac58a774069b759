#include "providers/text_compare.h"

#include "platform/code_page.h"

#include <algorithm>
#include <cstdint>

namespace quenmark::providers {

namespace {

// Ranges of letters and the distance from their capitals to their small letters; in a paired range even code points are
// capitals (odd ones where the range begins odd) and the small letter follows.
struct CaseRange {
  char32_t first;
  char32_t last;
  char32_t distance;  // 0: paired
};
constexpr CaseRange kCapitals[] = {
    {U'A', U'Z', 32},     {0x00C0, 0x00D6, 32}, {0x00D8, 0x00DE, 32}, {0x0100, 0x012F, 0},
    {0x0132, 0x0137, 0},  {0x0139, 0x0148, 0},  {0x014A, 0x0177, 0},  {0x0179, 0x017E, 0},
    {0x0391, 0x03A1, 32}, {0x03A3, 0x03AB, 32}, {0x0400, 0x040F, 80}, {0x0410, 0x042F, 32},
};

char32_t FoldCase(char32_t c) {
  if (c < U'A') return c;
  for (const CaseRange& range : kCapitals) {
    if (c < range.first || c > range.last) continue;
    if (range.distance != 0) return c + range.distance;
    return (c - range.first) % 2 == 0 ? c + 1 : c;
  }
  return c;
}

// What a character weighs in the order of words: its class above, its folded code point below.
std::uint32_t Weight(char32_t character) {
  const char32_t c = FoldCase(character);
  const bool isDigit = c >= U'0' && c <= U'9';
  const bool isLetter = (c >= U'a' && c <= U'z') || c >= 0xC0;
  const std::uint32_t rank = isDigit ? 1 : isLetter ? 2 : 0;
  return (rank << 24) | static_cast<std::uint32_t>(c);
}

int CompareAsWords(std::string_view left, std::string_view right) {
  std::size_t atLeft = 0;
  std::size_t atRight = 0;
  while (atLeft < left.size() && atRight < right.size()) {
    const platform::DecodedCharacter a = platform::DecodeUtf8(left, atLeft);
    const platform::DecodedCharacter b = platform::DecodeUtf8(right, atRight);
    const std::uint32_t weightA = Weight(a.codePoint);
    const std::uint32_t weightB = Weight(b.codePoint);
    if (weightA != weightB) return weightA < weightB ? -1 : 1;
    atLeft += a.length;
    atRight += b.length;
  }
  return (atLeft < left.size() ? 1 : 0) - (atRight < right.size() ? 1 : 0);
}

}  // namespace

int CompareTexts(std::string_view left, std::string_view right, CompareMode mode) {
  return mode == CompareMode::kBinary ? left.compare(right) : CompareAsWords(left, right);
}

std::size_t FindUnits(std::u16string_view units, std::u16string_view what, std::size_t from, CompareMode mode) {
  if (mode == CompareMode::kBinary) return units.find(what, from);
  if (from > units.size()) return std::u16string_view::npos;
  const auto found = std::search(units.begin() + static_cast<std::ptrdiff_t>(from), units.end(), what.begin(),
                                 what.end(), [](char16_t a, char16_t b) { return FoldCase(a) == FoldCase(b); });
  if (found == units.end() && !what.empty()) return std::u16string_view::npos;
  return static_cast<std::size_t>(found - units.begin());
}

std::vector<std::string> SortedCopy(const std::vector<std::string>& items, CompareMode mode) {
  std::vector<std::string> sorted = items;
  std::stable_sort(sorted.begin(), sorted.end(), [mode](const std::string& left, const std::string& right) {
    return CompareTexts(left, right, mode) < 0;
  });
  return sorted;
}

}  // namespace quenmark::providers
