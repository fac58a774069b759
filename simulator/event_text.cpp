#include "simulator/event_text.h"

#include <array>
#include <charconv>
#include <utility>

namespace quenmark::simulator {
namespace {

constexpr std::array<std::pair<EventKind, std::string_view>, 4> kKinds{{
    {EventKind::kQuote, "quote"},
    {EventKind::kTrade, "trade"},
    {EventKind::kSummary, "summary"},
    {EventKind::kTimesale, "timesale"},
}};

constexpr std::array<std::string_view, 4> kSessionTexts{"pre", "normal", "post", "normal"};  // by Session

void AppendNumber(std::int64_t value, std::string& out) {
  std::array<char, 24> digits{};
  const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  out.append(digits.data(), end);
}

// "281.84"
void AppendPrice(Cents price, std::string& out) {
  AppendNumber(price / 100, out);
  out += '.';
  out += static_cast<char>('0' + price / 10 % 10);
  out += static_cast<char>('0' + price % 10);
}

// As a JSON number: "281.84", "281.8" or "281.0".
void AppendShortPrice(Cents price, std::string& out) {
  AppendPrice(price, out);
  if (price % 10 == 0) out.pop_back();
}

// Microseconds as seconds with six decimals.
void AppendSeconds(std::int64_t microseconds, std::string& out) {
  AppendNumber(microseconds / 1'000'000, out);
  out += '.';
  const std::size_t begin = out.size();
  AppendNumber(1'000'000 + microseconds % 1'000'000, out);
  out.erase(begin, 1);
}

void AppendQuote(const Stock& stock, const EventStamps& stamps, std::string& out) {
  out += R"(","bid":)";
  AppendShortPrice(stock.bid, out);
  out += R"(,"bidsz":)";
  AppendNumber(stamps.sent.value_or(stock.bidSize), out);
  out += R"(,"bidexch":"M","biddate":")";
  AppendNumber(stamps.now, out);
  out += R"(","ask":)";
  AppendShortPrice(stock.ask, out);
  out += R"(,"asksz":)";
  AppendNumber(stamps.sent.value_or(stock.askSize), out);
  out += R"(,"askexch":"Z","askdate":")";
  AppendNumber(stamps.now, out);
}

void AppendTrade(const Stock& stock, const EventStamps& stamps, std::string& out) {
  out += R"(","exch":")";
  out += stock.instrument.exchange;
  out += R"(","price":")";
  AppendPrice(stock.price, out);
  out += R"(00","size":")";
  AppendNumber(stock.traded, out);
  out += R"(","cvol":")";
  AppendNumber(stock.volume, out);
  out += R"(","date":")";
  AppendNumber(stamps.now, out);
  out += R"(","last":")";
  AppendPrice(stock.price, out);
  out += "00";
}

void AppendSummary(const Stock& stock, std::string& out) {
  out += R"(","open":")";
  AppendPrice(stock.open.value_or(stock.price), out);
  out += R"(","high":")";
  AppendPrice(stock.high.value_or(stock.price), out);
  out += R"(","low":")";
  AppendPrice(stock.low.value_or(stock.price), out);
  out += R"(","prevClose":")";
  AppendPrice(stock.previousClose, out);
}

void AppendTimesale(const Stock& stock, const EventStamps& stamps, std::string& out) {
  out += R"(","exch":")";
  out += stock.instrument.exchange;
  out += R"(","bid":")";
  AppendPrice(stock.bid, out);
  out += R"(","ask":")";
  AppendPrice(stock.ask, out);
  out += R"(","last":")";
  if (stamps.sent) {
    AppendSeconds(*stamps.sent, out);
  } else {
    AppendPrice(stock.price, out);
  }
  out += R"(","size":")";
  AppendNumber(stock.traded, out);
  out += R"(","date":")";
  AppendNumber(stamps.now, out);
  out += R"(","seq":)";
  AppendNumber(stamps.sequence, out);
  out += R"(,"flag":"@","cancel":false,"correction":false,"session":")";
  out += kSessionTexts.at(static_cast<std::size_t>(stamps.session));
}

}  // namespace

std::optional<EventKind> ParseEventKind(std::string_view text) {
  for (const auto& [kind, name] : kKinds) {
    if (name == text) return kind;
  }
  return std::nullopt;
}

void AppendEvent(EventKind kind, const Stock& stock, const EventStamps& stamps, std::string& out) {
  out += R"({"type":")";
  out += kKinds.at(static_cast<std::size_t>(kind)).second;
  out += R"(","symbol":")";
  out += stock.instrument.symbol;
  switch (kind) {
    case EventKind::kQuote:
      AppendQuote(stock, stamps, out);
      break;
    case EventKind::kTrade:
      AppendTrade(stock, stamps, out);
      break;
    case EventKind::kSummary:
      AppendSummary(stock, out);
      break;
    case EventKind::kTimesale:
      AppendTimesale(stock, stamps, out);
      break;
  }
  out += R"("})";
}

}  // namespace quenmark::simulator
