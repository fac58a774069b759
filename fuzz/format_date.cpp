// Date conversions: the first byte chooses layout and offset, the rest is the value. A stamp is 14 digits or nothing.
#include "platform/code_page.h"
#include "platform/date_text.h"
#include "providers/dates.h"
#include "providers/numbers.h"

#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>

using namespace quenmark;

namespace {

constexpr const char* kLayouts[] = {"1",         "3",           "4",         "Mes3B",       "Mes3B+Hora",
                                    "Mes4+Hora", "Month3+Hora", "Month3+Hr", "Month5+Hora", "fdata",
                                    "2",         "GMT",         "udate",     "udate2"};

bool IsStamp(const std::string& text) {
  return text.size() == 14 && text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  providers::DateRules rules;
  rules.gmtOffsetMinutes = (data[0] >> 4) * 90.0 - 720.0;
  rules.currentYear = 2024;
  const std::string value(reinterpret_cast<const char*>(data + 1), size - 1);
  providers::FormatDate(value, kLayouts[data[0] % std::size(kLayouts)], rules);
  providers::FormatDate(value, value, rules);
  providers::StreamTimeToLocal(value, rules);
  const std::string stamp = providers::UnixToLocal(value, rules);
  if (!stamp.empty() && !IsStamp(stamp)) std::abort();
  if (const auto time = platform::ParseDate(value)) {
    if (!platform::IsValid(*time) || platform::FromSeconds(platform::ToSeconds(*time)) != *time) std::abort();
    if (!IsStamp(providers::FormatDate(*time, "udate2", rules))) std::abort();
  }
  if (platform::IsNumeric(value)) {
    const double number = platform::ReadNumber(value);
    if (platform::ReadNumber(platform::NumberText(number)) != number) std::abort();
    providers::FormatDate(number, "udate", rules);
    if (!platform::IsNumeric(providers::FormatNum(value, data[0] % 8, false, platform::kLocaleEnglishUs, false))) {
      std::abort();
    }
  }
  return 0;
}
