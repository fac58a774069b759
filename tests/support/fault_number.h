#pragma once

#include "platform/run_time_error.h"

namespace quenmark::test {

// The number of the run-time error that the statement raises, 0 when it raises none.
template <typename Statement>
std::int32_t FaultNumber(const Statement& statement) {
  try {
    statement();
  } catch (const platform::RunTimeError& error) {
    return error.Number();
  }
  return 0;
}

}  // namespace quenmark::test
