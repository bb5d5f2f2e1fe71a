#pragma once
// Path helpers: splitting, separator conversion, the current directory, and
// the fixed answers kept for callers written for other hosts.

#include <cstdint>
#include <string>

// Separator settings used by ReplaceSlash.
extern char oldslash1;      // '\\'
extern char oldslash2;      // '\\'
extern char newslash;       // '/'
extern char Default_Slash;  // '/'
// Dataset location while the process works in a "//" location.
extern std::string Cwd;
extern int32_t PwdInMVS;

// Cut path into drive, directory, name and extension; all four are cleared
// first. Only the text before a first '|' is split. Corners callers rely on:
//  - "//HLQ.SRC(MEMBER)" (dataset form): dir is the path up to and including
//    its last '.', ext the text before '(' and name the member ("//HLQ.",
//    "SRC", "MEMBER"); nothing is appended or converted.
//  - a drive is everything up to the path's first ':'.
//  - no extension: cut at the last backslash (with exactly one backslash the
//    whole text is the directory and name stays empty), else at the last '/';
//    a bare name like "Makefile" yields nothing at all.
//  - "LIB.PDS(MEMBER)" without '$' (member form): dir "LIB", ext ".PDS",
//    name "MEMBER"; "lib.a(b.o)" gives dir "lib.a(b", ext ".o)", name "b.o".
// Outside the dataset form a non-empty dir gets a trailing backslash and is
// passed through ReplaceSlash, so with the default settings it ends in '/'.
// A null path counts as empty.
void SplitPath(const char* path, std::string& drive, std::string& dir, std::string& name,
               std::string& ext);
// Every oldslash1/oldslash2 becomes newslash, in place; returns text.
char* ReplaceSlash(char* text);
std::string& ReplaceSlash(std::string& text);
// '/' turns backslashes into '/'; '\\' turns '/' into backslashes; any other
// character replaces both.
char* ReplaceSlash2(char* text, char slash);
std::string& ReplaceSlash2(std::string& text, char slash);
// The current directory of any length (Cwd while in a "//" location, or when
// the system cannot tell).
std::string GetPwd();
// Change to dir ("//" locations are only remembered); before/after receive
// the location before and after. 1 on success, 0 when chdir failed.
int SetPwd(const char* dir, std::string& before, std::string& after);
// "MM/DD/YYYY hh:mm:ss" of local time (the year in full, however long);
// "01/01/1970 00:00:01" for seconds <= 1 and for times the C library cannot
// break down.
std::string DateTime(int64_t seconds);
// Normalise the safe string *text_ref (regrown with safe_cpy); always 0.
// Backslashes become '/', "/./" becomes "/" and ":/../" becomes ":/"; an
// absolute result stops there. Otherwise the '/'-separated segments (any
// number) are resolved from the last back: a ".." at position i (from 0)
// undoes a pending one when pending >= i, else adds one; a pending ".."
// drops the segment before it. So a/b/../c -> a/c, ../x -> x, a/../../x ->
// a/x. Trailing '/' is removed, and a bare drive "C:" becomes "C:/".
int CanonicalPath(char** text_ref);
// Create every missing directory of base + "/" + relative (either may be
// null or empty; '/' and '\\' both separate) with mode 07777 less the umask.
// Failures are not reported; always 1.
int CreateDir(const char* base, const char* relative);
int FileExists(const char* path);                                      // always 1
int ShortPathName(const char* source, std::string& target, int size);  // copies; 1
int LongPathName(const char* source, std::string& target, int size);   // copies; 1
void* MakePDS(void* value, int count);                                 // value
void SubmitJCL(void* value);                                           // nothing
char** GetEnvironment();
// The host name, cut to at most 40 bytes; empty when it cannot be read.
std::string GetMachineName();
