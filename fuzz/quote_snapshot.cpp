// Feeds answers to the snapshot writer, over a store in memory, and checks what it wrote.
#include "feeder/quote_snapshot.h"

#include "fuzz/offline_feeder.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quenmark;
  static fuzz::OfflineFeeder offline;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  offline.store = {};
  for (const char* provider : {"Sandbox tradier", "Tradestation copy"}) {
    offline.context.providerName = provider;
    feeder::ApplyQuoteSnapshot(offline.context, text);
  }
  fuzz::CheckRecords(offline.store, "app");
  fuzz::CheckRecords(offline.store, "Dovecrest");
  return 0;
}
