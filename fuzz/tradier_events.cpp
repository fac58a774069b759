// Feeds messages of the event stream, separated by NUL, to the record writer and checks what it wrote.
#include "feeder/tradier_events.h"

#include "fuzz/offline_feeder.h"
#include "providers/text_pieces.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quenmark;
  static fuzz::OfflineFeeder offline;
  offline.store = {};
  offline.store.SaveSetting("app", "Feeder", "QQQ-pc", "310.5");
  feeder::TradierEvents events(offline.context);
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const std::string_view message : providers::Split(text, '\0')) events.HandleStreamEvent(message);
  fuzz::CheckRecords(offline.store, "app");
  return 0;
}
