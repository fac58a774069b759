#include "simulator/quote_stream.h"

#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
#include <set>

namespace quenmark::simulator {
namespace {

using Json = nlohmann::ordered_json;

// Streams on a market of its own with a fixed clock.
struct Desk {
  explicit Desk(ChunkBorders chunks, std::uint64_t seed = 1)
      : market({seed, 10, Session::kOpen, 1'751'376'600}),
        log(folder.File("log")),
        shared{market, sent, log, {20, chunks, seed}} {}

  test::TemporaryFolder folder;
  Market market;
  SentState sent;
  RequestLog log;
  StreamShared shared;
};

std::string Joined(const std::vector<std::string>& chunks) {
  std::string text;
  for (const std::string& chunk : chunks) text += chunk;
  return text;
}

std::vector<std::string> Pieces(QuoteStream& stream, int count) {
  std::vector<std::string> chunks;
  for (int piece = 0; piece < count; ++piece) {
    for (std::string& chunk : stream.Next().chunks) chunks.push_back(std::move(chunk));
  }
  return chunks;
}

// The whole lines of `text`.
std::vector<std::string> Lines(std::string_view text) {
  std::vector<std::string> lines;
  for (std::size_t end = 0; (end = text.find("\r\n")) != std::string_view::npos; text.remove_prefix(end + 2)) {
    lines.emplace_back(text.substr(0, end));
  }
  return lines;
}

TEST(QuoteStream, ChunksHaveTheirBorders) {
  for (const ChunkBorders borders : {ChunkBorders::kObject, ChunkBorders::kRandom, ChunkBorders::kByte}) {
    Desk desk{borders};
    QuoteStream stream{desk.shared, {"AAPL", "ZZZZZ", "SPY"}};
    std::size_t wholes = 0;
    std::size_t bytes = 0;
    std::size_t several = 0;
    const std::vector<std::string> chunks = Pieces(stream, 200);
    for (const std::string& chunk : chunks) {
      const std::size_t lines = Lines(chunk).size();
      wholes += chunk.starts_with('{') && chunk.ends_with("}\r\n") && lines == 1 ? 1 : 0;
      bytes += chunk.size() == 1 ? 1 : 0;
      several += lines > 1 ? 1 : 0;
    }
    EXPECT_EQ(wholes == chunks.size(), borders == ChunkBorders::kObject);
    EXPECT_EQ(bytes == chunks.size(), borders == ChunkBorders::kByte);
    EXPECT_EQ(several > 0, borders == ChunkBorders::kRandom);
  }
}

TEST(QuoteStream, UpdatesAddUpToWhatTheStateTells) {
  Desk desk{ChunkBorders::kObject};
  QuoteStream stream{desk.shared, {"AAPL", "ZZZZZ", "SPY"}};
  const std::vector<std::string> lines = Lines(Joined(Pieces(stream, 400)));
  EXPECT_EQ(lines[1], R"({"Symbol":"ZZZZZ","Error":"FAILED, EX_INVALID_SYMBOL"})");
  EXPECT_EQ(lines[3], R"({"StreamStatus":"EndSnapshot"})");
  std::map<std::string, Json> known;
  std::map<std::string, std::multiset<std::string>> times;
  int heartbeats = 0;
  std::set<std::string> shapes;
  for (const std::string& line : lines) {
    const Json object = Json::parse(line);
    if (object.contains("Heartbeat")) {
      EXPECT_EQ(object["Heartbeat"], ++heartbeats);
    }
    if (!object.contains("Symbol") || object.contains("Error")) continue;
    const std::string symbol = object["Symbol"];
    if (!known.contains(symbol)) {
      EXPECT_EQ(object.size(), 23U) << "the first object is complete";
    }
    known[symbol].update(object);
    if (object.contains("Last") && object.contains("TradeTime")) times[symbol].insert(object["TradeTime"]);
    shapes.insert(object.contains("Last") ? object.contains("MarketFlags") ? "nested" : "plain" : "book");
  }
  EXPECT_EQ(shapes.size(), 3U);
  EXPECT_GE(heartbeats, 18);
  ASSERT_EQ(known.size(), 2U);
  for (const auto& [symbol, fields] : known) {
    const Json state = Json::parse(ToJson(desk.sent.ToNode()))[symbol]["station_stream"];
    for (const char* name : {"Last", "Bid", "AskSize", "High", "Low", "TradeTime", "Volume", "VWAP"}) {
      EXPECT_EQ(fields[name], state["fields"][name]) << symbol << ' ' << name;
    }
    const std::set<std::string> distinct(times[symbol].begin(), times[symbol].end());
    EXPECT_GE(distinct.size(), 10U) << "trade times move on";
    EXPECT_LT(distinct.size(), times[symbol].size()) << "some trades share a second";
  }
}

TEST(QuoteStream, HeldMarketsSendHeartbeatsAlone) {
  Desk desk{ChunkBorders::kRandom};
  QuoteStream stream{desk.shared, {"AAPL"}};
  Pieces(stream, 5);
  desk.market.Hold(true);
  Pieces(stream, 1);
  const std::vector<std::string> lines = Lines(Joined(Pieces(stream, 64)));
  EXPECT_EQ(lines.size(), 3U);
  for (const std::string& line : lines) EXPECT_TRUE(line.starts_with(R"({"Heartbeat":)")) << line;
  desk.market.Hold(false);
  EXPECT_NE(Joined(Pieces(stream, 20)).find("AAPL"), std::string::npos);
}

TEST(QuoteStream, DripsByteByByte) {
  Desk desk{ChunkBorders::kObject};
  QuoteStream stream{desk.shared, {"AAPL"}};
  stream.Commit(FaultKind::kDrip);
  const StreamPiece piece = stream.Next();
  EXPECT_TRUE(piece.apart);
  EXPECT_EQ(piece.chunks.size(), Joined(piece.chunks).size());
}

}  // namespace
}  // namespace quenmark::simulator
