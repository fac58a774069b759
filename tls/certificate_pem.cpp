#include "tls/certificate_pem.h"

#include <array>
#include <cstdint>
#include <string>

namespace quenmark::tls {

using platform::SecretBuffer;

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int16_t, 256> DecodingTable() {
  std::array<std::int16_t, 256> table{};
  table.fill(-1);
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    table[static_cast<std::uint8_t>(kAlphabet[i])] = static_cast<std::int16_t>(i);
  }
  return table;
}

// Base64 fed in pieces (RFC 4648 §4). Blanks count for nothing.
class Base64Reader {
 public:
  bool Add(std::string_view text) {
    static constexpr auto kTable = DecodingTable();
    for (const char c : text) {
      if (c == ' ' || c == '\t') continue;
      if (c == '=') {
        ++m_padding;
        continue;
      }
      const int value = kTable[static_cast<std::uint8_t>(c)];
      if (value < 0 || m_padding > 0) return false;
      m_bits = (m_bits << 6) | static_cast<std::uint32_t>(value);
      if (++m_count == 4) {
        for (const int shift : {16, 8, 0}) m_bytes.push_back(static_cast<std::uint8_t>(m_bits >> shift));
        m_bits = 0;
        m_count = 0;
      }
    }
    return true;
  }

  std::optional<SecretBuffer> Finish() {
    const int expectedPadding = m_count == 0 ? 0 : 4 - m_count;
    if (m_count == 1 || m_padding != expectedPadding) return std::nullopt;
    if (m_count >= 2) m_bytes.push_back(static_cast<std::uint8_t>(m_count == 2 ? m_bits >> 4 : m_bits >> 10));
    if (m_count == 3) m_bytes.push_back(static_cast<std::uint8_t>(m_bits >> 2));
    return std::move(m_bytes);
  }

 private:
  SecretBuffer m_bytes;
  std::uint32_t m_bits = 0;
  int m_count = 0;
  int m_padding = 0;
};

}  // namespace

std::optional<std::vector<SecretBuffer>> ReadPemBlocks(std::string_view text, std::string_view type, PemFaults faults) {
  const std::string begin = "-----BEGIN " + std::string(type) + "-----";
  const std::string end = "-----END " + std::string(type) + "-----";
  std::vector<SecretBuffer> blocks;
  Base64Reader block;
  bool open = false;  // `block` is being read
  bool readable = true;
  const bool skips = faults == PemFaults::kSkip;
  const auto takeLine = [&](std::string_view line) {
    if (!open || skips) {
      const bool opens = line.find(begin) != std::string_view::npos;
      if (opens) {
        block = Base64Reader();
        open = readable = true;
      }
      if (!open || opens) return true;
    }
    if (line.find(':') != std::string_view::npos) return true;
    if (line.find(end) == std::string_view::npos) {
      readable = block.Add(line) && readable;
      return true;
    }
    auto bytes = block.Finish();
    open = false;
    if (!readable || !bytes) return skips;
    blocks.push_back(*std::move(bytes));
    return true;
  };
  while (!text.empty()) {
    const std::size_t feed = text.find('\n');
    std::string_view line = text.substr(0, feed);
    text.remove_prefix(feed == std::string_view::npos ? text.size() : feed + 1);
    // A carriage return inside a line counts for nothing either.
    SecretBuffer joined;
    if (line.find('\r') != std::string_view::npos) {
      for (const char c : line) {
        if (c != '\r') joined.push_back(static_cast<std::uint8_t>(c));
      }
      line = {reinterpret_cast<const char*>(joined.data()), joined.size()};
    }
    if (!takeLine(line)) return std::nullopt;
  }
  return blocks;
}

}  // namespace quenmark::tls
