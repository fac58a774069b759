// Where a control's persisted properties are kept: named values, each a number or a text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quenmark::sockets {

class PropertyBag {
 public:
  virtual ~PropertyBag() = default;

  // The stored value, `otherwise` when there is none.
  virtual std::int32_t ReadNumber(std::string_view name, std::int32_t otherwise) = 0;
  virtual std::string ReadText(std::string_view name, std::string_view otherwise) = 0;
  // A bag may leave out a value that equals `otherwise`.
  virtual void WriteNumber(std::string_view name, std::int32_t value, std::int32_t otherwise) = 0;
  virtual void WriteText(std::string_view name, std::string_view value, std::string_view otherwise) = 0;
};

}  // namespace quenmark::sockets
