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

// Cut path into drive, directory, name and extension (see the module notes
// in paths.cc for every corner). A non-empty directory always ends in '/'.
void SplitPath(const char* path, std::string& drive, std::string& dir, std::string& name,
               std::string& ext);
// Every oldslash1/oldslash2 becomes newslash, in place; returns text.
char* ReplaceSlash(char* text);
std::string& ReplaceSlash(std::string& text);
// '/' turns backslashes into '/'; '\\' turns '/' into backslashes; any other
// character replaces both.
char* ReplaceSlash2(char* text, char slash);
std::string& ReplaceSlash2(std::string& text, char slash);
// The current directory (or Cwd while in a "//" location).
std::string GetPwd();
// Change to dir ("//" locations are only remembered); before/after receive
// the location before and after. 1 on success, 0 when chdir failed.
int SetPwd(const char* dir, std::string& before, std::string& after);
// "MM/DD/YYYY hh:mm:ss" of local time; "01/01/1970 00:00:01" for seconds <= 1.
std::string DateTime(int64_t seconds);
// Normalise the safe string *text_ref in place (see paths.cc); always 0.
int CanonicalPath(char** text_ref);
// Create every missing directory of base + "/" + relative; always 1.
int CreateDir(const char* base, const char* relative);
int FileExists(const char* path);  // always 1
int ShortPathName(const char* source, std::string& target, int size);  // copies; 1
int LongPathName(const char* source, std::string& target, int size);   // copies; 1
void* MakePDS(void* value, int count);                                 // value
void SubmitJCL(void* value);                                           // nothing
char** GetEnvironment();
// The host name, at most 40 bytes.
std::string GetMachineName();
