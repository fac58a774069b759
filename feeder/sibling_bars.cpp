#include "feeder/sibling_bars.h"

#include "feeder/tradier_requests.h"
#include "platform/date_text.h"
#include "platform/number_text.h"
#include "platform/run_time_error.h"
#include "providers/get_between.h"
#include "providers/http_requests.h"
#include "providers/text_pieces.h"

#include <cmath>
#include <string>

namespace quenmark::feeder {
namespace {

using namespace std::chrono_literals;
using providers::Context;

constexpr std::string_view kSection = "QX";
constexpr auto kPauseAfterSymbol = 100ms;
constexpr double kBarSpan = 0.003333 * 86400;  // seconds
constexpr double kSpansBackLive = 0.2;
constexpr double kSpansBackSandbox = 3.1;

// Fractions of a second are cut off.
platform::CivilTime Plus(const platform::CivilTime& time, double seconds) {
  return platform::FromSeconds(static_cast<std::int64_t>(std::floor(static_cast<double>(ToSeconds(time)) + seconds)));
}

// The bar's part of the answer; "" when one of its five numbers cannot be read or could not stand between "-".
std::string BarText(std::string_view symbol, std::string_view minute, std::string_view bar) {
  std::string text(symbol);
  text.append("-").append(minute);
  for (const std::string_view marker : {R"("open":)", R"("high":)", R"("low":)", R"("close":)", R"("volume":)"}) {
    const auto number = platform::ParseNumber(providers::GetBetween(bar, marker, ","));
    if (!number || *number < 0) return {};
    text += '-';
    platform::AppendNumber(text, *number);
  }
  return text + "-1-1|";
}

std::string AskBar(Context& context, std::string_view symbol, std::string_view start) {
  const std::string answer = ApiRequest(context, MinuteBarsPath(symbol, start));
  const std::string_view bar = NewestBar(answer);
  if (bar.empty() || providers::Contains(answer, ":null")) return {};
  return BarText(symbol, providers::WithoutCharacters(start.substr(start.size() - 5), ":"), bar);
}

}  // namespace

void AnswerSiblingTool(Context& context) {
  const std::string requested = context.store.GetSetting(providers::kConfigurationApp, kSection, "QXPapeis");
  if (requested.empty()) return;
  const auto last = platform::ParseDate(context.store.GetSetting(providers::kConfigurationApp, kSection, "HrLM"));
  if (!last) return;

  const double back = kBarSpan * (context.IsSandbox() ? kSpansBackSandbox : kSpansBackLive);
  const std::string start = FormatPattern(Plus(*last, -back), "yyyy-mm-dd hh:nn");
  const std::string end = FormatPattern(Plus(*last, kBarSpan - back), "yyyymmddhhnnss");
  std::string answer = "@!@";
  const std::string list = providers::ReplaceAll(providers::ReplaceAll(requested, "-", ",") + ",", ",,", ",");
  for (const std::string_view symbol : providers::Split(list, ',')) {
    if (symbol.empty()) continue;
    platform::IgnoreErrors([&] { answer += AskBar(context, symbol, start); });
    context.loop.Sleep(kPauseAfterSymbol);
  }
  context.store.SaveSetting(providers::kConfigurationApp, kSection, "QXPapResp", answer + " " + end);
}

}  // namespace quenmark::feeder
