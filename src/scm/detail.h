#pragma once
// Change detail: the SCM client's history (or properties) and differences
// for a changed file, copied into the change report below its "C;" record.

#include <cstdio>

#include "inventory/filenode.h"
#include "scm/session.h"

// Ask the tool of `scm.type` about `newNode` (this run's record) and, when
// `oldNode` (the previous run's record) has a version, for the differences
// since then; append the raw output to `report`, closed by a line of 22 "!".
// Progress lines go to standard output. Nothing at all is written for a type
// without detail commands (0), and nothing to the report when the first
// command cannot start; when the second cannot start the block has no
// separator. CVS, CVSREP, HARVEST, PERFORCE and ACCUREV run in the file's
// directory and restore the current directory before returning; the others
// run in the current directory.
void GetDetail(const ScmSession& scm, FILE* report, FileNode* newNode, FileNode* oldNode);

// GetDetail in the shape the change report calls its detail writer through
// a function pointer: `context` is the address of the run's ScmSession,
// handed to the report by the driver together with this function.
void ChangeDetail(void* context, FILE* report, FileNode* newNode, FileNode* oldNode);
