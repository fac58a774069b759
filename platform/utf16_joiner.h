// UTF-16 code units that arrive one by one, as UTF-8 text.
#pragma once

#include "platform/code_page.h"

#include <cstdint>
#include <string>

namespace quenmark::platform {

// Joins the two halves of a surrogate pair (RFC 3629 §3); a half without its other becomes U+FFFD.
class Utf16Joiner {
 public:
  void Append(std::string& text, std::uint32_t unit) {
    if (m_half != 0 && unit >= 0xDC00 && unit <= 0xDFFF) {
      AppendUtf8(text, 0x10000 + ((m_half - 0xD800) << 10) + (unit - 0xDC00));
      m_half = 0;
      return;
    }
    Flush(text);
    if (unit >= 0xD800 && unit <= 0xDBFF) {
      m_half = unit;
    } else {
      AppendUtf8(text, unit);
    }
  }
  // To be called before anything else is appended to the text, and at its end.
  void Flush(std::string& text) {
    if (m_half != 0) AppendUtf8(text, kReplacementCharacter);
    m_half = 0;
  }

 private:
  std::uint32_t m_half = 0;  // first half of a pair that waits for the second
};

}  // namespace quenmark::platform
