// ParseJson against two general parsers and GetBetween against bare memmem. The peers take turns with the subject in
// one run; every result is looked at while the clock stands still.
#include "providers/get_between.h"
#include "providers/json.h"

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>
#include <rapidjson/document.h>

#include <chrono>
#include <cstring>
#include <string>
#include <string_view>

namespace {

using namespace quenmark;

// A news answer of about `size` bytes: long texts with some escapes and some letters beyond ASCII, short fields,
// numbers.
std::string NewsText(std::size_t size) {
  std::string text = R"({"status":"ok","data":[)";
  for (int item = 0; text.size() < size; ++item) {
    const std::string number = std::to_string(item);
    if (item > 0) text += ',';
    text +=
        R"({"ts_id":)" + std::to_string(900'000 + item) + R"(,"datetime":)" + std::to_string(1'710'498'600 + item * 37);
    text += R"(,"category":"company news","headline":"Quarter )" + number;
    text +=
        R"(: revenue rises as margins widen, \"ahead of plan\"","source":"Wire","symbol":"AAPL,MSFT","related":"SPY)";
    text += R"(","url":"https:\/\/news.example\/item\/)" + number + R"(","image":null,"summary":")";
    for (int sentence = 0; sentence < 6; ++sentence) {
      text += "The company said on Tuesday that orders in the third quarter grew by 4.2 percent against last year; ";
    }
    text += R"(S\u00e3o Paulo and Zürich closed higher.\n","change":-0.)" + number + R"(,"urgent":false})";
  }
  return text + "]}";
}

template <typename Work>
double SecondsOf(Work work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void ParseJsonSpeed(benchmark::State& state) {
  const std::string text = NewsText(static_cast<std::size_t>(state.range(0)));
  double own = 0;
  double nlohmannTime = 0;
  double rapidTime = 0;
  for (auto _ : state) {
    providers::JsonDocument document;
    nlohmann::json tree;
    const double seconds = SecondsOf([&] { document = providers::ParseJson(text); });
    own += seconds;
    nlohmannTime += SecondsOf([&] { tree = nlohmann::json::parse(text); });
    rapidjson::Document dom;
    rapidTime += SecondsOf([&] { dom.Parse(text.data(), text.size()); });
    state.SetIterationTime(seconds);

    const auto items = document.Value().At("data").Items();
    const auto& last = tree["data"].back();
    const bool same = document.GetParserErrors().empty() && items.size() == tree["data"].size() &&
                      items.size() == dom["data"].Size() &&
                      items.back().At("summary").Characters() == last["summary"].get_ref<const std::string&>() &&
                      items.back().At("ts_id").Number() == dom["data"][dom["data"].Size() - 1]["ts_id"].GetInt();
    if (!same) state.SkipWithError("the parsers disagree");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * static_cast<std::int64_t>(state.iterations()));
  state.counters["speed_of_nlohmann"] = nlohmannTime / own;
  state.counters["speed_of_rapidjson_dom"] = rapidTime / own;
}
BENCHMARK(ParseJsonSpeed)->Arg(10'000)->Arg(100'000)->Arg(1'000'000)->UseManualTime();

// The last field of a long answer, and the first of a short event, as the record writers read them.
void GetBetweenSpeed(benchmark::State& state) {
  constexpr std::string_view kEvent =
      R"({"type":"timesale","symbol":"QQQ","exch":"X","bid":"313.06","ask":"313.07","last":"313.06","size":"110","date":")"
      R"(1609447718210","seq":172047,"flag":"@","cancel":false,"correction":false,"session":"normal"})";
  std::string text(kEvent);
  if (state.range(0) > 0) text = NewsText(static_cast<std::size_t>(state.range(0))) + text;
  constexpr std::string_view kStart = R"("date":")";
  constexpr int kRounds = 64;
  double own = 0;
  double bare = 0;
  for (auto _ : state) {
    std::string_view found;
    const void* end = nullptr;
    const double seconds = SecondsOf([&] {
      for (int round = 0; round < kRounds; ++round) {
        found = providers::GetBetween(text, kStart, "\"");
        benchmark::DoNotOptimize(found);
      }
    });
    bare += SecondsOf([&] {
      for (int round = 0; round < kRounds; ++round) {
        const void* const start = memmem(text.data(), text.size(), kStart.data(), kStart.size());
        const char* const first = static_cast<const char*>(start) + kStart.size();
        end = memmem(first, static_cast<std::size_t>(text.data() + text.size() - first), "\"", 1);
        benchmark::DoNotOptimize(end);
      }
    });
    own += seconds;
    state.SetIterationTime(seconds);
    if (found != "1609447718210" || end != found.data() + found.size()) state.SkipWithError("wrong text");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * kRounds *
                          static_cast<std::int64_t>(state.iterations()));
  state.counters["speed_of_memmem"] = bare / own;
}
BENCHMARK(GetBetweenSpeed)->Arg(0)->Arg(100'000)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
