// Times of providers as local times in fixed text layouts.
#pragma once

#include "platform/clock.h"
#include "platform/locale.h"

#include <string>
#include <string_view>

namespace quenmark::providers {

// What conversions need to know of the session and the moment.
struct DateRules {
  double gmtOffsetMinutes = 0;  // UTC = local time + offset
  int currentYear = 1970;       // of texts that name day and month only
  platform::Locale locale;
};

// A date in a named layout ("1", "3", "4", "Mes3B", "Mes3B+Hora", "Mes4+Hora", "Month3", "Month3+Hora", "Month3+Hr",
// "Month4+Hora", "Month5+Hora", "fdata", "fdata2" or "2", "GMT", "udate", "udate2"; any other name is the pattern
// itself), in capitals but for English month names. A time of midnight is left out.
//
// Texts may be dd/mm/yy [hh:mm[:ss]], yyyymmdd, hhmmss or yyyymmddhhmmss in digits, dd-Mmm hh:mm[:ss], or whatever else
// the platform reads as a date; numbers are digits of the same kinds or days since 30 December 1899. What is no date
// comes back as the text it is, at most ten characters of it, in capitals.
std::string FormatDate(const platform::CivilTime& value, std::string_view layout, const DateRules& rules);
std::string FormatDate(double value, std::string_view layout, const DateRules& rules);
std::string FormatDate(std::string_view value, std::string_view layout, const DateRules& rules);

// English, title case; "" outside 1 to 12.
std::string_view MonthAbbrev(int month);

// A UTC time (ISO text or digits) as local time in layout "GMT": the "T" and the "Z" stay. Fractions of a second are
// cut off. What is no time comes back as FormatDate gives it.
std::string StreamTimeToLocal(std::string_view utc, const DateRules& rules);

// Seconds from 1970-01-01 00:00:00 to the date; the text form is 0 for what is no date.
double DateToUnix(const platform::CivilTime& date);
double DateToUnix(std::string_view date);

// Unix seconds, or milliseconds when the number has 13 characters, as local time in layout "udate2". "" when the text
// is no number or the time lies outside the years 100 to 9999.
std::string UnixToLocal(std::string_view time, const DateRules& rules);
std::string UnixToLocal(double time, const DateRules& rules);

// The same into `stamp`, without taking memory. False, and an empty stamp, when there is no such time.
bool UnixToStamp(std::string_view time, double gmtOffsetMinutes, std::string& stamp);

}  // namespace quenmark::providers
