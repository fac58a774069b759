#include "platform/code_page_convert.h"

#include "platform/code_page.h"

#include <errno.h>
#include <fmt/format.h>
#include <iconv.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>

namespace quenmark::platform {
namespace {

// Code pages whose name for iconv is not "CP" and their number.
constexpr std::pair<std::int32_t, const char*> kNames[] = {
    {1, "CP850"},          {2, "MACINTOSH"},      {10000, "MACINTOSH"},   {20127, "ASCII"},     {20866, "KOI8-R"},
    {21866, "KOI8-U"},     {20932, "EUC-JP"},     {50220, "ISO-2022-JP"}, {51932, "EUC-JP"},    {51949, "EUC-KR"},
    {54936, "GB18030"},    {65000, "UTF-7"},      {28592, "ISO8859-2"},   {28593, "ISO8859-3"}, {28594, "ISO8859-4"},
    {28595, "ISO8859-5"},  {28596, "ISO8859-6"},  {28597, "ISO8859-7"},   {28598, "ISO8859-8"}, {28599, "ISO8859-9"},
    {28603, "ISO8859-13"}, {28605, "ISO8859-15"},
};

std::string NameOf(std::int32_t codePage) {
  for (const auto& [number, name] : kNames) {
    if (number == codePage) return name;
  }
  return codePage > 0 ? fmt::format("CP{}", codePage) : std::string{};
}

const iconv_t kUnknown = reinterpret_cast<iconv_t>(-1);  // NOLINT: iconv's own error value

// One conversion of iconv; Valid() is false when the pair is unknown. To iconv an empty name is the locale's, here it is
// unknown.
class Converter {
 public:
  Converter(const char* to, const char* from) : m_handle(*to != 0 && *from != 0 ? iconv_open(to, from) : kUnknown) {}
  ~Converter() {
    if (Valid()) iconv_close(m_handle);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;

  bool Valid() const { return m_handle != kUnknown; }

  // Appends the conversion of `input`. `unfit` is called with the offset that iconv cannot go on at; it appends a
  // substitute and answers how many bytes to skip, at least 1.
  template <typename Unfit>
  void Run(std::string_view input, std::string& output, const Unfit& unfit) {
    // iconv takes its input as non-const and does not change it.
    char* next = const_cast<char*>(input.data());
    std::size_t left = input.size();
    while (left > 0) {
      if (Step(&next, &left, output) || errno == E2BIG) continue;
      const std::size_t skip = std::min(left, unfit(input.size() - left));
      next += skip;
      left -= skip;
    }
    Step(nullptr, nullptr, output);
  }
  void Append(std::string_view input, std::string& output) {
    Run(input, output, [](std::size_t) { return std::size_t{1}; });
  }

 private:
  bool Step(char** next, std::size_t* left, std::string& output) {
    std::array<char, 4096> room;
    char* end = room.data();
    std::size_t roomLeft = room.size();
    const std::size_t result = iconv(m_handle, next, left, &end, &roomLeft);
    const int error = errno;
    output.append(room.data(), room.size() - roomLeft);
    errno = error;
    return result != static_cast<std::size_t>(-1);
  }

  iconv_t m_handle;
};

std::string_view View(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The byte of Windows-1252 or ISO 8859-1 for a code point; "?" when there is none.
std::uint8_t SingleByte(std::uint32_t codePoint, bool windows1252) {
  if (codePoint < 0x80 || (codePoint >= 0xA0 && codePoint <= 0xFF)) return static_cast<std::uint8_t>(codePoint);
  if (!windows1252) return codePoint <= 0xFF ? static_cast<std::uint8_t>(codePoint) : std::uint8_t{'?'};
  for (unsigned byte = 0x80; byte < 0xA0; ++byte) {
    std::string character;
    AppendWindows1252(character, static_cast<std::uint8_t>(byte));
    if (DecodeUtf8(character, 0).codePoint == codePoint) return static_cast<std::uint8_t>(byte);
  }
  return '?';
}

std::string FromIconv(std::span<const std::uint8_t> bytes, std::int32_t codePage) {
  Converter converter("UTF-8", NameOf(codePage).c_str());
  if (!converter.Valid()) return {};
  std::string text;
  converter.Run(View(bytes), text, [&](std::size_t) {
    AppendUtf8(text, kReplacementCharacter);
    return std::size_t{1};
  });
  return text;
}

std::string ToIconv(std::string_view text, std::int32_t codePage) {
  Converter converter(NameOf(codePage).c_str(), "UTF-8");
  if (!converter.Valid()) return {};
  std::string bytes;
  converter.Run(text, bytes, [&](std::size_t offset) {
    converter.Append("?", bytes);
    return DecodeUtf8(text, offset).length;
  });
  return bytes;
}

}  // namespace

std::string TextFromBytes(std::span<const std::uint8_t> bytes, std::int32_t codePage) {
  switch (codePage) {
    case kCodePageNone: {
      std::u16string units(bytes.size() / 2, u'\0');
      for (std::size_t i = 0; i < units.size(); ++i) {
        units[i] = static_cast<char16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
      }
      return FromUtf16(units);
    }
    case kCodePageSystem:
    case 1252:
      return FromWindows1252(View(bytes));
    case 28591: {
      std::string text;
      for (const std::uint8_t byte : bytes) AppendUtf8(text, byte);
      return text;
    }
    case kCodePageUtf8:
      return SanitizeUtf8(View(bytes));
    default:
      return FromIconv(bytes, codePage);
  }
}

std::vector<std::uint8_t> BytesFromText(std::string_view text, std::int32_t codePage) {
  std::vector<std::uint8_t> bytes;
  switch (codePage) {
    case kCodePageNone: {
      const std::u16string units = ToUtf16(text);
      bytes.reserve(units.size() * 2);
      for (const char16_t unit : units) {
        bytes.push_back(static_cast<std::uint8_t>(unit));
        bytes.push_back(static_cast<std::uint8_t>(unit >> 8));
      }
      return bytes;
    }
    case kCodePageSystem:
    case 1252:
    case 28591:
      bytes.reserve(text.size());
      for (std::size_t offset = 0; offset < text.size();) {
        const DecodedCharacter character = DecodeUtf8(text, offset);
        bytes.push_back(SingleByte(character.codePoint, codePage != 28591));
        offset += character.length;
      }
      return bytes;
    default: {
      const std::string sane = SanitizeUtf8(text);
      const std::string converted = codePage == kCodePageUtf8 ? sane : ToIconv(sane, codePage);
      bytes.assign(converted.begin(), converted.end());
      return bytes;
    }
  }
}

}  // namespace quenmark::platform
