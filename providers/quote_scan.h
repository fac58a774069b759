// Picks quotes out of TradeStation's quote stream while its text arrives.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace quenmark::providers {

// One object of the stream that holds a quote. The texts are lower-cased and valid during the callback only.
struct StreamQuote {
  std::string_view last;
  std::string_view tradeTime;  // UTC, as received
  std::string_view symbol;     // upper-cased
  bool hasBook = false;        // bid and ask came with it
  std::string_view bid;
  std::string_view bidSize;
  std::string_view ask;
  std::string_view askSize;
};

// Scans the body of one answer in pieces of any size: every byte is lower-cased and looked at once. An object is handed
// on once, when the brace that closes it has arrived, and only if it holds `"last":`, `"tradetime":` and `"symbol":`;
// nested objects are part of the one around them. A line break inside a text, which JSON does not know, drops the
// object it stands in, and so does an object of more than kLargestObject bytes.
class QuoteScan {
 public:
  static constexpr std::size_t kLargestObject = 64u << 10;

  using Handler = std::function<void(const StreamQuote&)>;

  // The handler may let the loop run, but not feed this scan.
  explicit QuoteScan(Handler handler);

  void Feed(std::string_view piece);

 private:
  void Take(char c);
  void Drop();
  void HandOn();

  Handler m_handler;
  std::string m_object;  // lower-cased text of the open object, braces included
  std::string m_symbol;
  std::size_t m_depth = 0;
  bool m_inText = false;
  bool m_escaped = false;
};

}  // namespace quenmark::providers
