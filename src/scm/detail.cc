#include "scm/detail.h"

#include <memory>
#include <string>
#include <utility>

#include "scm/runner.h"
#include "scm/scmtool.h"
#include "support/handles.h"
#include "support/paths.h"
#include "support/strings.h"

namespace {

// The record texts the commands are formed from.
struct DetailValues {
  std::string path;         // new path
  std::string name;         // new name (CVSREP: relative to the build directory)
  std::string version;      // new version
  std::string old_name;     // previous run's name
  std::string old_version;  // previous run's version; empty: no comparison
  std::string base, ext;    // name and extension parts of the new path
  std::string own_dir;      // directory of the new path, as the queries use it
};

DetailValues ValuesOf(const FileNode* newNode, const FileNode* oldNode) {
  DetailValues v;
  v.path = OrEmpty(newNode->path);
  v.name = OrEmpty(newNode->name);
  v.version = OrEmpty(newNode->version);
  v.old_name = oldNode ? OrEmpty(oldNode->name) : "";
  v.old_version = oldNode ? OrEmpty(oldNode->version) : "";
  std::string drive, dir_part;
  SplitPath(v.path.c_str(), drive, dir_part, v.base, v.ext);
  v.own_dir = DirectoryOf(v.path.c_str());
  return v;
}

// The commands for one changed file.
struct DetailPlan {
  ClientCommand first;   // empty text: nothing to run
  ClientCommand second;  // empty text: no comparison
  std::string dir;       // where to run; empty: the current directory
};

DetailPlan PlanCvs(const DetailValues& v) {
  return {FormCommand(kCvsDetailLog, {Operand(v.base), v.ext}),
          FormCommand(kCvsDetailDiff, {v.old_version, Operand(v.base), v.ext}), v.own_dir};
}

// Runs in the file's directory but names the file by `name`, the path
// relative to the build directory: kept as the tool has always done.
DetailPlan PlanCvsRep(const DetailValues& v) {
  return {FormCommand(kCvsRepDetailLog, {v.old_version, v.version, Operand(v.name)}),
          FormCommand(kCvsRepDetailDiff, {v.old_version, Operand(v.name)}), v.own_dir};
}

// The listing stores the whole rest of its line after "@@"; only the part
// before the rule text is the version.
DetailPlan PlanClearCase(const DetailValues& v) {
  std::string cut = v.old_version.substr(0, v.old_version.find("Rule:"));
  StripChar(cut, " \r\n\t", 1);
  return {FormCommand(kClearCaseDetailHist, {Operand(v.name)}),
          FormCommand(kClearCaseDetailDiff, {Operand(v.old_name), cut, Operand(v.name)}), ""};
}

DetailPlan PlanHarvest(const DetailValues& v) {
  return {FormCommand(kHarvestDetail, {Operand(v.name)}), {}, v.own_dir};
}

DetailPlan PlanSvn(const DetailValues& v) {
  return {FormCommand(kSvnDetailInfo, {Operand(v.path)}),
          FormCommand(kSvnDetailDiff, {v.old_version, Operand(v.path)}), ""};
}

DetailPlan PlanVss(const DetailValues& v) {
  std::string vss_path = v.path;
  ReplaceSlash2(vss_path, '\\');
  return {FormCommand(kVssDetail, {Operand(vss_path)}), {}, ""};
}

DetailPlan PlanPerforce(const DetailValues& v) {
  return {FormCommand(kP4DetailLog, {Operand(v.path)}),
          FormCommand(kP4DetailDiff, {Operand(v.path), v.old_version}), v.own_dir};
}

DetailPlan PlanSi(const DetailValues& v) {
  return {FormCommand(kSiDetailInfo, {Operand(v.path)}),
          FormCommand(kSiDetailDiff, {v.old_version, Operand(v.path)}), ""};
}

DetailPlan PlanAccurev(const DetailValues& v) {
  return {FormCommand(kAccurevDetailStat, {Operand(v.path)}),
          FormCommand(kAccurevDetailDiff, {v.old_version, Operand(v.path)}), v.own_dir};
}

DetailPlan PlanTf(const DetailValues& v) {
  return {FormCommand(kTfDetailProps, {Operand(v.path)}),
          FormCommand(kTfDetailDiff,
                      {Operand(v.path), v.version, Operand(v.path), v.old_version}),
          ""};
}

// The commands of `scmType` for the file; a type without detail commands
// gets an empty plan, and without an old version there is no comparison.
DetailPlan PlanDetail(uint32_t scmType, const FileNode* newNode, const FileNode* oldNode) {
  static constexpr struct {
    uint32_t type;
    DetailPlan (*plan)(const DetailValues&);
  } kPlans[] = {{kScmCvs, PlanCvs},         {kScmCvsRep, PlanCvsRep},   {kScmClearCase, PlanClearCase},
                {kScmHarvest, PlanHarvest}, {kScmSvn, PlanSvn},         {kScmVss, PlanVss},
                {kScmPerforce, PlanPerforce}, {kScmSi, PlanSi},         {kScmAccurev, PlanAccurev},
                {kScmMstf, PlanTf}};
  for (const auto& entry : kPlans) {
    if (entry.type != scmType)
      continue;
    DetailValues values = ValuesOf(newNode, oldNode);
    DetailPlan plan = entry.plan(values);
    if (values.old_version.empty())
      plan.second = {};
    return plan;
  }
  return {};
}

// Run `cmd` and copy its output to the report; with `filter`, lines holding
// the cvs notices of the comparison step are left out. False when it could
// not start.
bool CopyOutput(const ScmSession& scm, const ClientCommand& cmd, FILE* report, bool filter) {
  ClientRun run(cmd.text, cmd.shown, scm.client_timeout, kShortLineLimit);
  if (!run)
    return false;
  std::string line;
  while (run.Next(line)) {
    if (filter && (line.find("cvs log: in directory") != std::string::npos ||
                   line.find("cvs [log aborted]:") != std::string::npos)) {
      continue;
    }
    std::fwrite(line.data(), 1, line.size(), report);
  }
  (void)run.Finish();  // the exit status is not examined
  return true;
}

}  // namespace

void GetDetail(const ScmSession& scm, FILE* report, FileNode* newNode, FileNode* oldNode) {
  if (newNode == nullptr || report == nullptr)
    return;
  DetailPlan plan = PlanDetail(scm.type, newNode, oldNode);
  if (plan.first.text.empty())
    return;
  if (scm.type == kScmSi)
    std::printf("Running: %s\n", "");  // announced with a line text still empty

  // Changed into first and back on every return.
  std::unique_ptr<ScopedChdir> in_dir;
  if (!plan.dir.empty()) {
    in_dir = std::make_unique<ScopedChdir>(plan.dir);
    PrintExecutingInDir(plan.first.shown, plan.dir);
  } else {
    PrintExecuting(plan.first.shown);
  }
  if (!CopyOutput(scm, plan.first, report, false)) {
    PrintCouldNotRun(plan.first.shown);
    return;
  }

  if (!plan.second.text.empty()) {
    if (!plan.dir.empty()) {
      std::printf("Running %s in dir %s\n", plan.second.shown.c_str(), plan.dir.c_str());
    } else {
      std::printf("Running %s\n", plan.second.shown.c_str());
    }
    if (!CopyOutput(scm, plan.second, report, true)) {
      PrintCouldNotRun(plan.second.shown);
      return;
    }
  }
  std::fputs(kDetailSeparator, report);
}

void ChangeDetail(void* context, FILE* report, FileNode* newNode, FileNode* oldNode) {
  if (context != nullptr)
    GetDetail(*static_cast<const ScmSession*>(context), report, newNode, oldNode);
}
