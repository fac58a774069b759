#include "providers/html_entities.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

namespace quenmark::providers {
namespace {

TEST(HtmlEntityDecode, ReplacesTheListedEntities) {
  using Row = std::pair<std::string, std::string>;
  for (const auto& [text, expected] :
       {Row{"", ""}, Row{"S&P 500", "S&P 500"}, Row{"S&amp;P", "S&P"}, Row{"&amp;amp;", "&"},
        Row{"&amp;amp;amp;", "&amp;"}, Row{"&amp;lt;b&amp;gt;", "<b>"}, Row{"a&nbsp;b&#160;c&#32;d&#032;e", "abcde"},
        Row{"&quot;&apos;&middot;&#63;&#063;&#183;", "&quot;&apos;&middot;&#63;&#063;&#183;"},
        Row{"&#39;&#039;&#126;&#127;&#0039;", "''~&#127;&#0039;"},
        Row{"&Agrave;&szlig;&yuml;&iexcl;&divide;&times;", "Àßÿ¡÷×"}, Row{"&#192;&#255;&#215;&#247;&#191;", "Àÿ×÷¿"},
        Row{"&OElig;&euro;&trade;&#8364;&#8482;&hellip;", "Œ€™€™…"},
        Row{"&AMP;&Amp;&ampx;&amp", "&AMP;&Amp;&ampx;&amp"},
        // A replacement completes an entity further down the list, but not one further up.
        Row{"&#38;#39;", "'"}, Row{"&#38;#37;", "&#37;"}, Row{"&#38;amp;", "&amp;"}, Row{"&ie&nbsp;xcl;", "¡"},
        Row{"&Agr&nbsp;ave;", "&Agrave;"}, Row{"&#1&#48;0;", "d"}, Row{"&#100&#59;", "d"}, Row{"&euro&#59;", "&euro;"},
        Row{"&&amp;&;;", "&&&;;"}}) {
    EXPECT_EQ(HtmlEntityDecode(text), expected) << text;
  }
}

// The list as plain replacements of whole texts, written down independently for a part of it.
std::string DecodeOneAfterTheOther(std::string text) {
  std::vector<std::pair<std::string, std::string>> list = {{"&amp;", "&"}, {"&lt;", "<"}, {"&gt;", ">"}, {"&amp;", "&"},
                                                           {"&lt;", "<"},  {"&gt;", ">"}, {"&nbsp;", ""}};
  for (const int width : {0, 3}) {
    for (int code = 32; code <= 99; ++code) {
      std::string number = std::to_string(code);
      if (width == 3) number.insert(0, "0");
      if (code != 63) list.emplace_back("&#" + number + ";", code == 32 ? "" : std::string(1, static_cast<char>(code)));
    }
  }
  list.emplace_back("&#338;", "Œ");  // the only other number that the test's digits can form
  for (const auto& [entity, character] : list) {
    for (std::size_t at = text.find(entity); at != std::string::npos; at = text.find(entity, at + character.size())) {
      text.replace(at, entity.size(), character);
    }
  }
  return text;
}

TEST(HtmlEntityDecode, EqualsReplacingOneAfterTheOther) {
  const std::vector<std::string> pieces = {"&",      ";", "#", "amp", "lt;",    "nbsp;", "&#38;", "&#59;", "&#35;",
                                           "&#051;", "3", "8", "0",   "&nbsp;", "&amp;", "&#",    " ",     "&#32;"};
  std::mt19937 random(7);
  for (int round = 0; round < 3'000; ++round) {
    std::string text;
    for (int count = 0; count < 12; ++count) text += pieces[random() % pieces.size()];
    ASSERT_EQ(HtmlEntityDecode(text), DecodeOneAfterTheOther(text)) << text;
  }
}

}  // namespace
}  // namespace quenmark::providers
