#include "tests/end_to_end/feeder_home.h"

#include "platform/number_text.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <time.h>

#include <array>
#include <fstream>
#include <iterator>

namespace quenmark::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kTokenBase64 = "dG9rZW4tOWQ0MWM3";
constexpr const char* kCredentialBase64 = "Y3JlZGVudGlhbC01YmUyMGE=";

std::vector<std::string> WithLog(std::vector<std::string> arguments, const std::string& file) {
  arguments.insert(arguments.end(), {"--log", file});
  return arguments;
}

std::string FileText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

std::string StampOf(const std::string& epochMilliseconds, int gmtOffsetMinutes) {
  const time_t local = std::stoll(epochMilliseconds) / 1000 - gmtOffsetMinutes * 60;
  tm parts{};
  gmtime_r(&local, &parts);
  std::array<char, 15> text{};
  strftime(text.data(), text.size(), "%Y%m%d%H%M%S", &parts);
  return text.data();
}

std::string NumberOf(const std::string& text) {
  return platform::NumberText(platform::ReadNumber(text));
}

Market::Market(std::vector<std::string> arguments)
    : m_simulator(WithLog(std::move(arguments), m_folder.File("requests"))) {}

std::vector<json> Market::Requests(std::string_view part, bool spoiled) const {
  std::vector<json> found;
  std::ifstream file(m_folder.File("requests"));
  for (std::string line; std::getline(file, line) && !file.eof();) {
    if (line.find(part) == std::string::npos) continue;
    json request = json::parse(line);
    const bool hit = !request.at("fault").is_null();
    if (request.at("path").get<std::string>().find(part) == std::string::npos || (spoiled && !hit)) continue;
    found.push_back(std::move(request));
  }
  return found;
}

bool Market::Asked(std::string_view part, std::size_t more, bool spoiled) const {
  const std::size_t wanted = Count(part, spoiled) + more;
  return Eventually([&] { return Count(part, spoiled) >= wanted; });
}

json Market::Fields(const std::string& symbol, const char* endpoint) const {
  const json state = json::parse(m_simulator.Get("/sim/state"));
  const json::json_pointer place = json::json_pointer("/symbols") / symbol / endpoint / "fields";
  return state.contains(place) ? state.at(place) : json::object();
}

std::string Market::Sent(const std::string& symbol, const char* endpoint, const char* field) const {
  const json fields = Fields(symbol, endpoint);
  return fields.contains(field) && fields.at(field).is_string() ? fields.at(field).get<std::string>() : "null";
}

std::string Market::SentRecord(const std::string& symbol, int gmtOffsetMinutes) const {
  const json fields = Fields(symbol, "quote");
  if (fields.empty()) return "nothing was sent";
  const auto text = [&](const char* field) {
    return fields.at(field).is_null() ? std::string("null") : fields.at(field).get<std::string>();
  };
  std::string change = fmt::format("{:.2f}", platform::ReadNumber(text("change_percentage")));
  if (change.starts_with('-')) change[0] = 'm';
  std::string record = symbol + "-" + NumberOf(text("last")) + "-" + change;
  // Before the first trade of a day last stands in for a null, and 1 for no volume.
  for (const char* price : {"open", "high", "low"}) {
    record += "-" + NumberOf(text(price) == "null" ? text("last") : text(price));
  }
  record += "-" + (text("volume") == "0" ? "1" : text("volume"));
  return record + "-1-1-" + StampOf(text("trade_date"), gmtOffsetMinutes);
}

std::string Market::SentBook(const std::string& symbol) const {
  const json fields = Fields(symbol, "quote");
  if (fields.empty()) return "nothing was sent";
  const auto text = [&](const char* field) { return fields.at(field).get<std::string>(); };
  return text("bid") + "|" + text("bidsize") + "@" + text("ask") + "|" + text("asksize");
}

FeederHome::FeederHome(const Market& market, Endpoint endpoint)
    : m_app(endpoint == Endpoint::kLive ? kLiveApp : kApp), m_store(platform::SqliteStore::Open(StoreFile(), m_clock)) {
  m_options.environment = {{"FEEDER_STORE", StoreFile()},
                           {"FEEDER_HOME", Path()},
                           {"FEEDER_LOG", "debug"},
                           {"SSL_CERT_FILE", market.Simulator().CaFile()}};
  Configure("name", "Tradier");
  Configure("#", "1-SandBox");
  Configure("q", kTokenBase64);
  Configure("t", kCredentialBase64);
  Configure("EP", market.Simulator().SecureBase() + "/sandbox/v1/");
  if (endpoint == Endpoint::kSandbox) return;
  Configure("#", "1");
  Set("Quenmark", "Hosts", "TimeZone", market.Simulator().SecureBase());
  Configure("EP", market.Simulator().SecureBase() + "/v1/");
  Set("Quenmark", "Hosts", "Stream",
      "wss://localhost:" + std::to_string(market.Simulator().HttpsPort()) + "/v1/markets/events");
}

void FeederHome::Set(std::string_view application, std::string_view section, std::string_view key,
                     std::string_view value) {
  m_store->SaveSetting(application, section, key, value);
  m_store->Flush();
}

std::string FeederHome::Get(std::string_view application, std::string_view section, std::string_view key) {
  return m_store->GetSetting(application, section, key);
}

void FeederHome::OpenChart(const std::string& symbol, bool described) {
  if (described) m_store->SaveSetting(m_app, "Descs", symbol, "described");
  Set(m_app, "GrafAbertPapel", "chart-" + symbol, symbol);
}

std::unique_ptr<ChildProcess> FeederHome::Start() {
  return std::make_unique<ChildProcess>(BIN_DIR "/feeder", std::vector<std::string>{}, m_options);
}

std::string FeederHome::Settings(const std::vector<std::string>& arguments, const std::string& input) const {
  ChildProcess::Options options = m_options;
  options.input = input;
  ChildProcess program(BIN_DIR "/feeder-settings", arguments, options);
  std::string output = program.ReadAll();
  EXPECT_EQ(program.Wait(), 0) << program.ErrorText();
  return output;
}

std::unique_ptr<ChildProcess> StartStandIn(const std::string& name) {
  ChildProcess::Options options;
  options.argv0 = name;
  return std::make_unique<ChildProcess>("sleep", std::vector<std::string>{"1000"}, options);
}

void ExpectDiscreet(ChildProcess& feeder) {
  const std::string words = FileText("/proc/" + std::to_string(feeder.Id()) + "/cmdline");
  for (const char* secret : {FeederHome::kToken, FeederHome::kCredential, kTokenBase64, kCredentialBase64}) {
    EXPECT_THAT(words, Not(HasSubstr(secret)));
    EXPECT_THAT(feeder.ErrorText(), Not(HasSubstr(secret)));
  }
}

void ExpectEnd(ChildProcess& feeder, std::string_view reason) {
  EXPECT_EQ(feeder.Wait(), 0) << reason;
  EXPECT_THAT(feeder.ErrorText(), HasSubstr(std::string("ending: ").append(reason)));
  ExpectDiscreet(feeder);
}

}  // namespace quenmark::test
