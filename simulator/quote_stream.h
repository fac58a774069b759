// The body of one quote stream: what is sent, cut into which chunks and when. It knows no sockets and waits for
// nothing; its times count from the stream's begin and the caller keeps them.
//
// First comes one complete object per symbol (an "Error" object for one that does not trade here) and "EndSnapshot",
// then updates and heartbeats. An object is followed by a line break; chunk borders may fall anywhere.
#pragma once

#include "simulator/answer_tree.h"
#include "simulator/faults.h"
#include "simulator/market.h"
#include "simulator/request_log.h"
#include "simulator/sent_state.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quenmark::simulator {

// Where chunks end: behind each object, at random places, or behind each byte.
enum class ChunkBorders { kObject, kRandom, kByte };
// "object", "random" or "byte"; nothing for other texts.
std::optional<ChunkBorders> ParseChunkBorders(std::string_view text);

struct StreamOptions {
  double rate = 20;  // update turns per second and stream; 0: one each microsecond
  ChunkBorders chunks = ChunkBorders::kRandom;
  std::uint64_t seed = 1;
};

struct StreamCounts {
  std::int64_t opened = 0;
  std::int64_t open = 0;
  std::int64_t objects = 0;  // sent, control objects included
};

// What all streams share. Everything referred to must outlive them, but for their destruction.
struct StreamShared {
  Market& market;
  SentState& sent;
  RequestLog& log;
  StreamOptions options;
  StreamCounts counts{};
};

struct StreamPiece {
  enum class Then { kGoOn, kEnd, kDrop, kStall };

  std::vector<std::string> chunks;  // may be empty
  bool apart = false;               // every chunk is written by itself
  Then then = Then::kGoOn;          // once the chunks are written
};

class QuoteStream {
 public:
  // Faults come with this update turn. A turn counts also when it brings nothing.
  static constexpr int kFaultTurn = 10;

  // `symbols`: upper case, each once.
  QuoteStream(StreamShared& shared, const std::vector<std::string>& symbols);

  // Called before the first piece, at most once.
  void Commit(FaultKind fault) { m_fault = fault; }
  // When the next piece is due. Pieces that are late follow at once.
  std::chrono::microseconds Due() const;
  // The next piece. Its objects are logged and counted as sent with their last byte. After a piece that does not go on
  // there is none.
  StreamPiece Next();
  // The stream is over, for this reason. Logs it with the bytes of an object that was sent in part.
  void Close(std::string_view reason);

 private:
  struct Subscription {
    std::string symbol;
    Node sent;  // all fields as the client knows them
  };
  struct Object {
    std::string text;
    std::size_t left;                  // bytes not yet handed out, line break included
    std::optional<std::size_t> about;  // place in m_subscriptions
    Node fields;                       // what the client knows then
  };

  void Snapshot(const std::vector<std::string>& symbols);
  void Turn(StreamPiece& piece);
  void Update();
  void Heartbeat();
  StreamPiece::Then FaultStep(StreamPiece& piece);
  Node QuoteOf(Subscription& subscription);
  void Queue(const Node& object, std::optional<std::size_t> about = std::nullopt);
  void CutIntoChunks(StreamPiece& piece, std::size_t keep);
  std::size_t HeldBack();
  std::size_t ChunkSize();
  std::string Take(std::size_t bytes);

  StreamShared& m_shared;
  const std::int64_t m_number;
  std::uint64_t m_random;
  const std::chrono::microseconds m_interval;
  std::vector<Subscription> m_subscriptions;
  std::deque<Object> m_objects;  // not yet sent whole
  std::chrono::microseconds m_now{0};
  std::chrono::microseconds m_nextUpdate{0};
  std::chrono::microseconds m_nextHeartbeat{0};
  bool m_begun = false;
  int m_turns = 0;
  int m_heartbeats = 0;
  int m_blanks = 0;  // blocks of blanks still to be sent
  std::optional<FaultKind> m_fault;
};

}  // namespace quenmark::simulator
