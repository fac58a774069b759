#include "providers/json_script.h"

#include <gtest/gtest.h>

#include <vector>

namespace quenmark::providers {
namespace {

class RecordingHost final : public ScriptHost {
 public:
  void ShowMessage(const std::string& message, const std::string& title, bool exclamation) override {
    shown.push_back(title + "|" + message + (exclamation ? "|!" : ""));
  }
  std::optional<std::string> Prompt(const std::string& message, const std::string& title,
                                    const std::string& preset) override {
    return message + "/" + title + "/" + preset;
  }
  std::optional<std::string> Evaluate(const std::string& expression) override {
    if (expression == "fails") return std::nullopt;
    return "[" + expression + "]";
  }
  std::vector<std::string> shown;
};

TEST(JsonScript, EvaluatesEveryCommand) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {R"(["a",null,1.50,true,"<%(x)%>"])", "anull1.5True<%(x)%>"},
      {R"([{"name":"input","message":"m","title":"t","default":"<%(1+1)%>!<%(fails)%>"}])", "m/t/[1+1]!"},
      {R"([{"name":"switch","case":"b","items":{"a":1,"b":["x",2]},"default":"d"}])", "x2"},
      {R"([{"name":"switch","case":"c","items":{"a":1},"default":{"name":"prompt"}}])", "//"},
      {R"([{"name":"if","value1":10,"value2":"9","type":"gt","true":"y","false":"n"}])", "y"},
      {R"([{"name":"if","value1":"10","value2":"9x","type":"gte","true":"y","false":"n"}])", "n"},
      {R"([{"name":"if","value1":1,"value2":1,"type":"lte","true":"y"}])", "y"},
      {R"([{"name":"if","value1":1,"value2":1,"type":"lt","true":"y"}])", ""},
      {R"([{"name":"if","value1":1,"value2":"1.0","type":"eq","true":"y"}])", "y"},
      {R"([{"name":"set","key":"k","value":["a","b"]},{"name":"get","key":"k"},{"name":"get","key":"q"}])", "ab"},
      {R"(["a",{"name":"return","value":"b"},"c"])", "ab"},
      {R"([{"name":"if","value1":1,"value2":1,"type":"eq","true":[{"name":"return","value":"r"},"s"]},"t"])", "r"},
      {R"([{"name":"unknown"},{}])", ""},
      {R"({"name":"prompt"})", ""},
  };
  for (const auto& [text, expected] : cases) {
    RecordingHost host;
    EXPECT_EQ(cJSONScript(host).Eval(text), expected) << text;
    EXPECT_TRUE(host.shown.empty()) << text;
  }
}

TEST(JsonScript, ShowsMessagesThroughTheHost) {
  RecordingHost host;
  cJSONScript script(host);
  EXPECT_EQ(script.Eval(R"([{"name":"alert","message":"hello","title":"there"}])"), "");
  EXPECT_EQ(script.Eval("[1"), "");
  EXPECT_EQ(host.shown, (std::vector<std::string>{"there|hello", "Parser Error|Missing ']': [1\r\n|!"}));
}

TEST(JsonScript, LimitsNestingAndSize) {
  const auto nested = [](std::size_t levels) {
    std::string text = "\"end\"";
    for (std::size_t level = 0; level < levels; ++level) text = R"({"name":"return","value":)" + text + "}";
    return "[" + text + "]";
  };
  ScriptHost host;  // answers as if everything were dismissed
  const char* script = R"([{"name":"alert","message":"m"},{"name":"input","default":"d"},
                           {"name":"return","value":"<%(1)%>x"}])";
  EXPECT_EQ(cJSONScript(host).Eval(script), "x");
  EXPECT_EQ(cJSONScript(host).Eval(nested(cJSONScript::kNestingLimit)), "end");
  EXPECT_EQ(cJSONScript(host).Eval(nested(cJSONScript::kNestingLimit + 1)), "ERROR: Nesting level exceeded.");
  std::string doubling = R"([{"name":"set","key":"k","value":"xx"})";
  for (int round = 0; round < 40; ++round) {
    doubling += R"(,{"name":"set","key":"k","value":[{"name":"get","key":"k"},{"name":"get","key":"k"}]})";
  }
  EXPECT_EQ(cJSONScript(host).Eval(doubling + R"(,{"name":"get","key":"k"}])").size(), cJSONScript::kResultLimit);
}

}  // namespace
}  // namespace quenmark::providers
