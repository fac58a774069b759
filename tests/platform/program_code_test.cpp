#include "platform/program_code.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace quenmark::test {
namespace {

long ResidentFileKilobytes() {
  std::ifstream status("/proc/self/status");
  long kilobytes = 0;
  for (std::string word; status >> word;) {
    if (word == "RssFile:") status >> kilobytes;
  }
  return kilobytes;
}

TEST(ProgramCode, WhatIsNotUsedAgainLeavesTheMemory) {
  const long before = ResidentFileKilobytes();
  platform::UnmapUsedCode();
  EXPECT_LT(ResidentFileKilobytes(), before);
}

}  // namespace
}  // namespace quenmark::test
