#include "scm/detail.h"

#include <memory>
#include <string>
#include <utility>

#include "driver/settings.h"
#include "scm/scmtool.h"
#include "support/handles.h"
#include "support/paths.h"
#include "support/strings.h"

namespace {

// The commands for one changed file.
struct DetailPlan {
  ClientCommand first;   // empty text: nothing to run
  ClientCommand second;  // empty text: no comparison
  std::string dir;       // where to run; empty: the current directory
};

DetailPlan PlanDetail(uint32_t scmType, const FileNode* newNode, const FileNode* oldNode) {
  DetailPlan plan;
  const std::string path = Text(newNode->path);
  const std::string name = Text(newNode->name);
  const std::string version = Text(newNode->version);
  const std::string old_name = oldNode ? Text(oldNode->name) : "";
  const std::string old_version = oldNode ? Text(oldNode->version) : "";
  const bool compare = !old_version.empty();

  // The file's own name: name and extension of the path, joined.
  std::string drive, dir_part, base, ext;
  SplitPath(path.c_str(), drive, dir_part, base, ext);
  const std::string own_dir = DirectoryOf(path.c_str());

  // Most tools: a first command, and a second one when the old version is
  // known; `dir` empty runs in the current directory.
  auto plan_for = [&](const std::string& dir, ClientCommand first, ClientCommand second) {
    plan.dir = dir;
    plan.first = std::move(first);
    if (compare)
      plan.second = std::move(second);
  };
  switch (scmType) {
    case kScmCvs:
      plan_for(own_dir, FormCommand(kCvsDetailLog, {base, ext}),
               FormCommand(kCvsDetailDiff, {old_version, base, ext}));
      break;
    case kScmCvsRep:
      // Runs in the file's directory but names the file by `name`, the path
      // relative to the build directory: kept as the tool has always done.
      plan_for(own_dir, FormCommand(kCvsRepDetailLog, {old_version, version, name}),
               FormCommand(kCvsRepDetailDiff, {old_version, name}));
      break;
    case kScmClearCase: {
      // The listing stores the whole rest of its line after "@@"; only the
      // part before the rule text is the version.
      std::string cut = old_version.substr(0, old_version.find("Rule:"));
      StripChar(cut, " \r\n\t", 1);
      plan_for("", FormCommand(kClearCaseDetailHist, {name}),
               FormCommand(kClearCaseDetailDiff, {old_name, cut, name}));
      break;
    }
    case kScmHarvest:
      plan_for(own_dir, FormCommand(kHarvestDetail, {ShellWord(name)}), {});
      break;
    case kScmSvn:
      plan_for("", FormCommand(kSvnDetailInfo, {path}),
               FormCommand(kSvnDetailDiff, {old_version, path}));
      break;
    case kScmVss: {
      std::string vss_path = path;
      ReplaceSlash2(vss_path, '\\');
      plan_for("", FormCommand(kVssDetail, {vss_path}), {});
      break;
    }
    case kScmPerforce:
      plan_for(own_dir, FormCommand(kP4DetailLog, {path}),
               FormCommand(kP4DetailDiff, {path, old_version}));
      break;
    case kScmSi:
      // Announced with the still empty line text before anything runs.
      std::printf("Running: %s\n", "");
      plan_for("", FormCommand(kSiDetailInfo, {path}),
               FormCommand(kSiDetailDiff, {old_version, path}));
      break;
    case kScmAccurev:
      plan_for(own_dir, FormCommand(kAccurevDetailStat, {path}),
               FormCommand(kAccurevDetailDiff, {old_version, path}));
      break;
    case kScmMstf:
      plan_for("", FormCommand(kTfDetailProps, {path}),
               FormCommand(kTfDetailDiff, {path, version, path, old_version}));
      break;
    default:
      break;
  }
  return plan;
}

// Copy the client's output to the report; with `filter`, lines holding the
// cvs notices of the comparison step are left out.
void CopyOutput(FILE* pipe, FILE* report, bool filter) {
  ClientLines lines(pipe, kShortLineLimit);
  std::string line;
  while (lines.Next(line)) {
    if (filter && (line.find("cvs log: in directory") != std::string::npos ||
                   line.find("cvs [log aborted]:") != std::string::npos)) {
      continue;
    }
    std::fwrite(line.data(), 1, line.size(), report);
  }
}

}  // namespace

void GetDetail(uint32_t scmType, FILE* report, FileNode* newNode, FileNode* oldNode) {
  if (newNode == nullptr || report == nullptr)
    return;
  DetailPlan plan = PlanDetail(scmType, newNode, oldNode);
  if (plan.first.text.empty())
    return;

  // Changed into first and back on every return.
  std::unique_ptr<ScopedChdir> in_dir;
  if (!plan.dir.empty()) {
    in_dir = std::make_unique<ScopedChdir>(plan.dir);
    PrintExecutingInDir(plan.first.shown, plan.dir);
  } else {
    PrintExecuting(plan.first.shown);
  }

  UniquePipe first(OpenClient(plan.first));
  if (!first) {
    PrintCouldNotRun(plan.first.shown);
    return;
  }
  CopyOutput(first.get(), report, false);
  (void)first.Close();  // the exit status is not examined

  if (!plan.second.text.empty()) {
    if (!plan.dir.empty()) {
      std::printf("Running %s in dir %s\n", plan.second.shown.c_str(), plan.dir.c_str());
    } else {
      std::printf("Running %s\n", plan.second.shown.c_str());
    }
    UniquePipe second(OpenClient(plan.second));
    if (!second) {
      PrintCouldNotRun(plan.second.shown);
      return;
    }
    CopyOutput(second.get(), report, true);
    (void)second.Close();
  }
  std::fputs(kDetailSeparator, report);
}
