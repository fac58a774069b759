// The fields of a stream event, found in its text without building anything from it.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace quenmark::feeder {

enum EventField : std::size_t { kType, kName, kBid, kBidSize, kAsk, kAskSize, kLastPrice, kSize, kDate, kEventFields };

// Each field from its first occurrence in the message to the next double quote or, for numbers, the next comma, without
// blanks around it; "" where one is missing. Views into the message. Of a message that is neither a quote nor a
// timesale only type and, as it happens, others are found.
class EventFields {
 public:
  // An event in the provider's layout is read along it, any other in one pass over its colons.
  explicit EventFields(std::string_view event);

  std::string_view operator[](EventField field) const { return {m_values[field].data, m_values[field].size}; }

 private:
  template <const auto& kLayout>
  bool Follow(std::string_view type);
  template <const auto& kLayout, std::size_t kPiece>
  bool FollowPiece(std::size_t& at);
  void Search();
  void Note(std::size_t colon);
  void Take(EventField field, std::size_t start);

  struct Value {
    const char* data;
    std::size_t size;
  };

  void Set(EventField field, std::string_view value) { m_values[field] = {value.data(), value.size()}; }

  std::string_view m_event;
  std::array<Value, kEventFields> m_values;  // set before it is read, by Follow or Search; clearing it first would show
  unsigned m_found = 0;
  unsigned m_wanted = (1u << kEventFields) - 1;
};

}  // namespace quenmark::feeder
