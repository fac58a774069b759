// An environment variable that has a value of the test's own as long as its object lives.
#pragma once

#include <stdlib.h>

#include <optional>
#include <string>

namespace quenmark::test {

class EnvironmentVariable {
 public:
  // No value removes the variable.
  explicit EnvironmentVariable(const char* name, const std::optional<std::string>& value = {}) : m_name(name) {
    if (const char* old = getenv(name)) m_old = old;
    Set(value);
  }
  ~EnvironmentVariable() { Set(m_old); }
  EnvironmentVariable(const EnvironmentVariable&) = delete;
  EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

  void Set(const std::optional<std::string>& value) { value ? setenv(m_name, value->c_str(), 1) : unsetenv(m_name); }

 private:
  const char* m_name;
  std::optional<std::string> m_old;
};

}  // namespace quenmark::test
