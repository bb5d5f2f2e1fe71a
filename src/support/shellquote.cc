#include "support/shellquote.h"

#include <cstring>

namespace {

// Bytes the shell never treats specially wherever they stand in a word
// that is not the command name.
bool IsShellLiteral(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr("_-./,+=@%:", c) != nullptr);
}

}  // namespace

std::string ShellQuote(std::string_view value, ShellPlace place, bool operand) {
  std::string text;
  if (operand && !value.empty() && value.front() == '-')
    text = "./";
  text += value;

  std::string out;
  if (place == ShellPlace::kInDoubleQuotes) {
    out.reserve(text.size());
    for (char c : text) {
      if (c == '\\' || c == '"' || c == '$' || c == '`')
        out += '\\';
      out += c;
    }
    return out;
  }

  bool literal = true;
  for (char c : text)
    literal = literal && IsShellLiteral(static_cast<unsigned char>(c));
  if (literal)
    return text;
  out.reserve(text.size() + 2);
  out += '\'';
  for (char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  out += '\'';
  return out;
}
