#include "providers/context.h"

#include "platform/number_text.h"
#include "platform/run_time_error.h"

#include <cstdlib>

namespace quenmark::providers {
namespace {

constexpr std::string_view kHostsSection = "Hosts";

struct HostRow {
  std::string_view key;
  std::string Hosts::*field;
  std::string_view builtIn;
};

constexpr HostRow kHostRows[] = {
    {"Stream", &Hosts::stream, "wss://ws.tradier.com/v1/markets/events"},
    {"TimeZone", &Hosts::timeZone, ""},
    {"SymbolList", &Hosts::symbolList, ""},
    {"News", &Hosts::news, ""},
    {"Quotes", &Hosts::quotes, ""},
    {"Icons", &Hosts::icons, ""},
    {"Yahoo1", &Hosts::yahoo1, "https://d.yimg.com/autoc.finance.yahoo.com/autoc"},
    {"Yahoo2", &Hosts::yahoo2, "https://autoc.finance.yahoo.com/autoc"},
    {"Barchart", &Hosts::barchart, "https://www.barchart.com"},
    {"BarchartSuffix", &Hosts::barchartSuffix, " - Barchart.com"},
};

double PositiveSetting(platform::SettingsStore& store, std::string_view key, double otherwise, double most) {
  const double value = platform::ReadNumber(store.GetSetting(kConfigurationApp, kHostsSection, key));
  return value >= 1 && value <= most ? value : otherwise;
}

}  // namespace

Hosts ReadHosts(platform::SettingsStore& store) {
  Hosts hosts;
  for (const HostRow& row : kHostRows) {
    hosts.*row.field = store.GetSetting(kConfigurationApp, kHostsSection, row.key);
    if ((hosts.*row.field).empty()) hosts.*row.field = row.builtIn;
  }
  return hosts;
}

platform::HttpLimits ReadHttpLimits(platform::SettingsStore& store) {
  constexpr double kLongestMs = 24.0 * 3600 * 1000;
  constexpr double kLargestAnswer = 1u << 30;
  platform::HttpLimits limits;
  const auto milliseconds = [&](std::string_view key, std::chrono::milliseconds otherwise) {
    const double value = PositiveSetting(store, key, static_cast<double>(otherwise.count()), kLongestMs);
    return std::chrono::milliseconds{static_cast<std::int64_t>(value)};
  };
  limits.connectTimeout = milliseconds("ConnectTimeoutMs", limits.connectTimeout);
  limits.totalTimeout = milliseconds("TotalTimeoutMs", limits.totalTimeout);
  limits.answerLimit = static_cast<std::size_t>(
      PositiveSetting(store, "AnswerLimit", static_cast<double>(limits.answerLimit), kLargestAnswer));
  return limits;
}

void Context::EndProgram(std::string_view reason) {
  log.Info("ending: {}", reason);
  platform::IgnoreErrors([&] { store.Flush(); });
  endProcess();
  std::abort();  // endProcess never returns
}

}  // namespace quenmark::providers
