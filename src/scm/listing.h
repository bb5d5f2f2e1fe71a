#pragma once
// Workspace version listing: one recursive listing of the workspace fills in
// the `version` of the files already in the tree (the listing group), or, for
// CVSREP, the repository log builds the tree itself.
//
// Both run in the current directory, which the run has made the build
// directory; neither changes it.

#include <string>

#include "scm/session.h"

// Versions for the listing group (CVS, CLEARCASE, SVN, SI, ACCUREV,
// MSTF/TEAMPRISE) from one workspace listing. `buildDir` is the absolute
// build directory, the prefix of every tree key; only records already in
// `scm.files` are annotated. Any other type (0 included) runs nothing.
void FindVersionInfo(const ScmSession& scm, const char* buildDir);

// CVSREP: build `scm.files` from the workspace's full CVS log, one
// FileNode per working file (made with NewFileNode; the tree's owner frees
// them), with the local file's digest and the head revision's date.
// Does nothing and returns 0 unless `scm.type` is CVSREP. Returns 1 when
// the client could not be started, else 0.
int LoadRepository(const ScmSession& scm, const char* buildDir);

// The si listing once its sandbox project file is known (FindVersionInfo
// reaches it only when FindFirstWildcard finds one): runs "si viewsandbox"
// on `sandbox` with the session's credentials and reads svn-shaped entries.
void ListSiSandbox(const ScmSession& scm, const char* buildDir, const std::string& sandbox);
