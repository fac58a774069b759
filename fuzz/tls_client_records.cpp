// The client against bytes from the network.
#include "fuzz/tls_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quenmark::fuzz;
  const quenmark::tls::BytesView input(data, size);
  if (input.size() < 2) return 0;
  FuzzedEngine engine;
  StartClient(engine, input[0]);
  FeedRecords(engine, input.subspan(1));
  return 0;
}
