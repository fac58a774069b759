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

TEST(ResponseText, IsUtf8UnlessTheCharsetSaysOtherwise) {
  for (const Row& row :
       {Row{"caf\xC3\xA9", "", "caf\xC3\xA9"}, Row{"caf\xC3\xA9", "application/json; charset=utf-8", "caf\xC3\xA9"},
        Row{"\xEF\xBB\xBF{}", "", "{}"}, Row{"a\xE9z\xC3", "", "a\xEF\xBF\xBDz\xEF\xBF\xBD"},
        Row{"caf\xE9 \x80", "text/html; charset=ISO-8859-1", "caf\xC3\xA9 \xE2\x82\xAC"},
        // how a type names it
        Row{"\xC1", "text/html; charset=koi8-r", "\xD0\xB0"}, Row{"\xC1", "a/b;CHARSET=\"KOI8-R\"", "\xD0\xB0"},
        Row{"\xC1", "a/b; x=y ; charset = koi8-r ;z", "\xD0\xB0"}, Row{"\xC1", "a/b; xcharset=koi8-r", "\xEF\xBF\xBD"},
        Row{"a", "a/b;charset", "a"}, Row{"a", "a/b;charset=", "a"}, Row{"a", ";;", "a"},
        // several bytes a character
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
