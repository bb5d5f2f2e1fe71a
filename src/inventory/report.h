#pragma once
// Change report visitors.

#include <cstdint>

// WalkBintree visitors over OldFileTree / FileTree; arg is the report FILE*.
int Deleted(void* record, uint32_t depth, void* arg);
int AddedAndChanged(void* record, uint32_t depth, void* arg);
