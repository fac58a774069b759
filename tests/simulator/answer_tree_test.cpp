#include "simulator/answer_tree.h"

#include <gtest/gtest.h>

namespace quenmark::simulator {
namespace {

TEST(AnswerTree, DecimalTextIsExact) {
  struct Row {
    std::int64_t value;
    int decimals;
    const char* text;
  };
  for (const Row& row :
       {Row{28400, 2, "284.0"}, Row{46337, 2, "463.37"}, Row{46330, 2, "463.3"}, Row{-5, 2, "-0.05"}, Row{0, 2, "0.0"},
        Row{-123, 2, "-1.23"}, Row{207265, 3, "207.265"}, Row{100001, 4, "10.0001"}}) {
    EXPECT_EQ(DecimalText(row.value, row.decimals), row.text);
  }
}

TEST(AnswerTree, JsonTextIsAlwaysValidUtf8) {
  struct Row {
    std::string text;
    const char* quoted;
  };
  for (const Row& row :
       {Row{"a\"b\\c", R"("a\"b\\c")"}, Row{"\n\x01", R"("\u000a\u0001")"}, Row{"\xC3\xA9", "\"\xC3\xA9\""},
        Row{"\xC3", R"("\ufffd")"}, Row{"\xC0\x80", R"("\ufffd\ufffd")"},
        Row{"\xED\xA0\x80", R"("\ufffd\ufffd\ufffd")"}, Row{"\xF0\x9F\x98\x80", "\"\xF0\x9F\x98\x80\""}}) {
    EXPECT_EQ(QuotedJson(row.text), row.quoted);
  }
}

TEST(AnswerTree, ListsOfOneAreBareAndXmlRepeatsNames) {
  const auto wrapped = [](std::vector<Node> elements) {
    return Node::Object().Add("list", Node::Object().Add("item", ProviderList(std::move(elements))));
  };
  EXPECT_EQ(ToJson(wrapped({})), R"({"list":{"item":null}})");
  EXPECT_EQ(ToJson(wrapped({Node::Number(1)})), R"({"list":{"item":1}})");
  const Node two = wrapped({Node::Number(1), Node::Text("a&b")});
  EXPECT_EQ(ToJson(two), R"({"list":{"item":[1,"a&b"]}})");
  EXPECT_TRUE(ToXml(two).ends_with("<list><item>1</item><item>a&amp;b</item></list>"));
  EXPECT_EQ(ToJson(AsSentTexts(two)), R"({"list":{"item":["1","a&b"]}})");
}

}  // namespace
}  // namespace quenmark::simulator
