// What was last sent per symbol and endpoint, so that a test can compute the records a client must hold.
#pragma once

#include "simulator/answer_tree.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace quenmark::simulator {

class SentState {
 public:
  // Keeps what `endpoint` just sent for `symbol`, in place of what it sent before. Callers pass symbols of the market
  // only, so that the map stays bounded.
  void Record(const std::string& symbol, std::string_view endpoint, const Node& sent);
  // {"SYMBOL":{"ENDPOINT":{"sent":COUNT,"fields":{NAME:TEXT or null, ...}}}}
  Node ToNode() const;

 private:
  struct Entry {
    std::int64_t count = 0;
    Node fields;
  };
  std::map<std::string, std::map<std::string, Entry, std::less<>>> m_entries;
};

}  // namespace quenmark::simulator
