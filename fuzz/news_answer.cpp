// A raw answer of the news server: taken apart, its items stored, and the list of sections kept as the rule says.
#include "feeder/news_feed.h"
#include "fuzz/offline_feeder.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quenmark;
  static fuzz::OfflineFeeder offline;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const providers::RawAnswer answer = providers::ParseRawAnswer(text);
  if (text.find(answer.body) == std::string::npos) std::abort();
  if (answer.statusCode != 0 && text.find("HTTP/1.1 ") == std::string::npos) std::abort();

  // A history long enough to stay.
  std::string history;
  for (int i = 0; i < 50; ++i) history += std::to_string(i) + "_1,";
  offline.store = {};
  offline.store.SaveSetting("KLV", "News", "All", history);
  platform::Timer timer(offline.context.loop, std::chrono::seconds{30}, [] {});
  feeder::NewsFeed feed(offline.context, timer, nullptr);
  feed.Tsock_CloseEvent(200, answer.body);
  const std::string all = offline.store.GetSetting("KLV", "News", "All");
  if (!timer.Enabled() || !all.ends_with(history)) std::abort();
  const auto entries = std::count(all.begin(), all.end(), ',') - 50;
  const auto sections = offline.store.Sections("KLV-News").size();
  // Sections that differ in case share their place in the store; one that ends another has no entry of its own.
  for (const std::string& section : offline.store.Sections("KLV-News")) {
    if (section.find(',') != std::string::npos || section.find('_') == std::string::npos) std::abort();
    for (const auto& [key, value] : offline.store.GetAllSettings("KLV-News", section)) {
      if (key == "ts_id" || key == "url" || key == "image") std::abort();
    }
  }
  if (entries > 0 && sections == 0) std::abort();
  return 0;
}
