#pragma once
// Input files the driver reads whole: the response file and the property
// files. Only a regular file of at most kMaxInputFileBytes is read; a FIFO,
// a device, a directory or a larger file is never opened for reading (so it
// cannot hold the run), and the caller names it and treats it like a
// missing file.

#include <cstddef>

#include "support/handles.h"

inline constexpr size_t kMaxInputFileBytes = 16u * 1024u * 1024u;

enum class InputStatus { kOpened, kMissing, kRefused };

// Opens path for reading when it is a regular file of at most
// kMaxInputFileBytes; status tells what happened. A file that grows while it
// is read is the caller's to bound (stop after kMaxInputFileBytes).
UniqueFile OpenInputFile(const char* path, InputStatus& status);

// True when path names a regular file that this process may read and run.
bool IsProgramFile(const char* path);
