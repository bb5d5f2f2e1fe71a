#pragma once
// Command line and response file: fills the run-wide settings
// (driver/settings.h).

#include <cstddef>

// Most words (program name included) that one command line may collect.
inline constexpr size_t kMaxWords = 200;

// Parse the command line (and a response file named by a first argument
// "@file"). Returns 1 when the run may go on, 0 when it must stop (a message
// or the usage text has been printed).
int ParseParms(int argc, char** argv);
// Copy the product name "Weftlane(R)" into buffer (at least 12 bytes);
// returns buffer.
char* GetOEMVersion(char* buffer);
