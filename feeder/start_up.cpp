#include "feeder/start_up.h"

#include "platform/code_page.h"
#include "platform/number_text.h"
#include "providers/get_between.h"
#include "providers/http_requests.h"
#include "providers/text_utilities.h"

#include <cmath>

namespace quenmark::feeder {
namespace {

constexpr double kLargestOffset = 24 * 60;  // minutes

}  // namespace

void InitGmtOffset(providers::Context& context) {
  const platform::ZoneInformation zone = context.clock.Zone();
  context.gmtOffsetMinutes = zone.bias + (zone.daylight ? zone.daylightBias : zone.standardBias);
}

void RequestTimeZone(providers::Context& context) {
  using providers::kApiSection;
  using providers::kConfigurationApp;
  context.apiBase = context.store.GetSetting(kConfigurationApp, kApiSection, "EP");
  context.accessToken = providers::Base64DecodeText(context.store.GetSetting(kConfigurationApp, kApiSection, "q"));
  if (context.hosts.timeZone.empty()) return;
  const std::string answer =
      platform::AsciiUpper(providers::VendorPost(context, context.hosts.timeZone + "/gmt/", "@"));
  const auto offset = platform::ParseNumber(providers::GetBetween(answer, "TZM", "|"));
  if (offset && std::abs(*offset) <= kLargestOffset) {
    context.gmtOffsetMinutes = *offset;
  } else {
    InitGmtOffset(context);
  }
}

}  // namespace quenmark::feeder
