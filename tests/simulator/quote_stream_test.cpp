#include "simulator/quote_stream.h"

#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>

namespace quenmark::simulator {
namespace {

using Json = nlohmann::ordered_json;
using Then = StreamPiece::Then;

// Streams on a market of its own with a fixed clock.
struct Desk {
  explicit Desk(ChunkBorders chunks, std::uint64_t seed = 1)
      : market({seed, 10, Session::kOpen, 1'751'376'600}),
        log(folder.File("log")),
        shared{market, sent, log, {20, chunks, seed}} {}

  std::vector<Json> Logged(const std::string& kind) const {
    std::vector<Json> lines;
    std::ifstream file{folder.File("log")};
    for (std::string line; std::getline(file, line);) {
      Json entry = Json::parse(line);
      if (entry["kind"] == kind) lines.push_back(std::move(entry));
    }
    return lines;
  }

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

TEST(QuoteStream, BordersChangeNoByteAndTheLogHasEveryObject) {
  for (const ChunkBorders borders : {ChunkBorders::kObject, ChunkBorders::kRandom, ChunkBorders::kByte}) {
    Desk desk{borders};
    QuoteStream stream{desk.shared, {"AAPL", "ZZZZZ", "SPY"}};
    const std::vector<std::string> chunks = Pieces(stream, 200);
    const std::vector<std::string> lines = Lines(Joined(chunks));
    const std::vector<Json> logged = desk.Logged("event");
    ASSERT_EQ(logged.size(), lines.size());
    for (std::size_t index = 0; index < lines.size(); ++index) EXPECT_EQ(logged[index]["text"], lines[index]);
    EXPECT_EQ(desk.shared.counts.objects, static_cast<std::int64_t>(lines.size()));

    const auto whole = [](const std::string& chunk) {
      return chunk.starts_with('{') && chunk.ends_with("}\r\n") && Lines(chunk).size() == 1;
    };
    const auto wholes = std::count_if(chunks.begin(), chunks.end(), whole);
    const auto total = static_cast<std::ptrdiff_t>(chunks.size());
    if (borders == ChunkBorders::kObject) {
      EXPECT_EQ(wholes, total);
    }
    if (borders == ChunkBorders::kByte) {
      EXPECT_TRUE(std::all_of(chunks.begin(), chunks.end(), [](const auto& chunk) { return chunk.size() == 1; }));
    }
    if (borders == ChunkBorders::kRandom) {
      EXPECT_LT(wholes, total / 2);
      EXPECT_TRUE(std::any_of(chunks.begin(), chunks.end(), [](const auto& text) { return Lines(text).size() > 1; }));
    }
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

TEST(QuoteStream, RepeatsWithItsSeed) {
  const auto run = [](std::uint64_t seed) {
    Desk desk{ChunkBorders::kRandom, seed};
    QuoteStream stream{desk.shared, {"AAPL", "SPY"}};
    return Pieces(stream, 100);
  };
  EXPECT_EQ(run(7), run(7));
  EXPECT_NE(run(7), run(8));
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

TEST(QuoteStream, FaultsEndItTheirWay) {
  struct Row {
    const char* fault;
    Then then;
    const char* end;
    bool partial;
  };
  for (const Row& row :
       {Row{"cut", Then::kDrop, "", true}, Row{"stall", Then::kStall, "", true}, Row{"end", Then::kEnd, "}\r\n", false},
        Row{"goaway", Then::kEnd, "{\"StreamStatus\":\"GoAway\"}\r\n", false}}) {
    for (const std::vector<std::string>& symbols : {std::vector<std::string>{"AAPL"}, {"ZZZZZ"}}) {
      Desk desk{ChunkBorders::kRandom};
      QuoteStream stream{desk.shared, symbols};
      stream.Commit(ParseFault(row.fault)->kind);
      std::string text;
      StreamPiece piece;
      for (int count = 0; count < 100 && piece.then == Then::kGoOn; ++count) {
        piece = stream.Next();
        text += Joined(piece.chunks);
      }
      EXPECT_EQ(piece.then, row.then) << row.fault;
      EXPECT_TRUE(text.ends_with(row.end)) << text;
      stream.Close("test");
      const Json end = desk.Logged("stream_end").at(0);
      EXPECT_EQ(end["partial"], text.substr(text.rfind('\n') + 1)) << row.fault;
      EXPECT_EQ(end["partial"] != "", row.partial) << row.fault;
      EXPECT_EQ(desk.shared.counts.open, 0);
    }
  }
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
