#pragma once
// Per-file version query: the walk visitor that asks VSS once per file, and
// Harvest and Perforce once per directory, for the versions of the files in
// the session's file tree. Directories already asked are kept in the
// session's directory tree.

#include <cstdint>

#include "scm/session.h"

// Walk visitor over the file tree (`node` is a FileNode). `arg` is the
// address of the run's ScmSession (which is also the address of its SCM
// type); `level` is not used. A record whose version is already set is
// skipped. Returns 0 normally, -1 when the VSS client could not be started
// and 1 when the Harvest client could not be started. The Harvest and
// Perforce queries run in the file's directory and restore the current
// directory before returning.
int LoadVersionInfo(void* node, uint32_t level, void* arg);
