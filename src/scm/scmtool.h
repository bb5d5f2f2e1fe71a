#pragma once
// SCM tool table and the conventions every client run shares.
//
// The inspector links no source-control library: it runs the command-line
// client of the selected tool through popen and picks values out of the
// client's merged output. This header holds what the listing, the per-file
// query and the change detail have in common:
// - the command texts, one constant per command, kept byte for byte;
// - forming a command from its text and its values (ClientCommand);
// - starting a client (OpenClient) and reading its output in bounded pieces
//   (ClientLines);
// - the progress and failure lines;
// - the two helpers that build parts of the si listing command
//   (AddUserPassword, FindFirstWildcard).
//
// File names are data, never shell. Inside a command's double quotes every
// value has `\`, `"`, `$` and the backtick escaped with a backslash, so the
// client receives exactly the name; for ordinary names the text is unchanged.
// Progress lines show the values as they are.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "inventory/filenode.h"
#include "support/bintree.h"

// --- Acquisition paths ---

// How the run fills the file tree for an SCM type.
enum class ScmPath {
  kListing,        // directory scan, then one workspace listing (FindVersionInfo)
  kPerFile,        // directory scan, then a per-file walk (LoadVersionInfo)
  kRepositoryLog,  // records from the repository log alone (LoadRepository)
};
// A type belongs to a group when (type & mask) == type; 0 belongs to every
// group and is tested against the listing mask first.
ScmPath AcquisitionPath(uint32_t scmType);

// --- Command texts ---
// Every "%s" is filled by FormCommand, in order. The double blanks in
// kCvsRepDetailLog and kTfDetailProps belong to the texts.

// Workspace listings and the repository log.
inline constexpr char kCvsListCmd[] = "cvs log -h 2>&1";
inline constexpr char kCvsRepLogCmd[] = "cvs log 2>&1";
inline constexpr char kClearCaseListCmd[] = "cleartool ls -recurse 2>&1";
inline constexpr char kSvnListCmd[] = "svn info -R 2>&1";
inline constexpr char kSiListCmd[] =
    "si viewsandbox --recurse --batch --sandbox \"%s\"";  // sandbox
inline constexpr char kSiRedirect[] = " 2>&1";            // appended after the credentials
inline constexpr char kAccurevListCmd[] = "accurev stat -ff -R \"%s\" 2>&1";  // build dir
inline constexpr char kTfListCmd[] =
    "tf.exe properties \"%s\" /recursive /noprompt 2>&1";  // build dir

// Per-file and per-directory queries.
inline constexpr char kVssQueryCmd[] = "ss Properties \"%s\" 2>&1";  // path, backslashes
inline constexpr char kP4QueryCmd[] = "p4 filelog -t -L \"*\" 2>&1";
inline constexpr char kHarvestQueryCmd[] = "hsigget -t -a version modtime size 2>&1";

// Change detail: first command, then (when the old version is known) second.
inline constexpr char kCvsDetailLog[] = "cvs log \"%s%s\" 2>&1";  // name, ext
inline constexpr char kCvsDetailDiff[] =
    "cvs diff -c6 -r %s \"%s%s\" 2>&1";  // old version, name, ext
inline constexpr char kCvsRepDetailLog[] = "cvs log -r%s -r%s  \"%s\" 2>&1";    // old, new, name
inline constexpr char kCvsRepDetailDiff[] = "cvs diff -c6 -r %s \"%s\" 2>&1";   // old version, name
inline constexpr char kClearCaseDetailHist[] = "cleartool lshist \"%s\" 2>&1";  // name
inline constexpr char kClearCaseDetailDiff[] =
    "cleartool diff \"%s@@%s\" \"%s\" 2>&1";  // old name, old version, name
inline constexpr char kHarvestDetail[] =
    "hsigget %s -t -a environment state package version versionid viewpath tag user modtime "
    "size 2>&1";                                                  // name (outside quotes)
inline constexpr char kSvnDetailInfo[] = "svn info \"%s\" 2>&1";  // path
inline constexpr char kSvnDetailDiff[] = "svn diff --revision %s \"%s\" 2>&1";  // old version, path
inline constexpr char kVssDetail[] = "ss Properties \"%s\" 2>&1";               // path, backslashes
inline constexpr char kP4DetailLog[] = "p4 filelog -t -L \"%s\" 2>&1";          // path
inline constexpr char kP4DetailDiff[] = "p4 diff -dnl -f \"%s\"#%s 2>&1";       // path, old version
inline constexpr char kSiDetailInfo[] = "si memberinfo --batch \"%s\" 2>&1";    // path
inline constexpr char kSiDetailDiff[] =
    "si diff --batch -r \"%s\" \"%s\" 2>&1";                                    // old version, path
inline constexpr char kAccurevDetailStat[] = "accurev stat \"%s\" 2>&1";        // path
inline constexpr char kAccurevDetailDiff[] = "accurev diff -v %s \"%s\" 2>&1";  // old version, path
inline constexpr char kTfDetailProps[] = "tf.exe properties \"%s\"  /noprompt 2>&1";  // path
inline constexpr char kTfDetailDiff[] =
    "tf.exe diff \"%s;%s\" \"%s;%s\" /format:unix 2>&1";  // path, new version, path, old version

// The line that closes a changed file's detail block: 22 "!".
inline constexpr char kDetailSeparator[] = "!!!!!!!!!!!!!!!!!!!!!!\n";

// --- Output reading ---

// Read limits (bytes, terminator included, as for fgets): the CVS, SVN, si,
// accurev and tf listings and the detail output use the short one; the
// ClearCase listing, the repository log and the per-file queries the long one.
inline constexpr int kShortLineLimit = 2048;
inline constexpr int kLongLineLimit = 4096;
// Characters trimmed from output lines.
inline constexpr char kTrimSet[] = " \t\n\r";

// --- Forming commands ---

// A command in its two forms.
struct ClientCommand {
  std::string text;   // what the shell runs: values inside double quotes escaped
  std::string shown;  // the same with every value as it is, for progress lines
};

// `value` with `\`, `"`, `$` and the backtick preceded by a backslash, so that
// inside double quotes the shell passes it on unchanged.
std::string EscapeInQuotes(std::string_view value);
// `value` as one shell word: unchanged when it holds only letters, digits and
// "_-./,+=@%:" (or is empty), else in single quotes ('\'' for a quote).
std::string ShellWord(std::string_view value);
// Fill each "%s" of `tmpl` with the next value. A value that lands inside the
// template's double quotes is escaped with EscapeInQuotes in `text`; values
// outside quotes are placed as they are (callers pass ShellWord for names
// there). Missing values fill as empty text; extra values are ignored.
ClientCommand FormCommand(const char* tmpl, std::initializer_list<std::string_view> values);

// Append the SCM credentials (globals User and Password) as options:
// ` <userOption> "<user>"` and, when a non-empty password is set,
// ` <passwordOption> "<password>"`. `shown` gets the same with each value as
// "*******" (appended to, not replaced). Returns 1 when appended; 0, with
// nothing appended, when no user is set or when the command would grow
// beyond `limit` characters.
int AddUserPassword(ClientCommand& command, const char* userOption, const char* passwordOption,
                    size_t limit);
// The same on plain texts: `command` receives the real values (escaped for
// the double quotes), `shown` the masked ones.
int AddUserPassword(std::string& command, std::string& shown, const char* userOption,
                    const char* passwordOption, size_t limit);

// Look at the first entry of the directory part of `pattern`: if it is not a
// directory and its name matches the name part (fnmatch, no flags), `out`
// receives its full path. 1 whenever the directory could be opened and held
// an entry, except when the full path would not be shorter than `limit`
// bytes; 0 when the directory is empty, cannot be opened, or starts with
// "//". Later entries are never looked at. A bare pattern has an empty
// directory part and yields 0.
int FindFirstWildcard(std::string& out, const char* pattern, size_t limit);

// --- Running clients ---

// Signature of the function that starts a client (popen in read mode).
using ClientOpenFn = FILE* (*)(const char* command);
// The starter in use; tests replace it to make a start fail. Never null.
extern ClientOpenFn ScmClientOpen;
// Flush standard output (so our progress lines stay in order with the
// client's), then start command.text. The caller closes the pipe with pclose
// (UniquePipe); null when the client could not be started.
FILE* OpenClient(const ClientCommand& command);

// Output of a client, line by line, read as a loop of fgets into a buffer of
// `limit` bytes reads it: a line longer than limit - 1 bytes arrives in
// pieces, each returned as a line of its own; a NUL byte ends the text of the
// piece it is in (the rest of that piece is lost). The newline stays at the
// end of the piece that holds it. Memory stays bounded by limit.
class ClientLines {
 public:
  ClientLines(FILE* pipe, int limit);
  // The next piece into `line`; false at end of output or on a read error.
  bool Next(std::string& line);

 private:
  FILE* pipe_;
  std::vector<char> buf_;
};

// --- Parsing helpers ---

// Trim kTrimSet from the end (TrimTrailing) or both ends (TrimBoth).
void TrimTrailing(std::string& line);
void TrimBoth(std::string& line);
// Case-insensitive test of the first strlen(prefix) characters (IsNEqual,
// flag 0).
bool HasPrefix(const std::string& line, const char* prefix);
// The text from position pos on (empty when the line is shorter).
std::string From(const std::string& line, size_t pos);
// "%s/%s" of dir and rel with every backslash turned into "/".
std::string TreeKey(const std::string& dir, const std::string& rel);
// The record under key, or null (also for a null tree).
FileNode* FindFile(Bintree* tree, const std::string& key);
// The directory of path as the queries use it: drive and directory parts of
// SplitPath (ending in "/"), separators converted with ReplaceSlash.
std::string DirectoryOf(const char* path);
// The first six numbers of `text` split at any of `separators` (atoi of each
// word; missing ones are 0).
std::array<int, 6> SixNumbers(const std::string& text, const char* separators);
// Seconds since the epoch of a local wall-clock time, daylight saving off.
int64_t LocalTime(int year, int month, int day, int hour, int minute, int second);
// A record text, "" for null.
inline const char* Text(const char* s) { return s ? s : ""; }

// --- Progress and failure lines (standard output) ---

void PrintExecuting(const std::string& shown);                               // "Executing: %s\n"
void PrintExecutingInDir(const std::string& shown, const std::string& dir);  // "... in dir %s\n"
void PrintExecutingRedirect(const std::string& shown);    // "Executing: %s 2>&1 \n"
void PrintCouldNotRun(const std::string& shown);          // "Could not run: %s\n"
void PrintCouldNotRunRedirect(const std::string& shown);  // "Could not run: %s 2>&1\n"
void PrintCouldNotRunBare(const std::string& shown);      // "Could not run: %s "
