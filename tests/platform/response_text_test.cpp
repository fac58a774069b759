#include "platform/response_text.h"

#include <gtest/gtest.h>

#include <string>

namespace quenmark::platform {
namespace {

using namespace std::string_literals;

TEST(ResponseText, CharsetOfAContentType) {
  const struct {
    const char* type;
    const char* charset;
  } rows[] = {{"text/html; charset=UTF-8", "utf-8"},
              {"text/html;CHARSET=\"Windows-1252\"", "windows-1252"},
              {"a/b; x=y ; charset = koi8-r ;z", "koi8-r"},
              {"text/html", ""},
              {"", ""},
              {"a/b;charset", ""},
              {"a/b;charset=", ""},
              {"a/b; xcharset=utf-8", ""},
              {";;", ""}};
  for (const auto& row : rows) EXPECT_EQ(CharsetOf(row.type), row.charset) << row.type;
}

TEST(ResponseText, IsUtf8UnlessTheCharsetSaysOtherwise) {
  const struct {
    std::string bytes;
    const char* type;
    std::string text;
  } rows[] = {
      {"caf\xC3\xA9", "", "caf\xC3\xA9"},
      {"caf\xC3\xA9", "application/json; charset=utf-8", "caf\xC3\xA9"},
      {"\xEF\xBB\xBF{}", "", "{}"},
      {"a\xE9z\xC3", "", "a\xEF\xBF\xBDz\xEF\xBF\xBD"},
      {"caf\xE9 \x80", "text/html; charset=ISO-8859-1", "caf\xC3\xA9 \xE2\x82\xAC"},
      {"\xC1", "text/html; charset=koi8-r", "\xD0\xB0"},
      {"\x93\xFA\x96\x7B", "a/b; charset=Shift_JIS", "\xE6\x97\xA5\xE6\x9C\xAC"},
      {"\x93", "a/b; charset=Shift_JIS", "\xEF\xBF\xBD"},  // cut in the middle
      {"a\xFFz", "a/b; charset=euc-jp", "a\xEF\xBF\xBDz"},
      {"\xFF\xFE"s + "a\0"s, "a/b; charset=utf-16", "a"},
      {"caf\xC3\xA9", "a/b; charset=no-such-charset", "caf\xC3\xA9"},
      {"caf\xC3\xA9", "a/b; charset=utf-16//IGNORE", "caf\xC3\xA9"},
      {"a\0b"s, "", "a\0b"s},
      {"", "a/b; charset=koi8-r", ""},
  };
  for (const auto& row : rows) EXPECT_EQ(DecodeResponse(row.bytes, row.type), row.text) << row.type;
  const std::string large(100'000, '\xC1');
  EXPECT_EQ(DecodeResponse(large, "a/b; charset=koi8-r").size(), 200'000u);
}

}  // namespace
}  // namespace quenmark::platform
