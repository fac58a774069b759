#include "tls/groups.h"

#include "tls/error.h"
#include "tls/names.h"

#include <fmt/format.h>

namespace quenmark::tls {

const Group* FindGroup(std::uint16_t code) {
  for (const Group& group : kGroups) {
    if (group.code == code) return &group;
  }
  return nullptr;
}

const Group& GroupOf(std::uint16_t code) {
  if (const Group* group = FindGroup(code)) return *group;
  throw RaisedError{fmt::format("Unsupported exchange group ({})", Hexadecimal(code)), "pvTlsSetupExchGroup"};
}

}  // namespace quenmark::tls
