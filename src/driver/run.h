#pragma once
// The run sequence of one inspection and the small operations only it uses.

#include <cstdint>
#include <string>

// The whole program: returns the exit status (0 complete run, 1 failure).
int InspectorMain(int argc, char** argv);
// 1 when path names an existing, readable non-directory file (size and
// modification time stored), else 0. Paths beginning with "//" are never
// examined.
int FileStat(const char* path, int64_t* size_out, uint64_t* mtime_out);
// Login name of the effective user (empty when unknown); stored in buffer.
std::string& GetUserId(std::string& buffer);
// Copy source to destination under an exclusive lock on the destination.
// NOTE the inverted convention: 0 on success, 1 on failure.
int file_copy(const char* source, const char* destination);
// Pause for whole seconds.
void Secs2Sleep(unsigned seconds);
