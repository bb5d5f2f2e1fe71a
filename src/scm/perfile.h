#pragma once
// Per-file version query (walk visitor over FileTree).

#include <cstdint>

// arg is the address of the uint32_t SCM type.
int LoadVersionInfo(void* node, uint32_t level, void* arg);
