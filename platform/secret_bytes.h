// Memory for keys and secrets: overwritten before it is given back. Nothing here prints.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

namespace quenmark::platform {

// Overwrites memory in a way the compiler does not remove.
void WipeMemory(void* memory, std::size_t size);

// Compares in time that depends on the lengths only. Different lengths are unequal.
[[nodiscard]] bool ConstantTimeEqual(std::span<const std::uint8_t> left, std::span<const std::uint8_t> right);

// A secret of at most kCapacity bytes, held in the object itself.
class SecretBytes {
 public:
  static constexpr std::size_t kCapacity = 128;  // the longest is a TLS 1.2 key block: 2 x (20 MAC + 32 key + 12 IV)

  SecretBytes() = default;
  // `size` zero bytes. Throws std::length_error beyond kCapacity, like every other way to grow.
  explicit SecretBytes(std::size_t size) { Resize(size); }
  explicit SecretBytes(std::span<const std::uint8_t> bytes) { Assign(bytes); }
  SecretBytes(const SecretBytes& other) { Assign(other.View()); }
  SecretBytes& operator=(const SecretBytes& other) {
    if (this != &other) Assign(other.View());
    return *this;
  }
  ~SecretBytes() { Clear(); }

  void Assign(std::span<const std::uint8_t> bytes) {
    Resize(bytes.size());
    std::copy(bytes.begin(), bytes.end(), m_bytes.begin());
  }
  // Wipes, then holds `size` zero bytes.
  void Resize(std::size_t size) {
    if (size > kCapacity) throw std::length_error("secret too long");
    Clear();
    m_size = size;
  }
  void Clear() {
    if (m_size != 0) WipeMemory(m_bytes.data(), m_size);
    m_size = 0;
  }

  bool Empty() const { return m_size == 0; }
  std::size_t Size() const { return m_size; }
  std::span<const std::uint8_t> View() const { return std::span(m_bytes).first(m_size); }
  std::span<std::uint8_t> Mutable() { return std::span(m_bytes).first(m_size); }

 private:
  std::array<std::uint8_t, kCapacity> m_bytes{};
  std::size_t m_size = 0;
};

// Wipes what a container gives back.
template <typename T>
struct WipingAllocator {
  using value_type = T;

  WipingAllocator() = default;
  template <typename U>
  WipingAllocator(const WipingAllocator<U>&) {}

  T* allocate(std::size_t count) { return std::allocator<T>{}.allocate(count); }
  void deallocate(T* memory, std::size_t count) {
    WipeMemory(memory, count * sizeof(T));
    std::allocator<T>{}.deallocate(memory, count);
  }
  friend bool operator==(const WipingAllocator&, const WipingAllocator&) { return true; }
};

// A secret of any length, such as an encoded private key.
using SecretBuffer = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;

}  // namespace quenmark::platform
