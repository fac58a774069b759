#include "tls/certificate_names.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace quenmark::tls {
namespace {

using namespace std::string_view_literals;

TEST(CertificateNames, CoverHostsByTheRule) {
  const struct {
    std::string_view entry;
    std::string_view host;
    bool covers;
  } cases[] = {
      {"d.test", "d.test", true},
      {"D.Test", "d.tEST", true},
      {"www.d.test", "d.test", true},
      {"WWW.d.test", "d.test", true},
      {"d.test", "www.d.test", false},
      {"www.www.d.test", "d.test", false},
      {"*.d.test", "a.d.test", true},
      {"*.d.test", "a.b.d.test", false},
      {"*.d.test", "d.test", false},
      {"*.d.test", "a.d.test.evil", false},
      {"*.d.test", "axd.test", false},
      {"*.*.test", "a.d.test", true},
      {"*", "localhost", true},
      {"*", "d.test", false},
      {"a*.test", "ab.test", false},  // a star elsewhere is a character
      {"d.test\0.evil"sv, "d.test", false},
      {"d.test.", "d.test", false},
      {"", "", false},
      {"*", "", false},
      {"10.0.0.1", "10.0.0.1", false},
      {"*.0.0.1", "10.0.0.1", false},
      {"::1", "::1", false},
      {"************************a", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaab", false},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(CoversHost(one.entry, one.host), one.covers) << one.entry << " / " << one.host;
  }
}

}  // namespace
}  // namespace quenmark::tls
