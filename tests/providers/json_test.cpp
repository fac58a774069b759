#include "providers/json.h"

#include "platform/run_time_error.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quenmark::providers {
namespace {

struct Case {
  std::string text;
  std::string json;  // what the tree reads back as, "" for no root
  std::string errors;
};

void Check(const std::vector<Case>& cases) {
  for (const Case& row : cases) {
    const JsonDocument document = ParseJson(row.text);
    EXPECT_EQ(document.Root() == nullptr ? "" : ToJson(*document.Root()), row.json) << row.text;
    EXPECT_EQ(document.GetParserErrors(), row.errors) << row.text;
  }
}

TEST(ParseJson, ReadsEveryKind) {
  Check({Case{R"({"a":{"b":[1,"x",true,false,null]},"c":{}})", R"({"a":{"b":[1,"x",true,false,null]},"c":{}})", ""},
         Case{" \t\r\n( [ ] )", "[]", ""}, Case{"['it''s',\"isn't\"]", R"(["it","s","isn't"])", ""},
         Case{R"(["\"\\\/\'\b\f\n\r\t\q"])", R"(["\"\\\/'\b\f\n\r\tq"])", ""},
         Case{R"(["\u0041\u00e9\u20AC\ud83d\ude00"])", R"(["A\u00E9\u20AC\uD83D\uDE00"])", ""},
         Case{"[\"\xF0\x9F\x98\x80\x7F\"]", R"(["\uD83D\uDE00\u007F"])", ""},
         Case{R"(["\ud83dx","\ude00","\uzzzz!"])", R"(["\uFFFDx","\uFFFD","\uFFFD!"])", ""},
         Case{"[\"a\xFFz\"]", R"(["a\uFFFDz"])", ""}});
}

TEST(ParseJson, SkipsComments) {
  Check({Case{"/* head * */{\"a\":1}// tail", R"({"a":1})", ""}, Case{"/***/{/* * **/a/ /:*1}", R"({"a//":1})", ""},
         Case{"/ * {\"a\":1 // x\r\n,\"b\":2}", "", "Invalid JSON"}, Case{"[1 /* , 2 \r\n ] */ ,3]", "[1,3]", ""},
         Case{"[1 // , 2 ]\n ,3]", "[1,3]", ""}});
}

TEST(ParseJson, ReadsKeysInEveryForm) {
  Check({Case{"{'a':1,b:2,\"c d\":3,e f :4}", R"({"a":1,"b":2,"cd":3,"ef":4})", ""},
         Case{R"({"a:b":1})", R"({"a:b":1})", ""}, Case{R"({"a" :1})", R"({"a":1})", ""},
         Case{R"({"a" 1})", R"({"a":1})", "Invalid Key at position 6 : a\r\n"},
         Case{R"({"é" "x"})", R"({"é":"x"})", "Invalid Key at position 6 : é\r\n"},
         Case{R"({"a":1,"a":2,"b":3})", R"({"a":1})",
              "This key is already associated with an element of this collection: a\r\n"},
         Case{R"({"a":1,"A":2})", R"({"a":1,"A":2})", ""}});
}

TEST(ParseJson, ComplainsAndKeepsWhatItHas) {
  Check({Case{"", "", "Invalid JSON"}, Case{"  x", "", "Invalid JSON"}, Case{"\"text\"", "", "Invalid JSON"},
         Case{"[1,2", "[1,2]", "Missing ']': [1,2\r\n"},
         Case{R"({"key":"0123456789abcdefghij)", R"({"key":"0123456789abcdefghij"})",
              "Missing '}': 0123456789abcdefghij\r\n"},
         Case{"[\"\xF0\x9F\x98\x80ghijklmnopqrstuvwx", R"(["\uD83D\uDE00ghijklmnopqrstuvwx"])",
              "Missing ']': \xF0\x9F\x98\x80ghijklmnopqrstuvwx\r\n"},
         Case{"[\"\xF0\x9F\x98\x80ghijklmnopqrstuvwxy", R"(["\uD83D\uDE00ghijklmnopqrstuvwxy"])",
              "Missing ']': \xEF\xBF\xBDghijklmnopqrstuvwxy\r\n"},
         Case{R"(["€😀",True])", R"(["\u20AC\uD83D\uDE00"])", "Invalid Boolean at position 8 : True]\r\n"},
         Case{"{\"a\":1,\"b\":fals}", R"({"a":1})", "Invalid Boolean at position 12 : fals}\r\n"},
         Case{"[1,nul]", "[1]", "Invalid null value at position 4 : nul]\r\n"},
         Case{"[1,Null]", "[1]", "Missing ']': [1,Null]\r\n"}, Case{"[x]", "[]", "Missing ']': [x]\r\n"},
         Case{"[[1,],{\"a\":},2]", "[[1],{},2]", ""}, Case{"[1,-,1e99,2]", "[1,null,null,2]", ""}});
}

TEST(ParseJson, CutAnywhereKeepsTheEntriesBefore) {
  const std::string whole = R"({"quotes":{"quote":[{"symbol":"A\u00e9","last":463.37,"ok":true,"no":null}]}} )";
  for (std::size_t size = 1; size < whole.size(); ++size) {
    const JsonDocument document = ParseJson(std::string_view(whole).substr(0, size));
    ASSERT_NE(document.Root(), nullptr);
    const bool complete = size == whole.size() - 1;
    EXPECT_EQ(document.GetParserErrors().empty(), complete) << size;
    const JsonValue& list = document.Root()->At("quotes").At("quote");
    EXPECT_EQ(list.IsList(), size >= whole.find('[') + 1) << size;
    if (size < whole.find("463")) continue;
    EXPECT_EQ(list.Items()[0].At("symbol").Text(), "Aé") << size;
    EXPECT_EQ(list.Items()[0].Find("ok") != nullptr, size >= whole.find(",\"no\"")) << size;
  }
}

TEST(ParseJson, NumbersAreDecimals) {
  using Row = std::pair<std::string, std::string>;
  for (const auto& [text, expected] :
       {Row{"463.370", "463.37"}, Row{"-0", "0"}, Row{"+1", "1"}, Row{".5", "0.5"}, Row{"5.", "5"}, Row{"007", "7"},
        Row{"1e3", "1000"}, Row{"1.5E-3", "0.0015"}, Row{"207.26004999999998", "207.26004999999998"},
        Row{"1.7104986e12", "1710498600000"}, Row{"79228162514264337593543950335", "79228162514264337593543950335"},
        Row{"-79228162514264337593543950335.4", "-79228162514264337593543950335"},
        Row{"7.9228162514264337593543950336", "7.922816251426433759354395034"},
        Row{"0.12345678901234567890123456785", "0.1234567890123456789012345679"},
        Row{"1e-28", "0.0000000000000000000000000001"}, Row{"4e-29", "0"},
        Row{"5e-29", "0.0000000000000000000000000001"}, Row{"0e99999999999999999999", "0"},
        // no number, or too large for a decimal
        Row{"79228162514264337593543950336", ""}, Row{"1e99999999999999999999", ""}, Row{"1e", ""}, Row{"1.2.3", ""},
        Row{"--1", ""}, Row{"e5", ""}}) {
    const JsonDocument document = ParseJson("[" + text + "]");
    ASSERT_EQ(document.Value().Items().size(), 1u) << text;
    EXPECT_EQ(document.Value().Items()[0].Text(), expected) << text;
    EXPECT_EQ(document.Value().Items()[0].IsEmpty(), expected.empty()) << text;
  }
}

TEST(ParseJson, StopsAtTooManyLevels) {
  const auto nested = [](std::size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); };
  EXPECT_EQ(ParseJson(nested(kJsonLevels)).GetParserErrors(), "");
  const JsonDocument document = ParseJson("[1," + nested(kJsonLevels) + ",2]");
  EXPECT_EQ(document.GetParserErrors(),
            "Invalid Array at position 515 : []" + std::string(kJsonLevels - 1, ']') + ",2]\r\n");
  EXPECT_EQ(document.Value().Items().size(), 2u);
}

TEST(ParseJson, HostileTextsCostLinearWorkAndBoundedMemory) {
  std::string keys = "{";
  for (int index = 0; index < 50'000; ++index) keys += "k" + std::to_string(index) + ":1,";
  EXPECT_EQ(ParseJson(keys + "last:2}").Value().Members().size(), 50'001u);
  EXPECT_EQ(ParseJson(keys + "k49999:2}").GetParserErrors(),
            "This key is already associated with an element of this collection: k49999\r\n");
  std::string complaints = "[";
  for (int index = 0; index < 200'000; ++index) complaints += "{a\"b\"1},[t,";
  const JsonDocument document = ParseJson(complaints);
  EXPECT_LE(document.GetParserErrors().size(), kJsonErrorLimit + 64);
  EXPECT_NE(ParseJson(std::string(1'000'000, '[')).Root(), nullptr);
}

TEST(JsonValue, GivesTextsAndNumbers) {
  JsonDocument document =
      ParseJson(R"({"text":"1,5","word":"x","number":-2.50,"yes":true,"no":false,"null":null,"list":[],"object":{}})");
  const JsonValue& root = document.Value();
  EXPECT_EQ(root.At("text").Text(), "1,5");
  EXPECT_EQ(root.At("text").Number(), 1.5);
  EXPECT_EQ(root.At("number").Text(), "-2.5");
  EXPECT_EQ(root.At("yes").Text(), "True");
  EXPECT_EQ(root.At("yes").Number(), -1);
  EXPECT_EQ(root.At("no").Text(), "False");
  EXPECT_EQ(root.At("missing").At("below").Text(), "");
  EXPECT_EQ(root.At("missing").Number(), 0);
  EXPECT_EQ(root.Find("TEXT"), nullptr);
  for (const char* const key : {"null", "list", "object"}) {
    EXPECT_THROW(root.At(key).Text(), platform::RunTimeError) << key;
    EXPECT_THROW(root.At(key).Number(), platform::RunTimeError) << key;
  }
  EXPECT_THROW(root.At("word").Number(), platform::RunTimeError);
}

TEST(ToJson, WritesHandMadeValues) {
  JsonDocument document;
  const JsonValue row[] = {document.MakeNumber(0.1), document.MakeDate({2024, 3, 15, 10, 30, 0}),
                           document.MakeDate({2024, 3, 15, 0, 0, 0})};
  const JsonMember members[] = {{"row", document.MakeList(row)}, {"t", document.MakeText("a/b")}, {"e", JsonValue()}};
  EXPECT_EQ(ToJson(document.MakeObject(members)),
            R"({"row":[0.1,"15/03/2024 10:30:00","15/03/2024"],"t":"a\/b","e":null})");
}

TEST(JsonDocument, KeepsItsValuesWhenMoved) {
  JsonDocument first = ParseJson(R"({"a":"b"})");
  const JsonValue* const value = first.Value().Find("a");
  const JsonDocument second = std::move(first);
  EXPECT_EQ(value->Text(), "b");
  EXPECT_EQ(second.Value().At("a").Text(), "b");
}

}  // namespace
}  // namespace quenmark::providers
