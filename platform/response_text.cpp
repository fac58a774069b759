#include "platform/response_text.h"

#include "platform/code_page.h"

#include <errno.h>
#include <iconv.h>

#include <array>
#include <memory>
#include <optional>
#include <type_traits>

namespace quenmark::platform {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

struct ConverterCloser {
  void operator()(iconv_t converter) const { iconv_close(converter); }
};
using Converter = std::unique_ptr<std::remove_pointer_t<iconv_t>, ConverterCloser>;

// Nothing when the system does not know the charset.
std::optional<std::string> Convert(std::string& bytes, const std::string& charset) {
  constexpr std::string_view kNameCharacters = "abcdefghijklmnopqrstuvwxyz0123456789-_.:";
  if (charset.find_first_not_of(kNameCharacters) != std::string::npos) return std::nullopt;
  const iconv_t opened = iconv_open("UTF-8", charset.c_str());
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the interface's own mark of a failure
  if (opened == reinterpret_cast<iconv_t>(-1)) return std::nullopt;
  const Converter converter(opened);
  std::string text;
  std::array<char, 16384> piece;
  char* from = bytes.data();
  std::size_t left = bytes.size();
  for (bool more = true; more;) {
    char* to = piece.data();
    std::size_t room = piece.size();
    const std::size_t result = iconv(converter.get(), &from, &left, &to, &room);
    text.append(piece.data(), piece.size() - room);
    if (result != static_cast<std::size_t>(-1)) break;
    if (errno == E2BIG) continue;
    AppendUtf8(text, kReplacementCharacter);
    more = errno == EILSEQ && left > 1;  // else the text ends in the middle of a character
    ++from;
    --left;
  }
  return text;
}

}  // namespace

std::string CharsetOf(std::string_view contentType) {
  for (std::size_t at = contentType.find(';'); at != std::string_view::npos; at = contentType.find(';', at + 1)) {
    const std::string_view parameter = contentType.substr(at + 1, contentType.find(';', at + 1) - at - 1);
    const std::size_t equals = parameter.find('=');
    if (equals == std::string_view::npos) continue;
    if (!EqualsIgnoreAsciiCase(Trimmed(parameter.substr(0, equals)), "charset")) continue;
    std::string_view value = Trimmed(parameter.substr(equals + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
    return AsciiLower(value);
  }
  return {};
}

std::string DecodeResponse(std::string bytes, std::string_view contentType) {
  const std::string charset = CharsetOf(contentType);
  // Latin-1 means Windows-1252 on the web (WHATWG Encoding Standard §4.2).
  for (const char* name : {"iso-8859-1", "latin1", "windows-1252", "cp1252"}) {
    if (charset == name) return FromWindows1252(bytes);
  }
  if (!charset.empty() && charset != "utf-8" && charset != "utf8") {
    if (std::optional<std::string> text = Convert(bytes, charset)) return std::move(*text);
  }
  if (bytes.starts_with(kByteOrderMark)) bytes.erase(0, kByteOrderMark.size());
  return SanitizeUtf8(bytes);
}

}  // namespace quenmark::platform
