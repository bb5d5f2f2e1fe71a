#pragma once
// SCM tool table and the conventions every client run shares.
//
// The inspector links no source-control library: it runs the command-line
// client of the selected tool (scm/runner.h) and picks values out of the
// client's merged output. This header holds what the listing, the per-file
// query and the change detail have in common:
// - the command texts, one constant per command, kept byte for byte;
// - forming a command from its text and its values (FormCommand);
// - the progress and failure lines;
// - the two helpers that build parts of the si listing command
//   (AddUserPassword, FindFirstWildcard).
//
// Values are data, never shell: every value reaches the client as exactly
// the text it is (ShellQuote, support/shellquote.h), and a relative file
// name that begins with "-" is written "./-name" so no client takes it for
// an option. Ordinary values keep the command text they have always had.
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
#include "scm/session.h"
#include "support/bintree.h"

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
    "size 2>&1";                                                  // name (bare)
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
  std::string text;   // what the shell runs: every value quoted by ShellQuote
  std::string shown;  // the same with every value as it is, for progress lines
};

// One value for FormCommand. `operand` marks a value that starts a file
// operand (a name or a path): written "./-x" when it begins with "-".
struct CmdValue {
  CmdValue(std::string_view v) : text(v) {}  // NOLINT: implicit on purpose
  CmdValue(const std::string& v) : text(v) {}
  CmdValue(const char* v) : text(v ? v : "") {}
  CmdValue(std::string_view v, bool is_operand) : text(v), operand(is_operand) {}
  std::string_view text;
  bool operand = false;
};
inline CmdValue Operand(std::string_view v) { return CmdValue(v, true); }

// Fill each "%s" of `tmpl` with the next value: in `text` through ShellQuote
// (inside or outside the template's double quotes, as the placeholder
// stands), in `shown` as it is. Missing values fill as empty text; extra
// values are ignored.
ClientCommand FormCommand(const char* tmpl, std::initializer_list<CmdValue> values);

// Append credentials as options: ` <userOption> "<user>"` and, when a
// non-empty password is given, ` <passwordOption> "<password>"`, the values
// quoted by ShellQuote. `shown` gets the same with each value as "*******"
// (appended to, not replaced). Returns 1 when appended; 0, with nothing
// appended, when `user` is null or empty or when the command would grow
// beyond `limit` characters.
int AddUserPassword(std::string& command, std::string& shown, const char* user,
                    const char* password, const char* userOption, const char* passwordOption,
                    size_t limit);

// Look at the first entry of the directory part of `pattern`: if it is not a
// directory and its name matches the name part (fnmatch, no flags), `out`
// receives its full path. 1 whenever the directory could be opened and held
// an entry, except when the full path would not be shorter than `limit`
// bytes; 0 when the directory is empty, cannot be opened, or starts with
// "//". Later entries are never looked at. A bare pattern has an empty
// directory part and yields 0.
int FindFirstWildcard(std::string& out, const char* pattern, size_t limit);

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

// --- Progress and failure lines (standard output) ---

void PrintExecuting(const std::string& shown);                               // "Executing: %s\n"
void PrintExecutingInDir(const std::string& shown, const std::string& dir);  // "... in dir %s\n"
void PrintExecutingRedirect(const std::string& shown);    // "Executing: %s 2>&1 \n"
void PrintCouldNotRun(const std::string& shown);          // "Could not run: %s\n"
void PrintCouldNotRunRedirect(const std::string& shown);  // "Could not run: %s 2>&1\n"
void PrintCouldNotRunBare(const std::string& shown);      // "Could not run: %s "
