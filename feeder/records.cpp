#include "feeder/records.h"

#include "platform/number_text.h"
#include "providers/dates.h"
#include "providers/text_pieces.h"

namespace quenmark::feeder {
namespace {

std::string KeyOf(std::string_view symbol, std::string_view ending) {
  std::string key;
  key.reserve(symbol.size() + ending.size());
  return key.append(symbol).append(ending);
}

// The last digit of a stamp's minute, NUL when the stamp is too short to have one.
char MinuteDigit(std::string_view stamp) {
  return stamp.size() < 3 ? '\0' : stamp[stamp.size() - 3];
}

}  // namespace

QuoteOrder QAnt(providers::Context& context, std::string_view symbol, std::string_view stamp) {
  return CompareToRecord(context, context.store.GetSetting(context.settingsApp, providers::kFeederSection, symbol),
                         stamp);
}

QuoteOrder CompareToRecord(providers::Context& context, std::string_view record, std::string_view stamp) {
  const std::size_t dash = record.rfind('-');
  if (dash == std::string_view::npos) return QuoteOrder::kOk;
  const std::string_view stored = record.substr(dash + 1);
  if (stamp < stored) return QuoteOrder::kNo;
  if (MinuteDigit(stamp) != MinuteDigit(stored)) {
    context.store.DeleteSection(context.settingsApp, providers::kMinuteBarSection);
  }
  return QuoteOrder::kOk;
}

std::string StationLocalTime(const providers::Context& context, std::string_view utc) {
  return providers::StreamTimeToLocal(utc, {context.gmtOffsetMinutes, context.clock.LocalNow().year, context.locale});
}

std::string StampOf(std::string_view localTime) {
  return providers::WithoutCharacters(localTime, "-T:Z");
}

void WritePreviousClose(providers::Context& context, std::string_view symbol, std::string_view numberText) {
  context.store.SaveSetting(context.settingsApp, providers::kFeederSection, KeyOf(symbol, "-pc"), numberText);
}

void WriteRefreshTime(providers::Context& context, std::string_view symbol) {
  const auto seconds = static_cast<double>(platform::SecondsSinceMidnight(context.clock.LocalNow()));
  context.store.SaveSetting(context.settingsApp, providers::kFeederSection, KeyOf(symbol, "-all"),
                            platform::NumberText(seconds));
}

void AppendBook(std::string& text, const Book& book) {
  providers::AppendPieces(text, {book.bid, "|", book.bidSize, "@", book.ask, "|", book.askSize});
}

void WriteBook(providers::Context& context, std::string_view symbol, const Book& book) {
  std::string text;
  AppendBook(text, book);
  context.store.SaveSetting(context.settingsApp, providers::kFeederSection, KeyOf(symbol, kBookEnding), text);
}

}  // namespace quenmark::feeder
