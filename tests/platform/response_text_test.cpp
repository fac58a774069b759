#include "platform/response_text.h"

#include <gtest/gtest.h>

#include <string>

namespace quenmark::platform {
namespace {

using namespace std::string_literals;

struct Row {
  std::string bytes;
  const char* type;
  std::string text;
};

TEST(ResponseText, CharsetOfAContentType) {
  using Type = std::pair<const char*, const char*>;
  for (const auto& [type, charset] :
       {Type{"text/html; charset=UTF-8", "utf-8"}, Type{"text/html;CHARSET=\"Windows-1252\"", "windows-1252"},
        Type{"a/b; x=y ; charset = koi8-r ;z", "koi8-r"}, Type{"text/html", ""}, Type{"", ""}, Type{"a/b;charset", ""},
        Type{"a/b;charset=", ""}, Type{"a/b; xcharset=utf-8", ""}, Type{";;", ""}}) {
    EXPECT_EQ(CharsetOf(type), charset) << type;
  }
}

TEST(ResponseText, IsUtf8UnlessTheCharsetSaysOtherwise) {
  for (const Row& row :
       {Row{"caf\xC3\xA9", "", "caf\xC3\xA9"}, Row{"caf\xC3\xA9", "application/json; charset=utf-8", "caf\xC3\xA9"},
        Row{"\xEF\xBB\xBF{}", "", "{}"}, Row{"a\xE9z\xC3", "", "a\xEF\xBF\xBDz\xEF\xBF\xBD"},
        Row{"caf\xE9 \x80", "text/html; charset=ISO-8859-1", "caf\xC3\xA9 \xE2\x82\xAC"},
        Row{"\xC1", "text/html; charset=koi8-r", "\xD0\xB0"},
        Row{"\x93\xFA\x96\x7B", "a/b; charset=Shift_JIS", "\xE6\x97\xA5\xE6\x9C\xAC"},
        Row{"\x93", "a/b; charset=Shift_JIS", "\xEF\xBF\xBD"},  // cut in the middle
        Row{"a\xFFz", "a/b; charset=euc-jp", "a\xEF\xBF\xBDz"}, Row{"\xFF\xFE"s + "a\0"s, "a/b; charset=utf-16", "a"},
        Row{"caf\xC3\xA9", "a/b; charset=no-such-charset", "caf\xC3\xA9"},
        Row{"caf\xC3\xA9", "a/b; charset=utf-16//IGNORE", "caf\xC3\xA9"}, Row{"a\0b"s, "", "a\0b"s},
        Row{"", "a/b; charset=koi8-r", ""}}) {
    EXPECT_EQ(DecodeResponse(row.bytes, row.type), row.text) << row.type;
  }
  const std::string large(100'000, '\xC1');
  EXPECT_EQ(DecodeResponse(large, "a/b; charset=koi8-r").size(), 200'000u);
}

}  // namespace
}  // namespace quenmark::platform
