#include "testlib/scm_fixtures.h"

#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <stdexcept>

#include "driver/settings.h"
#include "support/strings.h"

namespace wltest {

ScmTree::ScmTree(bool install) {
  head_ = NewFileNode("");
  tree_ = NewBintree(head_, CompareFunc, 0, sizeof(FileNode));
  dir_head_ = static_cast<DirNode*>(InitBintreeNode(sizeof(DirNode)));
  safe_cpy(&dir_head_->key, "");
  dirs_ = NewBintree(dir_head_, CompareFunc, 0, sizeof(DirNode));
  if (install) {
    installed_ = true;
    saved_files_ = FileTree;
    saved_dirs_ = DirTree;
    FileTree = tree_;
    DirTree = dirs_;
  }
}

ScmTree::~ScmTree() {
  if (installed_) {
    FileTree = saved_files_;
    DirTree = saved_dirs_;
  }
  DestroyBintree(tree_, FreeFileNode);
  FreeFileNode(head_);
  tfree(head_);
  DestroyBintree(dirs_, FreeBNode);
  FreeBNode(dir_head_);
  tfree(dir_head_);
}

FileNode* ScmTree::Add(const std::string& root, const std::string& rel,
                       const std::string& version) {
  std::string key = root + "/" + rel;
  FileNode* node = NewFileNode(key.c_str());
  safe_cpy(&node->dir, root.c_str());
  safe_cpy(&node->name, rel.c_str());
  safe_cpy(&node->version, version.c_str());
  if (InsBintree(tree_, node) != 0) {
    FreeFileNode(node);
    tfree(node);
    throw std::runtime_error("duplicate key " + key);
  }
  return node;
}

FileNode* ScmTree::Find(const std::string& key) const {
  return static_cast<FileNode*>(FindKey(tree_, key.c_str()));
}

std::string ScmTree::Version(const std::string& key) const {
  FileNode* node = Find(key);
  return node ? std::string(node->version ? node->version : "<null>") : "<absent>";
}

std::vector<std::string> ScmTree::Keys() const {
  std::vector<std::string> keys;
  WalkBintree(
      tree_,
      [](void* record, uint32_t, void* arg) -> int {
        static_cast<std::vector<std::string>*>(arg)->push_back(
            static_cast<FileNode*>(record)->path);
        return 0;
      },
      &keys);
  return keys;
}

std::vector<std::string> ScmTree::DirKeys() const {
  std::vector<std::string> keys;
  WalkBintree(
      dirs_,
      [](void* record, uint32_t, void* arg) -> int {
        static_cast<std::vector<std::string>*>(arg)->push_back(static_cast<DirNode*>(record)->key);
        return 0;
      },
      &keys);
  return keys;
}

namespace {
std::string PathWithBin(const std::string& bin, bool keep) {
  const char* old = std::getenv("PATH");
  if (!keep)
    return bin + ":/bin";
  return bin + ":" + (old ? old : "/usr/bin:/bin");
}
}  // namespace

FakeClients::FakeClients(const TempDir& dir, bool keep_path)
    : bin_(dir / "fakebin"),
      out_(dir / "fakeout"),
      log_(dir / "fake.log"),
      path_("PATH", PathWithBin(dir / "fakebin", keep_path)) {
  MakeDirs(bin_);
  MakeDirs(out_);
  WriteFile(log_, "");
}

void FakeClients::Add(const std::string& name, const std::string& extra) {
  std::string body =
      "log='" + log_ + "'\nout='" + out_ + "'\nn='" + name +
      "'\n"
      "{ printf '%s|%s|' \"$n\" \"$(pwd -P)\"; for a in \"$@\"; do printf '[%s]' \"$a\"; done; "
      "printf '\\n'; } >> \"$log\"\n" +
      extra +
      "\n"
      "if [ -f \"$out/$n.$1.out\" ]; then cat \"$out/$n.$1.out\"; "
      "elif [ -f \"$out/$n.out\" ]; then cat \"$out/$n.out\"; fi\n"
      "exit 0\n";
  WriteScript(bin_, name, body);
}

void FakeClients::AddRaw(const std::string& name, const std::string& body) {
  WriteScript(bin_, name, body);
}

void FakeClients::Output(const std::string& name, const std::string& text, const std::string& sub) {
  WriteFile(out_ + "/" + name + (sub.empty() ? "" : "." + sub) + ".out", text);
}

std::vector<std::string> FakeClients::Log() const {
  std::vector<std::string> lines;
  std::istringstream in(ReadFile(log_).value_or(""));
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

namespace {
std::function<bool(const std::string&)>* g_fail = nullptr;
std::vector<std::string>* g_seen = nullptr;

FILE* FailingOpen(const char* command) {
  g_seen->push_back(command);
  if ((*g_fail)(command))
    return nullptr;
  return popen(command, "r");
}
}  // namespace

FailingStarts::FailingStarts(std::function<bool(const std::string&)> fail) : saved_(ScmClientOpen) {
  g_fail = new std::function<bool(const std::string&)>(std::move(fail));
  g_seen = new std::vector<std::string>();
  ScmClientOpen = &FailingOpen;
}

FailingStarts::~FailingStarts() {
  ScmClientOpen = saved_;
  delete g_fail;
  delete g_seen;
  g_fail = nullptr;
  g_seen = nullptr;
}

const std::vector<std::string>& FailingStarts::seen() const { return *g_seen; }

ScopedTz::ScopedTz(const std::string& tz) : env_("TZ", tz) { tzset(); }
ScopedTz::Retzset::~Retzset() { tzset(); }

std::string RealDir(const std::string& path) {
  char buf[PATH_MAX];
  if (realpath(path.c_str(), buf) == nullptr)
    return path;
  return buf;
}

std::string CurrentDir() {
  char* cwd = getcwd(nullptr, 0);
  std::string s = cwd ? cwd : "";
  std::free(cwd);
  return s;
}

long PeakRssKib() {
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

bool Sh(const std::string& script, const std::string& cwd) {
  std::string cmd = "cd '" + cwd + "' && { " + script + "\n} >/dev/null 2>&1";
  return std::system(cmd.c_str()) == 0;
}

std::string ShOut(const std::string& script, const std::string& cwd) {
  std::string cmd = "cd '" + cwd + "' && { " + script + "\n} 2>&1";
  std::fflush(stdout);
  FILE* p = popen(cmd.c_str(), "r");
  if (!p)
    return "";
  std::string out;
  char buf[4096];
  while (size_t n = std::fread(buf, 1, sizeof buf, p))
    out.append(buf, n);
  pclose(p);
  return out;
}

bool HaveTool(const std::string& name) {
  return std::system(("command -v '" + name + "' >/dev/null 2>&1").c_str()) == 0;
}

std::string MakeSvnCheckout(const TempDir& dir) {
  const std::string root = RealDir(dir.path());
  bool ok = Sh("svnadmin create repo && svn checkout -q file://" + root +
                   "/repo co && cd co && "
                   "echo a > a.c && mkdir sub && echo b > sub/b.c && svn add -q a.c sub && "
                   "svn commit -q -m one && echo a2 >> a.c && svn commit -q -m two",
               root);
  return ok ? root + "/co" : "";
}

std::string MakeCvsCheckout(const TempDir& dir) {
  const std::string root = RealDir(dir.path());
  bool ok = Sh("cvs -d " + root +
                   "/cvsroot init && mkdir empty && cd empty && "
                   "cvs -Q -d " +
                   root +
                   "/cvsroot import -m init mod vend start && cd .. && "
                   "cvs -Q -d " +
                   root +
                   "/cvsroot checkout -d co mod && cd co && "
                   "echo a > a.c && mkdir sub && cvs -Q add sub && echo b > sub/b.c && "
                   "cvs -Q add a.c sub/b.c && cvs -Q commit -m one && "
                   "echo a2 >> a.c && cvs -Q commit -m two",
               root);
  return ok ? root + "/co" : "";
}

namespace {
std::vector<std::string> SplitFields(const std::string& line) {
  std::vector<std::string> fields;
  size_t pos = 0;
  while (pos <= line.size()) {
    size_t end = line.find(';', pos);
    if (end == std::string::npos)
      end = line.size();
    std::string f = line.substr(pos, end - pos);
    while (!f.empty() && f.front() == ' ')
      f.erase(0, 1);
    fields.push_back(f);
    pos = end + 1;
  }
  return fields;
}

ScmRecord ParseRecord(const std::string& tag, const std::string& line) {
  std::vector<std::string> f = SplitFields(line);
  f.resize(6);
  return ScmRecord{tag, f[0], f[1], f[2], f[3], f[4], f[5]};
}
}  // namespace

std::vector<ScmRecord> ReadInventoryRecords(const std::string& path) {
  std::vector<ScmRecord> records;
  std::istringstream in(ReadFile(path).value_or(""));
  for (std::string line; std::getline(in, line);) {
    if (line.find('=') != std::string::npos)
      continue;
    records.push_back(ParseRecord("", line));
  }
  return records;
}

const ScmRecord* FindRecord(const std::vector<ScmRecord>& records, const std::string& name) {
  for (const auto& r : records) {
    if (r.name == name)
      return &r;
  }
  return nullptr;
}

RunResult RunInspection(const std::string& keyword, const std::string& build,
                        const std::string& start, const std::string& home) {
  MakeDirs(home);
  return RunTool(
      {"-c", keyword, "-b", build, "-lj", "job.bom.data", "-lm", "m", "-ld", "2026-01-02 03:04:05"},
      ToolEnv(home, std::string("http://127.0.0.1:1"), std::string("/usr/bin:/bin")), start);
}

std::string RunOutputName(const std::string& kind, int counter) {
  char num[16];
  std::snprintf(num, sizeof num, "%-2.2d", counter);
  return "job.bom.data-m-2026-01-02 03_04_05-" + std::string(num) + "-" + kind + ".data";
}

std::string DetailBlock(const std::string& report, const std::string& name) {
  std::istringstream in(report);
  std::string block;
  bool inside = false;
  for (std::string line; std::getline(in, line);) {
    if (!inside) {
      if (line.rfind("C;", 0) == 0 && ParseRecord("C", line.substr(2)).name == name)
        inside = true;
      continue;
    }
    block += line + "\n";
    if (line == std::string(22, '!'))
      return block;
  }
  return "";
}

}  // namespace wltest
