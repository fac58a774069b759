#include "simulator/sent_state.h"

namespace quenmark::simulator {

void SentState::Record(const std::string& symbol, std::string_view endpoint, const Node& sent) {
  Entry& entry = m_entries[symbol][std::string{endpoint}];
  ++entry.count;
  entry.fields = AsSentTexts(sent);
}

Node SentState::ToNode() const {
  Node symbols = Node::Object();
  for (const auto& [symbol, endpoints] : m_entries) {
    Node perEndpoint = Node::Object();
    for (const auto& [endpoint, entry] : endpoints) {
      Node sent = Node::Object();
      sent.Add("sent", Node::Number(entry.count)).Add("fields", entry.fields);
      perEndpoint.Add(endpoint, std::move(sent));
    }
    symbols.Add(symbol, std::move(perEndpoint));
  }
  return symbols;
}

}  // namespace quenmark::simulator
