#include "support/shellquote.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <string>

namespace {

TEST(ShellQuote, PlacesAndOperands) {
  constexpr ShellPlace kBare = ShellPlace::kBare, kQuoted = ShellPlace::kInDoubleQuotes;
  struct Case {
    std::string value;
    ShellPlace place;
    bool operand;
    std::string text;
  } cases[] = {
      {"src/a_b-1.2,+=@%:c", kBare, true, "src/a_b-1.2,+=@%:c"},
      {"", kBare, false, ""},
      {"a b", kBare, false, "'a b'"},
      {"it's", kBare, false, "'it'\\''s'"},
      {"$(x)`y`\n", kBare, false, "'$(x)`y`\n'"},
      {"-rf", kBare, true, "./-rf"},
      {"-rf", kBare, false, "-rf"},
      {"--a b", kBare, true, "'./--a b'"},
      {"a b;c|d&e'f", kQuoted, false, "a b;c|d&e'f"},
      {"q\"$`\\", kQuoted, false, "q\\\"\\$\\`\\\\"},
      {"-x y", kQuoted, true, "./-x y"},
      {"x-", kQuoted, true, "x-"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ShellQuote(c.value, c.place, c.operand), c.text) << c.value;
  // Bare, a single byte stays as it is exactly when the shell takes it
  // literally everywhere in an argument.
  for (int b = 1; b < 256; ++b) {
    const std::string v(1, static_cast<char>(b));
    const bool literal = std::isalnum(b) || std::strchr("_-./,+=@%:", b);
    EXPECT_EQ(ShellQuote(v, ShellPlace::kBare, false), literal ? v : "'" + (b == '\'' ? "'\\''" : v) + "'")
        << b;
  }
}

}  // namespace
