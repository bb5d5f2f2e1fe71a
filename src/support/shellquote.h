#pragma once
// Placing a value into a command line that /bin/sh will read, as exactly one
// literal argument (or one literal part of an argument).
//
// Ordinary values keep the text they have always had, so command lines of
// ordinary runs stay byte-identical; anything else is quoted so that the
// shell performs no expansion, word splitting, globbing, redirection or
// command substitution on it.

#include <string>
#include <string_view>

// Where in the command text the value lands.
enum class ShellPlace {
  kBare,            // outside any quotes
  kInDoubleQuotes,  // between a pair of double quotes written by the caller
};

// Return the shell text for `value` at `place`.
// - kInDoubleQuotes: `\`, `"`, `$` and the backtick get a backslash in front;
//   every other byte (blanks, line feeds, `;`, `|`, `'` ...) is already
//   literal between double quotes.
// - kBare: a value made only of letters, digits and "_-./,+=@%:" is returned
//   as it is (the empty value too, so "-r%s" with no revision stays "-r");
//   any other value is wrapped in single quotes, each `'` written as `'\''`.
// With `operand` set, a value that begins with "-" is first written as
// "./" followed by the value, so that no client reads a relative file name
// as an option. Set it only where the value starts a file operand.
// A value cannot carry a NUL byte into an argument; callers pass texts
// without one (the command line is a C string).
std::string ShellQuote(std::string_view value, ShellPlace place, bool operand);
