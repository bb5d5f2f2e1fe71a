#include "scm/listing.h"

#include <array>
#include <cstring>
#include <memory>
#include <string_view>

#include "inventory/digest.h"
#include "inventory/filenode.h"
#include "scm/runner.h"
#include "scm/scmtool.h"
#include "support/paths.h"
#include "support/strings.h"

namespace {

void SetVersion(Bintree* tree, const std::string& key, const std::string& version) {
  if (FileNode* node = FindFile(tree, key))
    safe_cpy(&node->version, version.c_str());
}

// Entries of the shape "Path: ", "Revision: ", "Node Kind: " (svn info and
// si viewsandbox). The pending revision is deliberately kept from one entry
// to the next: an entry without its own revision line takes the last one.
void ReadInfoEntries(ClientRun& run, Bintree* tree, const char* buildDir) {
  std::string line, path, revision;
  bool in_entry = false;
  while (run.Next(line)) {
    TrimTrailing(line);
    if (HasPrefix(line, "Path: ")) {
      in_entry = true;
      path = TreeKey(buildDir, From(line, 6));
    } else if (in_entry && HasPrefix(line, "Revision: ")) {
      revision = From(line, 10);
    } else if (HasPrefix(line, "Node Kind: ") && line.find("file") != std::string::npos) {
      in_entry = false;
      SetVersion(tree, path, revision);
    }
  }
}

using RunPtr = std::unique_ptr<ClientRun>;

// Starts a listing announced by "Executing: %s\n" (or, with `redirect`,
// "Executing: %s 2>&1 \n" with `shown`); null after printing the failure
// line when it cannot start.
RunPtr StartListing(const ScmSession& scm, const ClientCommand& cmd, int limit,
                    bool redirect = false, const std::string* shown = nullptr) {
  const std::string& line = shown ? *shown : cmd.shown;
  redirect ? PrintExecutingRedirect(line) : PrintExecuting(line);
  auto run = std::make_unique<ClientRun>(cmd.text, cmd.shown, scm.client_timeout, limit);
  if (*run)
    return run;
  redirect ? PrintCouldNotRunRedirect(line) : PrintCouldNotRun(line);
  return nullptr;
}

void ListCvs(const ScmSession& scm, const char* buildDir) {
  Bintree* tree = scm.files;
  RunPtr run = StartListing(scm, FormCommand(kCvsListCmd, {}), kShortLineLimit);
  if (!run)
    return;
  std::string line, path;
  bool in_file = false;
  while (run->Next(line)) {
    TrimTrailing(line);
    if (HasPrefix(line, "Working File:")) {
      in_file = true;
      path = TreeKey(buildDir, From(line, 14));
    } else if (in_file && HasPrefix(line, "head:")) {
      in_file = false;
      SetVersion(tree, path, From(line, 6));
    }
  }
  (void)run->Finish();  // the exit status is not examined
}

void ListClearCase(const ScmSession& scm, const char* buildDir) {
  Bintree* tree = scm.files;
  RunPtr run = StartListing(scm, FormCommand(kClearCaseListCmd, {}), kLongLineLimit);
  if (!run)
    return;
  std::string line;
  while (run->Next(line)) {
    TrimTrailing(line);
    size_t at = line.find("@@");
    if (at == std::string::npos)
      continue;
    std::string element = line.substr(0, at);
    if (element.compare(0, 2, "./") == 0 || element.compare(0, 2, ".\\") == 0)
      element.erase(0, 2);
    // The version is the whole rest of the line (branch, version and any rule
    // text the tool prints after it).
    SetVersion(tree, TreeKey(buildDir, element), line.substr(at + 2));
  }
  (void)run->Finish();
}

void ListSvn(const ScmSession& scm, const char* buildDir) {
  RunPtr run = StartListing(scm, FormCommand(kSvnListCmd, {}), kShortLineLimit);
  if (!run)
    return;
  ReadInfoEntries(*run, scm.files, buildDir);
}

void ListAccurev(const ScmSession& scm, const char* buildDir) {
  Bintree* tree = scm.files;
  RunPtr run =
      StartListing(scm, FormCommand(kAccurevListCmd, {Operand(buildDir)}), kShortLineLimit, true);
  if (!run)
    return;
  std::string line;
  while (run->Next(line)) {
    TrimTrailing(line);
    std::string word = GetWord(line.c_str(), " ", 1, 1);
    std::string path =
        (!word.empty() && word[0] == '.') ? std::string(buildDir) + word.substr(1) : word;
    ReplaceSlash2(path, '/');
    SetVersion(tree, path, GetWord(line.c_str(), " ", 2, 2));
  }
  (void)run->Finish();
}

// Strip blanks and tabs, then one colon, then blanks and tabs again, from
// the front of a tf field ("Changeset    : 12" -> "12").
std::string TfValue(const std::string& rest) {
  std::string value = rest;
  StripChar(value, " \t", 0);
  if (!value.empty() && value[0] == ':')
    value.erase(0, 1);
  StripChar(value, " \t", 0);
  return value;
}

void ListTf(const ScmSession& scm, const char* buildDir) {
  Bintree* tree = scm.files;
  RunPtr run =
      StartListing(scm, FormCommand(kTfListCmd, {Operand(buildDir)}), kShortLineLimit, true);
  if (!run)
    return;
  std::string line, path, changeset;
  bool in_item = false;
  while (run->Next(line)) {
    TrimBoth(line);
    if (HasPrefix(line, "Local path")) {
      // The tool prints absolute local paths: nothing is prefixed.
      in_item = true;
      path = TfValue(From(line, 10));
      ReplaceSlash2(path, '/');
    } else if (in_item && HasPrefix(line, "Changeset")) {
      changeset = TfValue(From(line, 9));
    } else if (HasPrefix(line, "Type") && line.find("file") != std::string::npos) {
      // "Type" shows again in the server section; setting the same value
      // twice is harmless.
      in_item = false;
      SetVersion(tree, path, changeset);
    }
  }
  (void)run->Finish();
}

void ListSi(const ScmSession& scm, const char* buildDir) {
  std::string sandbox;
  // The bare pattern has no directory to open, so this ends the branch
  // silently unless a project file is found.
  if (FindFirstWildcard(sandbox, "*.pj", 1024) == 0)
    return;
  ListSiSandbox(scm, buildDir, sandbox);
}

// Split a "date:" value at "/", ":" and blanks and read year, month, day,
// hour, minute and second in that order; the rest of the words are ignored.
// atoi drops the ";" after the seconds. Converted as local time with
// daylight saving off, although the log prints universal time: earlier
// inventories hold times made this way.
int64_t CvsLogTime(const std::string& text) {
  std::array<int, 6> f = SixNumbers(text, "/: ");
  return LocalTime(f[0], f[1], f[2], f[3], f[4], f[5]);
}

}  // namespace

void ListSiSandbox(const ScmSession& scm, const char* buildDir, const std::string& sandbox) {
  ClientCommand cmd = FormCommand(kSiListCmd, {Operand(sandbox)});
  // The progress and failure lines show only the masked credentials (empty
  // without a user), not the command; the stop message shows the command
  // with the credentials masked.
  std::string shown;
  (void)AddUserPassword(cmd.text, shown, scm.user, scm.password, "--user", "--password", 4096);
  cmd.text += kSiRedirect;
  cmd.shown += shown + kSiRedirect;
  RunPtr run = StartListing(scm, cmd, kShortLineLimit, true, &shown);
  if (!run)
    return;
  ReadInfoEntries(*run, scm.files, buildDir);
  (void)run->Finish();
}

void FindVersionInfo(const ScmSession& scm, const char* buildDir) {
  static constexpr struct {
    uint32_t type;
    void (*list)(const ScmSession&, const char*);
  } kListings[] = {{kScmCvs, ListCvs}, {kScmClearCase, ListClearCase}, {kScmSvn, ListSvn},
                   {kScmSi, ListSi},   {kScmAccurev, ListAccurev},     {kScmMstf, ListTf}};
  for (const auto& listing : kListings) {
    if (listing.type == scm.type)
      listing.list(scm, buildDir);
  }
}

int LoadRepository(const ScmSession& scm, const char* buildDir) {
  if (scm.type != kScmCvsRep)
    return 0;
  Bintree* tree = scm.files;
  ClientCommand cmd = FormCommand(kCvsRepLogCmd, {});
  PrintExecuting(cmd.shown);
  ClientRun run(cmd.text, cmd.shown, scm.client_timeout, kLongLineLimit);
  if (!run) {
    PrintCouldNotRunBare(cmd.shown);
    return 1;
  }

  std::string line, relative, path, head;
  // A file the log names but the workspace lacks keeps the cleared digest.
  unsigned char digest[16] = {};
  char digest_text[33] = {};
  bool in_file = false;
  while (run.Next(line)) {
    TrimTrailing(line);
    if (HasPrefix(line, "Working File:")) {
      in_file = true;
      relative = From(line, 14);
      ReplaceSlash(relative);
      path = TreeKey(buildDir, relative);
      std::memset(digest, 0, sizeof digest);
      (void)md_filename(path.c_str(), digest);  // an unreadable file keeps zeros
      print_digest(digest, digest_text);
    } else if (in_file && HasPrefix(line, "head:")) {
      head = From(line, 6);
    } else if (in_file && HasPrefix(line, "date:")) {
      // The newest revision comes first, so its date is the first one.
      in_file = false;
      if (FindFile(tree, path) != nullptr)
        continue;
      FileNode* node = NewFileNode(path.c_str());
      safe_cpy(&node->dir, buildDir);
      safe_cpy(&node->name, relative.c_str());
      safe_cpy(&node->version, head.c_str());
      safe_cpy(&node->digest, digest_text);
      node->mtime = CvsLogTime(From(line, 6));
      node->size = 0;
      std::memset(digest, 0, sizeof digest);
      std::memset(digest_text, 0, sizeof digest_text);
      if (InsBintree(tree, node) == -1) {
        FreeFileNode(node);
        tfree(node);
      }
    }
  }
  (void)run.Finish();
  return 0;
}
