// What the command line asks for cannot be done.
#pragma once

#include <string>

namespace quenmark::probe {

struct UsageError {
  std::string text;
};

}  // namespace quenmark::probe
