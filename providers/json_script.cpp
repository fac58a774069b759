#include "providers/json_script.h"

#include "platform/number_text.h"

#include <algorithm>

namespace quenmark::providers {

namespace {

constexpr std::string_view kOpeningMark = "<%(";
constexpr std::string_view kClosingMark = ")%>";

bool Holds(std::string_view type, int order) {
  if (type == "eq") return order == 0;
  if (type == "gt") return order > 0;
  if (type == "lt") return order < 0;
  if (type == "gte") return order >= 0;
  if (type == "lte") return order <= 0;
  return false;
}

int Compare(const std::string& left, const std::string& right) {
  const std::optional<double> a = platform::ParseNumber(left);
  const std::optional<double> b = platform::ParseNumber(right);
  if (a && b) return *a < *b ? -1 : *a > *b ? 1 : 0;
  return left.compare(right);
}

void AppendLimited(std::string& result, std::string_view text) {
  result += text.substr(0, cJSONScript::kResultLimit - std::min(result.size(), cJSONScript::kResultLimit));
}

}  // namespace

void ScriptHost::ShowMessage(const std::string&, const std::string&, bool) {}

std::optional<std::string> ScriptHost::Prompt(const std::string&, const std::string&, const std::string&) {
  return std::nullopt;
}

std::optional<std::string> ScriptHost::Evaluate(const std::string&) {
  return std::nullopt;
}

std::string cJSONScript::Eval(std::string_view text) {
  const JsonDocument document = ParseJson(text);
  if (!document.GetParserErrors().empty()) {
    m_host.ShowMessage(document.GetParserErrors(), "Parser Error", true);
    return {};
  }
  m_returned = false;
  std::string result;
  for (const JsonValue& item : document.Value().Items()) {
    if (item.IsText()) {
      AppendLimited(result, item.Characters());
    } else {
      AppendLimited(result, ValueOf(item));
    }
    if (m_returned) break;
  }
  return result;
}

std::string cJSONScript::ExecCommand(const JsonValue& command) {
  if (m_level == kNestingLimit) return "ERROR: Nesting level exceeded.";
  ++m_level;
  std::string result = Dispatch(command);
  --m_level;
  return result;
}

std::string cJSONScript::Dispatch(const JsonValue& command) {
  const std::string_view name = command.At("name").Characters();
  const auto entry = [&](std::string_view key) { return ValueOf(command.At(key)); };
  if (name == "alert") {
    m_host.ShowMessage(entry("message"), entry("title"), false);
    return {};
  }
  if (name == "input" || name == "prompt") {
    return m_host.Prompt(entry("message"), entry("title"), entry("default")).value_or("");
  }
  if (name == "switch") return Switch(command);
  if (name == "if") return If(command);
  if (name == "set") {
    m_kept[entry("key")] = entry("value");
    return {};
  }
  if (name == "get") {
    const auto found = m_kept.find(entry("key"));
    return found == m_kept.end() ? std::string() : found->second;
  }
  if (name == "return") {
    std::string result = entry("value");
    m_returned = true;
    return result;
  }
  return {};
}

std::string cJSONScript::Switch(const JsonValue& command) {
  const JsonValue* const chosen = command.At("items").Find(ValueOf(command.At("case")));
  return ValueOf(chosen == nullptr ? command.At("default") : *chosen);
}

std::string cJSONScript::If(const JsonValue& command) {
  const int order = Compare(ValueOf(command.At("value1")), ValueOf(command.At("value2")));
  return ValueOf(command.At(Holds(ValueOf(command.At("type")), order) ? "true" : "false"));
}

std::string cJSONScript::ValueOf(const JsonValue& value) {
  switch (value.Kind()) {
    case JsonKind::kNull:
      return "null";
    case JsonKind::kText:
      return ExpandMarks(value.Characters());
    case JsonKind::kObject:
      return ExecCommand(value);
    case JsonKind::kEmpty:
    case JsonKind::kBoolean:
    case JsonKind::kNumber:
    case JsonKind::kDate:
      return value.Text();
    case JsonKind::kList:
      break;
  }
  std::string result;
  for (const JsonValue& item : value.Items()) {
    AppendLimited(result, ValueOf(item));
    if (m_returned) break;
  }
  return result;
}

std::string cJSONScript::ExpandMarks(std::string_view text) {
  std::string result;
  while (true) {
    const std::size_t open = text.find(kOpeningMark);
    const std::size_t close = open == text.npos ? text.npos : text.find(kClosingMark, open + kOpeningMark.size());
    if (close == text.npos) break;
    const std::size_t start = open + kOpeningMark.size();
    AppendLimited(result, text.substr(0, open));
    AppendLimited(result, m_host.Evaluate(std::string(text.substr(start, close - start))).value_or(""));
    text.remove_prefix(close + kClosingMark.size());
  }
  AppendLimited(result, text);
  return result;
}

}  // namespace quenmark::providers
