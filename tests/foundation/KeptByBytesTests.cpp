#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "OrvKeptByBytes.h"

using orv::detail::KeptByBytes;

// Held for the life of the process, so the bounds are what keeps it from growing: the oldest text goes
// once either the count or the bytes are passed, and a text larger than all the bytes is never kept.
TEST(KeptByBytesTest, TheOldestGoesOnceEitherBoundIsPassed) {
  KeptByBytes<int> kept(3, 10);
  struct Step {
    const char* text;
    int value;
    std::vector<std::pair<std::string, int>> heldAfter;
  };
  const Step steps[] = {
      {"aa", 1, {{"aa", 1}}},
      {"bb", 2, {{"aa", 1}, {"bb", 2}}},
      {"cc", 3, {{"aa", 1}, {"bb", 2}, {"cc", 3}}},
      {"bb", 9, {{"aa", 1}, {"bb", 2}, {"cc", 3}}},      // held already: keeps its value and its place
      {"dd", 4, {{"bb", 2}, {"cc", 3}, {"dd", 4}}},      // a fourth text
      {"eeee", 5, {{"cc", 3}, {"dd", 4}, {"eeee", 5}}},  // a fourth, and 10 bytes
      {"fffffffff", 6, {{"fffffffff", 6}}},              // 17 bytes until three have gone
      {"ggggggggggg", 7, {{"fffffffff", 6}}},            // more than all the bytes
      {"h", 8, {{"fffffffff", 6}, {"h", 8}}},
  };
  std::vector<std::string> seen;
  for (const auto& step : steps) {
    kept.keep(step.text, step.value);
    seen.push_back(step.text);
    for (const auto& text : seen) {
      int expected = 0;
      for (const auto& [held, value] : step.heldAfter)
        if (held == text) expected = value;
      EXPECT_EQ(kept.find(text).value_or(0), expected) << "after " << step.text << ", looking for " << text;
    }
  }
}
