// A small evaluator of commands written in JSON.
//
//   {"name":"alert","message":M,"title":T}                shows a message box; ""
//   {"name":"input" or "prompt","message":M,"title":T,"default":D}    what the user typed, "" when dismissed
//   {"name":"switch","case":V,"items":{"A":X,...},"default":X}        the entry of "items" whose key is V, else
//   "default"
//   {"name":"if","value1":V,"value2":V,"type":"eq|gt|lt|gte|lte","true":X,"false":X}
//                                                         compared as numbers when both are, else as texts
//   {"name":"set","key":K,"value":V}                      keeps V under K; ""
//   {"name":"get","key":K}                                what was kept, "" when nothing was
//   {"name":"return","value":V}                           V, and nothing after it is evaluated
//
// A value is a text, a number, a Boolean, null, another command, or a list of values, which are joined. In texts,
// <%(expression)%> stands for what the script host makes of the expression. An unknown command gives "".
#pragma once

#include "providers/json.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace quenmark::providers {

// What the evaluator needs of its surroundings. The defaults answer as if the user had dismissed every box and no
// script host were installed.
class ScriptHost {
 public:
  virtual ~ScriptHost() = default;
  virtual void ShowMessage(const std::string& message, const std::string& title, bool exclamation);
  // What the user typed; nothing when the box was dismissed.
  virtual std::optional<std::string> Prompt(const std::string& message, const std::string& title,
                                            const std::string& preset);
  // The text of an evaluated expression; nothing when it cannot be evaluated.
  virtual std::optional<std::string> Evaluate(const std::string& expression);
};

class cJSONScript {
 public:
  static constexpr std::size_t kNestingLimit = 64;
  static constexpr std::size_t kResultLimit = 1u << 20;  // bytes; longer results are cut

  // The host must outlive the evaluator.
  explicit cJSONScript(ScriptHost& host) : m_host(host) {}

  // Parses the text, evaluates the items of its list in order and joins their results. Complaints of the parser are
  // shown in a box titled "Parser Error"; the result is then "", as it is for a text that holds no list.
  std::string Eval(std::string_view text);
  // Runs one command; "" for what is no object. More than kNestingLimit commands within each other give
  // "ERROR: Nesting level exceeded.".
  std::string ExecCommand(const JsonValue& command);

 private:
  std::string Dispatch(const JsonValue& command);
  std::string If(const JsonValue& command);
  std::string Switch(const JsonValue& command);
  std::string ValueOf(const JsonValue& value);
  std::string ExpandMarks(std::string_view text);

  ScriptHost& m_host;
  std::map<std::string, std::string> m_kept;
  std::size_t m_level = 0;
  bool m_returned = false;
};

}  // namespace quenmark::providers
