#include "tls/certificate_names.h"

#include <gtest/gtest.h>

#include <string_view>
#include <tuple>

namespace quenmark::tls {
namespace {

// Beside the everyday names, which the gallery has.
TEST(CertificateNames, CoverHostsByTheRule) {
  const std::tuple<std::string_view, std::string_view, bool> cases[] = {
      {"D.Test", "d.tEST", true},
      {"WWW.d.test", "d.test", true},
      {"www.www.d.test", "d.test", false},
      {"*.d.test", "a.d.test.evil", false},
      {"*.d.test", "axd.test", false},
      {"*.*.test", "a.d.test", true},
      {"*", "localhost", true},
      {"*", "d.test", false},
      {"a*.test", "ab.test", false},  // a star elsewhere is a character
      {"d.test.", "d.test", false},
      {"", "", false},
      {"*", "", false},
      {"10.0.0.1", "10.0.0.1", false},
      {"*.0.0.1", "10.0.0.1", false},
      {"::1", "::1", false},
      {"************************a", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaab", false},
  };
  for (const auto& [entry, host, covers] : cases) EXPECT_EQ(CoversHost(entry, host), covers) << entry << " / " << host;
}

}  // namespace
}  // namespace quenmark::tls
