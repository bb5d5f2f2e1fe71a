#pragma once
// Command line and response file: fills the run-wide settings
// (driver/settings.h).
//
// The words to parse come from a response file named by a first argument
// "@file" (its words first), then from the other arguments ('@' arguments
// dropped). The list of words holds kMaxWords entries, the program name
// included; a command line that collects more is refused with
// kTooManyWordsMessage. The response file must be a regular file of at most
// kMaxInputFileBytes (driver/input.h); anything else is refused with
// kResponseFileRefusedFormat.

#include <cstddef>

// Most words (program name included) that one command line may collect.
inline constexpr size_t kMaxWords = 200;
// Response files are read in pieces of at most this many characters; a longer
// line arrives in pieces, each treated as a line of its own.
inline constexpr size_t kResponseLineChars = 999;

// Printed (one line) when the command line collects more than kMaxWords - 1
// words.
inline constexpr const char* kTooManyWordsMessage =
    "Too many words on the command line: at most 199 are accepted.";
// Printed with the response file's name when it is not a regular file of at
// most kMaxInputFileBytes (also when it grows past that while read).
inline constexpr const char* kResponseFileRefusedFormat =
    "Response file %s is not a regular file of at most 16777216 bytes.\n";

// The version text of the banner.
inline constexpr const char* kVersionText = "7.5.1 Build 10142020";

// Parse the command line (and a response file named by a first argument
// "@file") into the run-wide settings. Returns 1 when the run may go on, 0
// when it must stop (a message or the usage text has been printed). On 0 the
// settings already made stay in place; the caller releases them. The
// arguments themselves are not modified. Everything goes to standard output.
int ParseParms(int argc, char** argv);

// Copy the product name "Weftlane(R)" (with its terminator) into buffer,
// which must hold at least 12 bytes; returns buffer.
char* GetOEMVersion(char* buffer);

// Print the version banner: "\n%s V%s, <notice>\n\n".
void PrintVersionBanner();
// Print the usage text followed by one empty line.
void PrintUsage();
