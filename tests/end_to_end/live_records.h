// The records that a log of sent events must have led to, worked out apart from the feeder.
#pragma once

#include <map>
#include <string>

namespace quenmark::test {

// Keys and values of section "Feeder" that the event log of a simulator with a clock in New York's summer, 240 minutes
// west, must have led to: snapshots and events in the order sent, on an empty store.
std::map<std::string, std::string> RecordsOf(const std::string& eventLog);

}  // namespace quenmark::test
