#include "platform/secret_bytes.h"

#include <string.h>

namespace quenmark::platform {

void WipeMemory(void* memory, std::size_t size) {
  if (size != 0) explicit_bzero(memory, size);
}

bool ConstantTimeEqual(std::span<const std::uint8_t> left, std::span<const std::uint8_t> right) {
  if (left.size() != right.size()) return false;
  volatile std::uint8_t difference = 0;
  for (std::size_t i = 0; i < left.size(); ++i) {
    difference = static_cast<std::uint8_t>(difference | (left[i] ^ right[i]));
  }
  return difference == 0;
}

}  // namespace quenmark::platform
