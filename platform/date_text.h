// Civil dates as text: what texts count as dates, and the pattern language that formats them.
#pragma once

#include "platform/clock.h"
#include "platform/locale.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quenmark::platform {

// Seconds since 1970-01-01 00:00:00 of the same civil time line, and back.
std::int64_t ToSeconds(const CivilTime& time);
CivilTime FromSeconds(std::int64_t seconds);
bool IsValid(const CivilTime& time);  // year 100 to 9999, and a real date and time of day

// Reads a text as the platform reads dates: yyyy-mm-dd or yyyy/mm/dd, dd/mm/yyyy, dd-Mmm-yyyy (English months), a time
// hh:mm[:ss][ AM/PM], either or both separated by a blank. A time alone has the date 30 December 1899. Day, month and
// hour may have one digit, years have four.
std::optional<CivilTime> ParseDate(std::string_view text);

// A number as the platform reads dates: days since 30 December 1899, the fraction is the time of day (cut to seconds).
// Nothing outside the years 100 to 9999.
std::optional<CivilTime> DateFromSerial(double days);

// Formats with d, dd, m, mm, mmm, yy, yyyy, h, hh, n, nn, s, ss and AM/PM, letters in either case. "m" and "mm" are
// minutes right after an hour. "/" and ":" give the locale's separators; other characters are copied.
std::string FormatPattern(const CivilTime& time, std::string_view pattern, const Locale& locale = {});

// English, title case; "" outside 1 to 12.
std::string_view MonthAbbreviation(int month);

}  // namespace quenmark::platform
