// A fault of one statement, as the platform's components raise it, and the rule "ignored, and the next statement runs".
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

namespace quenmark::platform {

// Numbers that more than one component raises.
inline constexpr std::int32_t kErrorInvalidCall = 5;
inline constexpr std::int32_t kErrorOverflow = 6;
inline constexpr std::int32_t kErrorSubscript = 9;
inline constexpr std::int32_t kErrorDivisionByZero = 11;
inline constexpr std::int32_t kErrorTypeMismatch = 13;
inline constexpr std::int32_t kErrorDuplicateKey = 457;

// Raised by platform seams and helpers. The description is fit for a log: it never holds a credential or an address
// query.
class RunTimeError : public std::exception {
 public:
  RunTimeError(std::int32_t number, std::string description, std::string source = {})
      : m_number(number), m_description(std::move(description)), m_source(std::move(source)) {}

  std::int32_t Number() const { return m_number; }
  const std::string& Description() const { return m_description; }
  const std::string& Source() const { return m_source; }
  const char* what() const noexcept override { return m_description.c_str(); }

 private:
  std::int32_t m_number;
  std::string m_description;
  std::string m_source;
};

[[noreturn]] inline void RaiseTypeMismatch() {
  throw RunTimeError(kErrorTypeMismatch, "Type mismatch");
}

// Runs one statement; a fault in it is ignored. Returns whether it ran to its end. What is not derived from
// std::exception (a test's stand-in for the end of the process) passes through.
template <typename Statement>
bool IgnoreErrors(Statement&& statement) {
  try {
    std::forward<Statement>(statement)();
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace quenmark::platform
