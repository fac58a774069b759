// Tradier's stream events as book and quote records.
#pragma once

#include "providers/context.h"

#include <optional>
#include <string>
#include <string_view>

namespace quenmark::feeder {

// Keeps the memory that the records are built in, so that an event costs no allocation.
class TradierEvents {
 public:
  explicit TradierEvents(providers::Context& context) : m_context(context) {}

  // One message of the stream. Of several events in it the first occurrence of each field counts. A "quote" becomes the
  // book record, a "timesale" that is not older than the quote record goes to ApplyTimesale; the rest is left alone.
  void HandleStreamEvent(std::string_view event);

  // One trade: `epochTime` in Unix seconds or milliseconds, `last` and `size` as received. Written when it is later
  // than the record; a last price that is no number leaves last and change as they are and is written in any case.
  void ApplyTimesale(std::string_view last, std::string_view epochTime, std::string_view symbol, std::string_view size);

 private:
  bool ReadStamp(std::string_view epochTime);
  void ReadRecord(std::string_view symbol);
  void Write(std::string_view last, std::string_view symbol, std::string_view size);
  void AppendChange(std::optional<double> price, std::string_view symbol, std::string_view stored);

  providers::Context& m_context;
  std::string m_symbol;
  std::string m_stamp;   // of the trade at hand
  std::string m_second;  // Unix time in seconds that m_stamp stands for, "" when it was not in milliseconds
  double m_secondOffset = 0;
  std::string m_stored;  // the quote record of the symbol at hand
  std::string m_last;
  std::string m_key;
  std::string m_close;
  std::string m_record;
};

}  // namespace quenmark::feeder
