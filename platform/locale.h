// The user's regional settings, fixed inside the program: nothing depends on the process's C locale.
#pragma once

#include <cstdint>

namespace quenmark::platform {

inline constexpr std::int32_t kLocaleInvariant = 127;
inline constexpr std::int32_t kLocaleEnglishUs = 1033;

// Defaults are what the feeder runs with; tests set others. Locale ids 127 and 1033 always use "." and ",".
struct Locale {
  char decimalMark = '.';
  char dateSeparator = '/';
  char timeSeparator = ':';
};

}  // namespace quenmark::platform
