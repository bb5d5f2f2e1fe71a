#include "scm/perfile.h"

#include <array>
#include <cstdlib>
#include <memory>
#include <string>

#include "inventory/digest.h"
#include "inventory/filenode.h"
#include "scm/runner.h"
#include "scm/scmtool.h"
#include "support/handles.h"
#include "support/paths.h"
#include "support/strings.h"

namespace {

bool DirectoryAsked(const ScmSession& scm, const std::string& dir) {
  return scm.dirs != nullptr && FindKey(scm.dirs, dir.c_str()) != nullptr;
}

void RememberDirectory(const ScmSession& scm, const std::string& dir) {
  if (scm.dirs != nullptr)
    (void)LoadKey(scm.dirs, dir.c_str());  // -1 only for a duplicate
}

using RunPtr = std::unique_ptr<ClientRun>;

// Runs a per-directory query in the current directory (the caller has
// changed into `dir`). A directory is remembered only once its query has
// started: after a start failure the next file of the directory asks again.
RunPtr StartDirectoryQuery(const ScmSession& scm, const char* tmpl, const std::string& dir) {
  ClientCommand cmd = FormCommand(tmpl, {});
  PrintExecutingInDir(cmd.shown, dir);
  auto run = std::make_unique<ClientRun>(cmd.text, cmd.shown, scm.client_timeout, kLongLineLimit);
  if (!*run) {
    PrintCouldNotRunBare(cmd.shown);
    return nullptr;
  }
  RememberDirectory(scm, dir);
  return run;
}

// The text before the first occurrence of `stop`, or all of it.
std::string CutAt(const std::string& text, const char* stop) {
  size_t at = text.find(stop);
  return at == std::string::npos ? text : text.substr(0, at);
}

int QueryVss(const ScmSession& scm, FileNode* node) {
  std::string path = OrEmpty(node->path);
  ReplaceSlash2(path, '\\');
  ClientCommand cmd = FormCommand(kVssQueryCmd, {Operand(path)});
  PrintExecuting(cmd.shown);
  ClientRun run(cmd.text, cmd.shown, scm.client_timeout, kLongLineLimit);
  if (!run) {
    PrintCouldNotRunBare(cmd.shown);
    return -1;
  }
  std::string line, size_text;
  bool latest = false;
  while (run.Next(line)) {
    TrimBoth(line);
    if (HasPrefix(line, "Size:")) {
      size_text = CutAt(From(line, 5), " bytes");
    } else if (HasPrefix(line, "Latest:")) {
      latest = true;
    } else if (latest && HasPrefix(line, "Version:")) {
      // Only the first version line after "Latest:" counts.
      latest = false;
      std::string version = From(line, 8);
      TrimBoth(version);
      safe_cpy(&node->version, version.c_str());
      node->size = std::atoi(size_text.c_str());
    }
  }
  (void)run.Finish();  // the exit status is not examined
  return 0;
}

int QueryPerforce(const ScmSession& scm, FileNode* node, const std::string& dir) {
  if (DirectoryAsked(scm, dir))
    return 0;
  ScopedChdir in_dir(dir);
  RunPtr run = StartDirectoryQuery(scm, kP4QueryCmd, dir);
  if (!run)
    return 0;
  std::string line, key;
  bool in_file = false;
  while (run->Next(line)) {
    TrimBoth(line);
    if (line.find("is not under client's root") != std::string::npos)
      continue;
    if (HasPrefix(line, "//depot/")) {
      // The key is the depot path below "//depot/" appended to the module
      // root, so it meets the tree only where both layouts agree.
      in_file = true;
      std::string drive, sub_dir, name, ext;
      SplitPath(From(line, 8).c_str(), drive, sub_dir, name, ext);
      key = std::string(OrEmpty(node->dir)) + "/" + sub_dir + name + ext;
      ReplaceSlash2(key, '/');
    } else if (in_file && HasPrefix(line, "... #")) {
      // Only the newest revision line after each depot path counts.
      in_file = false;
      if (FileNode* file = FindFile(scm.files, key)) {
        safe_cpy(&file->version, CutAt(From(line, 5), " change").c_str());
      }
    }
  }
  (void)run->Finish();
  return 0;
}

// "MM-DD-YYYY;hh:mm:ss" split at any of "-;:" as local time, daylight saving
// off; words after the sixth are ignored.
int64_t HarvestTime(const std::string& text) {
  std::array<int, 6> f = SixNumbers(text, "-;:");
  return LocalTime(f[2], f[0], f[1], f[3], f[4], f[5]);
}

int QueryHarvest(const ScmSession& scm, std::string dir) {
  if (DirectoryAsked(scm, dir))
    return 0;
  ScopedChdir in_dir(dir);
  RunPtr run = StartDirectoryQuery(scm, kHarvestQueryCmd, dir);
  if (!run)
    return 1;
  std::string line;
  while (run->Next(line)) {
    TrimTrailing(line);
    if (HasPrefix(line, "Warning: Information for file"))
      continue;
    if (HasPrefix(line, "Harvest (hsigget) command completed"))
      break;
    std::string file_name = GetWord(line.c_str(), "\t", 1, 1);
    std::string version = GetWord(line.c_str(), "\t", 2, 2);
    std::string modified = GetWord(line.c_str(), "\t", 3, 3);
    std::string size = GetWord(line.c_str(), "\t", 4, 4);
    ReplaceSlash(file_name);
    if (!dir.empty() && (dir.back() == '/' || dir.back() == '\\'))
      dir.pop_back();
    std::string key = TreeKey(dir, file_name);
    FileNode* file = FindFile(scm.files, key);
    if (file == nullptr)
      continue;
    // The listed file is digested once more and the result dropped; the
    // record keeps the digest of the scan. Only files the scan recorded are
    // read, so a listed name can never make us read a device or a pipe.
    unsigned char digest[16] = {};
    char digest_text[33] = {};
    (void)md_filename(key.c_str(), digest);
    (void)print_digest(digest, digest_text);
    safe_cpy(&file->version, version.c_str());
    file->mtime = HarvestTime(modified);
    file->size = std::atoi(size.c_str());
  }
  (void)run->Finish();
  return 0;
}

}  // namespace

int LoadVersionInfo(void* record, uint32_t /*level*/, void* arg) {
  auto* node = static_cast<FileNode*>(record);
  if (node == nullptr || arg == nullptr)
    return 0;
  const auto& scm = *static_cast<const ScmSession*>(arg);
  if (*OrEmpty(node->version) != '\0')
    return 0;
  std::string dir = DirectoryOf(OrEmpty(node->path));
  switch (scm.type) {
    case kScmVss:
      return QueryVss(scm, node);
    case kScmPerforce:
      return QueryPerforce(scm, node, dir);
    case kScmHarvest:
      return QueryHarvest(scm, dir);
    default:
      return 0;
  }
}
