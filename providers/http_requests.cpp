#include "providers/http_requests.h"

#include "platform/code_page.h"
#include "platform/files.h"
#include "platform/number_text.h"
#include "platform/run_time_error.h"
#include "providers/get_between.h"
#include "providers/numbers.h"
#include "providers/text_pieces.h"

#include <cmath>
#include <optional>
#include <random>

namespace quenmark::providers {
namespace {

using platform::RunTimeError;

constexpr std::string_view kBarsPath = "markets/timesales?symbol=";
constexpr std::string_view kBarsStart = "min&start=";
constexpr auto kPauseAfterSend = std::chrono::milliseconds{30};
constexpr auto kPauseBeforePost = std::chrono::milliseconds{250};
constexpr double kBarCacheSeconds = 15;

bool IsMinuteBarRequest(std::string_view path) {
  return Contains(path, kBarsPath) && Contains(path, kBarsStart);
}

// Year, month, day and the seconds since midnight in six digits.
std::string CacheStamp(const platform::CivilTime& now) {
  return fmt::format("{:04}{:02}{:02}{:06}", now.year, now.month, now.day, platform::SecondsSinceMidnight(now));
}

// The last "@"-separated record; a separator that ends the file does not count.
std::string_view LastRecord(std::string_view records) {
  if (records.ends_with('@')) records.remove_suffix(1);
  return records.substr(records.rfind('@') + 1);
}

// The one-quote answer made of the day's local file of the symbol, when there is one: records of "|"-separated fields,
// the first a time, the third a price in hundredths.
std::optional<std::string> LocalFileAnswer(const Context& context, std::string_view path) {
  const std::string symbol = platform::AsciiUpper(GetBetween(path, "symbol=", "&"));
  if (!platform::IsSafeInFileName(symbol)) return std::nullopt;
  const std::string records = platform::ReadWholeFile(context.programFolder + "/data/" + symbol + "_HJ_1");
  if (!Contains(records, "|")) return std::nullopt;

  const std::string_view record = LastRecord(records);
  const std::size_t second = record.find('|');
  const std::size_t third = second == std::string_view::npos ? second : record.find('|', second + 1);
  if (third == std::string_view::npos) throw RunTimeError(platform::kErrorSubscript, "Subscript out of range");
  const std::string_view time = record.substr(0, second);
  const std::string_view hundredths = record.substr(third + 1, record.find('|', third + 1) - third - 1);
  const auto price = platform::ParseNumber(hundredths);
  if (!price) platform::RaiseTypeMismatch();
  return fmt::format(R"("time":"{}00","timestamp":0,"price":{},)", time,
                     FormatNum(*price / 100, 2, false, platform::kLocaleEnglishUs, false));
}

struct MinuteBarKeys {
  std::string stamp;
  std::string text;
};

MinuteBarKeys CacheKeys(std::string_view path) {
  const std::string prefix(path.substr(0, path.find(kBarsStart)));
  return {"Q-T@" + prefix, "Q-" + prefix};
}

std::optional<std::string> CachedAnswer(const Context& context, const MinuteBarKeys& keys) {
  const auto stored =
      platform::ParseNumber(context.store.GetSetting(context.settingsApp, kMinuteBarSection, keys.stamp));
  if (!stored) return std::nullopt;
  const double now = platform::ReadNumber(CacheStamp(context.clock.LocalNow()));
  if (std::abs(now - *stored) >= kBarCacheSeconds) return std::nullopt;
  std::string text = context.store.GetSetting(context.settingsApp, kMinuteBarSection, keys.text);
  if (text.empty()) return std::nullopt;
  return text;
}

void AppendCacheBuster(const Context& context, std::string& path) {
  const auto ticks = context.clock.Now().time_since_epoch().count();
  std::minstd_rand generator(static_cast<std::minstd_rand::result_type>(ticks ^ (ticks >> 32)));
  generator.discard(3);
  const double drawn = std::uniform_real_distribution<double>(0, 1)(generator);
  path += Contains(path, "?") ? "&randombit=" : "?randombit=";
  platform::AppendNumber(path, drawn);
}

std::unique_ptr<platform::HttpRequest> SendWithToken(Context& context, std::string_view method,
                                                     std::string_view address, std::string_view body) {
  auto request = context.http.CreateRequest();
  request->Open(method, address);
  request->setRequestHeader("Accept", "application/json");
  request->setRequestHeader("Authorization", "Bearer " + context.accessToken);
  request->Send(body);
  context.loop.RunQueued();
  context.loop.Sleep(kPauseAfterSend);
  // The query stays out of the log, and user and password, should the address hold any, stand before an "@".
  const std::string_view place = address.substr(0, address.find('?'));
  context.log.Debug("{} {}: status {}, {} bytes", method, place.substr(place.rfind('@') + 1), request->Status(),
                    request->responseText().size());
  return request;
}

std::string RequestOrRaise(Context& context, std::string& path, std::string_view body) {
  const bool opensSession = path == "markets/events/session" || path == "accounts/events/session";
  const bool post = !body.empty() || opensSession;
  if (post && context.IsSandbox()) return "not_auth000|not available in sandbox";

  const bool minuteBars = IsMinuteBarRequest(path);
  MinuteBarKeys keys;
  if (minuteBars) {
    if (auto answer = LocalFileAnswer(context, path)) return *answer;
    keys = CacheKeys(path);
    if (auto answer = CachedAnswer(context, keys)) return *answer;
  }

  AppendCacheBuster(context, path);
  const std::string address = path.starts_with("http") ? path : context.apiBase + path;
  const auto request = SendWithToken(context, post ? "POST" : "GET", address, body);
  if (request->Status() != 200) {
    return fmt::format("not_auth{}|{}", request->Status(), request->responseText());
  }
  const std::string& answer = request->responseText();
  if (minuteBars && !Contains(answer, ":null")) {
    context.store.SaveSetting(context.settingsApp, kMinuteBarSection, keys.stamp, CacheStamp(context.clock.LocalNow()));
    context.store.SaveSetting(context.settingsApp, kMinuteBarSection, keys.text, answer);
  }
  return answer;
}

}  // namespace

std::string BuildUserAgent() {
  const std::string path = platform::ExecutablePath();
  return path.substr(path.rfind('/') + 1) + "/" QUENMARK_VERSION " (N; en-GB; DAEMON)";
}

std::string ApiRequest(Context& context, std::string& path, std::string_view body) {
  try {
    return RequestOrRaise(context, path, body);
  } catch (const RunTimeError& error) {
    context.log.Error("request failed: {}", error.Description());
    return fmt::format("not_auth0|{}", error.Description());
  }
}

std::string ApiRequest(Context& context, std::string&& path, std::string_view body) {
  return ApiRequest(context, path, body);
}

std::string StationRequest(Context& context, std::string_view path, std::string_view body) {
  const auto request = SendWithToken(context, body.empty() ? "GET" : "POST", context.apiBase + std::string(path), body);
  if (request->Status() != 200) {
    context.store.SaveSetting(kConfigurationApp, kApiSection, "SID", kAskNewSession);
    context.EndProgram(fmt::format("TradeStation answered {}", request->Status()));
  }
  return request->responseText();
}

std::string VendorPost(Context& context, std::string_view address, std::string_view credential) {
  try {
    context.loop.Sleep(kPauseBeforePost);
    auto request = context.http.CreateRequest();
    request->Open("POST", ReplaceAll(address, "http:", "https:"));
    request->setRequestHeader("Content-Type", "application/json; charset=UTF-8");
    request->setRequestHeader("Accept", "application/json");
    request->setRequestHeader("Accept-Encoding", "compress, gzip");
    request->setRequestHeader("Authorization", "Basic " + ReplaceAll(ReplaceAll(credential, "\n", "|"), "\r", "#"));
    request->Send();
    return request->responseText();
  } catch (const RunTimeError& error) {
    context.log.Error("vendor request failed: {}", error.Description());
    return fmt::format("err-{}.{}", error.Number(), error.Description());
  }
}

}  // namespace quenmark::providers
