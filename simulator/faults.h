// Faults that the simulator commits on request, written KIND[@PATH][*COUNT].
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <string_view>

namespace quenmark::simulator {

enum class FaultKind {
  kStatus401,
  kStatus429,
  kStatus500,
  kSlow,   // the answer comes late; "slow250" is 250 ms late, "slow" alone 3 s
  kCut,    // the connection is dropped in the middle of the answer's body
  kHtml,   // a maintenance page with status 200
  kEmpty,  // status 200 and no body
  kHuge,   // the answer followed by blanks up to 50 MB
  // Streams only:
  kStall,   // nothing more comes
  kDrip,    // every byte is written by itself
  kEnd,     // the body ends regularly
  kGoAway,  // the body ends with a "GoAway" object
  // Event streams only:
  kClose,      // a close frame; "close1011" with this status, "close" alone 1001
  kTlsClose,   // the TLS connection ends without a close frame
  kReset,      // the TCP connection is reset; hits answers too
  kGarbage,    // bytes that are no frame
  kHalfFrame,  // half a frame, then the connection is dropped
  // Answers only:
  kHttp10,   // the status line says HTTP/1.0
  kChunked,  // the body goes in chunks
  kOdd,      // the vendor's quotes and news with content that no reader expects
};
std::string_view FaultName(FaultKind kind);
// What a fault can hit: any answer (that a stream's begin is one of), quote streams or event streams.
enum class FaultTarget { kAnswer, kQuoteStream, kEventStream };

struct Fault {
  FaultKind kind;
  std::string path;  // requests whose target contains it (ends with it: "PATH$") are hit; empty: every one
  std::optional<std::size_t> count;  // requests left; empty: no end
  std::chrono::milliseconds delay{0};
  std::uint16_t closeCode = 0;  // kClose
};

// Nothing when the text is not a fault.
std::optional<Fault> ParseFault(std::string_view text);

class FaultList {
 public:
  static constexpr std::size_t kMost = 100;

  // False when kMost faults are waiting already.
  bool Add(Fault fault);
  void Clear() { m_faults.clear(); }
  // The earliest added fault that hits a request for `target`, counted down.
  std::optional<Fault> Take(std::string_view target, FaultTarget what);

 private:
  std::list<Fault> m_faults;
};

}  // namespace quenmark::simulator
