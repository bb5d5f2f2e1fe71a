// Faults a build farm meets, one row each, through the built binary: every
// run ends within its bound, names what went wrong, and leaves each output
// complete under its final name or not there at all.
//
// To add a fault, add a row to kFaults: a name, how to set it up in the
// fixture (files, FIFOs, fake clients on bin, extra arguments, a prefix
// program such as prlimit), and what must hold after the run.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "testlib/testlib.h"

namespace {

constexpr char kDate[] = "2026-01-02 03:04:05";
constexpr char kStem[] = "job.bom.data-m1-2026-01-02 03_04_05-";

// One run's world: a build tree, a start directory, a home, a bin directory
// first on PATH, and what the row adds.
class World {
 public:
  World() {
    for (const std::string& d : {build_, start_, home_, bin_})
      wltest::MakeDirs(d);
    wltest::WriteFile(build_ + "/a.c", "abc");
    wltest::WriteFile(build_ + "/sub/b.c", std::string(3000, 'b'));
  }

  std::vector<std::string> Args() const {
    std::vector<std::string> args = lead_args_;
    for (const char* a : {"-b", build_.c_str(), "-lj", "job.bom.data", "-lm", "m1", "-ld", kDate})
      args.push_back(a);
    args.insert(args.end(), extra_args_.begin(), extra_args_.end());
    return args;
  }

  wltest::RunResult Run() const {
    std::vector<std::string> argv = prefix_;
    argv.push_back(WL_BINARY);
    for (const std::string& a : Args())
      argv.push_back(a);
    return wltest::RunProgram(argv, wltest::ToolEnv(home_, server_, bin_ + ":/usr/bin:/bin"),
                              start_, 30);
  }

  // The outputs under their final names in the start directory.
  std::vector<std::string> Outputs() const {
    std::vector<std::string> out;
    for (const std::string& name : wltest::ListDir(start_)) {
      size_t n = name.size();
      if ((n > 9 && name.compare(n - 9, 9, "-bom.data") == 0) ||
          (n > 10 && name.compare(n - 10, 10, "-diff.data") == 0))
        out.push_back(name);
    }
    return out;
  }
  std::vector<std::string> Temporary() const {
    std::vector<std::string> out;
    for (const std::string& name : wltest::ListDir(start_))
      if (name.rfind(".wlinspector-", 0) == 0)
        out.push_back(name);
    return out;
  }

  wltest::TempDir dir_;
  std::string build_ = dir_ / "build", start_ = dir_ / "start", home_ = dir_ / "home",
              bin_ = dir_ / "bin";
  std::string server_ = "http://127.0.0.1:1";
  std::vector<std::string> lead_args_, extra_args_, prefix_;
};

struct Fault {
  const char* name;
  std::function<void(World&)> setup;
  int status;
  std::function<void(World&, const wltest::RunResult&)> check;
};

// A fake client that kills the inspection that (indirectly) started it.
const char kKillInspector[] =
    "p=$PPID\n"
    "while [ \"$p\" -gt 1 ]; do\n"
    "  [ \"$(cat /proc/$p/comm)\" = wlinspector ] && kill -9 \"$p\" && exit 0\n"
    "  p=$(cut -d' ' -f4 /proc/$p/stat)\n"
    "done\n";

std::string Fifo(const std::string& path) {
  EXPECT_EQ(mkfifo(path.c_str(), 0700), 0) << path;
  return path;
}

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

const Fault kFaults[] = {
    {"a file size limit (full disk) fails the inventory, not the run's record",
     [](World& f) {
       for (int i = 0; i < 50; ++i)
         wltest::WriteFile(f.build_ + "/many/" + std::to_string(i), "");
       f.prefix_ = {"/usr/bin/prlimit", "--fsize=2000"};
     },
     1,
     [](World& f, const wltest::RunResult& r) {
       EXPECT_TRUE(Has(r.out, "Could not write to " + std::string(kStem) +
                                  "01-bom.data: File too large\n"))
           << r.out;
       EXPECT_TRUE(f.Outputs().empty());
     }},
    {"a FIFO as the home property file is named and skipped",
     [](World& f) {
       wltest::MakeDirs(f.home_ + "/.weftlane");
       Fifo(f.home_ + "/.weftlane/wlenvironment.properties");
     },
     0,
     [](World& f, const wltest::RunResult& r) {
       EXPECT_EQ(r.out.rfind("Property file " + f.home_ +
                                 "/.weftlane/wlenvironment.properties is not a regular file of "
                                 "at most 16777216 bytes: it is ignored.\nCommand Line Options: ",
                             0),
                 0u)
           << r.out;
       EXPECT_EQ(f.Outputs().size(), 2u);
     }},
    {"a FIFO as the response file is refused",
     [](World& f) { f.lead_args_ = {"@" + Fifo(f.dir_ / "job.rsp")}; }, 1,
     [](World& f, const wltest::RunResult& r) {
       EXPECT_EQ(r.out, "Response file " + f.dir_.path() +
                            "/job.rsp is not a regular file of at most 16777216 bytes.\n");
     }},
    {"a FIFO named wlsubmit on PATH is not taken for the program",
     [](World& f) { Fifo(f.bin_ + "/wlsubmit"); }, 0,
     [](World& f, const wltest::RunResult&) { EXPECT_EQ(f.Outputs().size(), 2u); }},
    {"a run that finds its numbers taken meanwhile takes the next ones",
     [](World& f) {
       // The per-file client stands in for a second run that finishes first.
       wltest::WriteScript(f.bin_, "p4",
                           "cd '" + f.start_ + "' && for k in bom diff; do\n"
                           "  [ -e '" + kStem + "01-'$k.data ] || echo other > '" + kStem +
                               "01-'$k.data\ndone\n");
       f.extra_args_ = {"-c", "PERFORCE"};
     },
     0,
     [](World& f, const wltest::RunResult& r) {
       const std::string s = kStem;
       EXPECT_TRUE(Has(r.out, "Saving Comparison data\nRptFileName=" + s +
                                  "02-diff.data\nNewFileName=" + s + "02-bom.data\n"))
           << r.out;
       EXPECT_EQ(wltest::ReadFile(f.start_ + "/" + s + "01-bom.data"), "other\n");
       EXPECT_TRUE(Has(wltest::ReadFile(f.start_ + "/" + s + "02-bom.data").value_or(""),
                       ";a.c;3;"));
     }},
    {"two runs at once in one start directory keep both inventories",
     [](World& f) {
       wltest::WriteFile(f.dir_ / "build2/other.c", "x");
       std::string second = std::string("'") + WL_BINARY + "' -b '" + f.dir_.path() +
                            "/build2' -lj job.bom.data -lm m1 -ld '" + kDate + "' >/dev/null";
       f.prefix_ = {"/bin/sh", "-c", second + " & \"$0\" \"$@\"; s=$?; wait; exit $s"};
     },
     0,
     [](World& f, const wltest::RunResult&) {
       const std::string s = kStem;
       EXPECT_EQ(f.Outputs(), (std::vector<std::string>{s + "01-bom.data", s + "01-diff.data",
                                                         s + "02-bom.data", s + "02-diff.data"}));
       std::string both = wltest::ReadFile(f.start_ + "/" + s + "01-bom.data").value_or("") +
                          wltest::ReadFile(f.start_ + "/" + s + "02-bom.data").value_or("");
       EXPECT_TRUE(Has(both, ";a.c;") && Has(both, ";other.c;")) << both;
     }},
    {"a run killed while it writes the report leaves no output under a final name",
     [](World& f) {
       // An earlier inventory with a different digest makes a.c changed, so
       // the detail client runs while the report is half written.
       wltest::WriteFile(f.start_ + "/job.bom.data-m1-0-bom.data",
                         "ModuleRootDir=" + f.build_ + "\n" + f.build_ +
                             ";a.c;3;1; 00000000000000000000000000000000; 1;\n");
       wltest::WriteScript(f.bin_, "svn",
                           "case \"$*\" in \"info -R\"*) exit 0;; esac\n" +
                               std::string(kKillInspector));
       f.extra_args_ = {"-c", "SVN"};
     },
     128 + 9,
     [](World& f, const wltest::RunResult& r) {
       EXPECT_TRUE(Has(r.out, "Determining Added and Changed Files\n")) << r.out;
       EXPECT_EQ(f.Outputs(), std::vector<std::string>{"job.bom.data-m1-0-bom.data"});
     }},
};

TEST(Faults, EachEndsBoundedNamedAndCompleteOrAbsent) {
  for (const Fault& fault : kFaults) {
    SCOPED_TRACE(fault.name);
    World f;
    fault.setup(f);
    wltest::RunResult r = f.Run();
    EXPECT_EQ(r.status, fault.status) << r.out << r.err;
    fault.check(f, r);
    // A finished run, failed or not, leaves no temporary file behind.
    if (r.status < 128) {
      EXPECT_TRUE(f.Temporary().empty());
    }
  }
}

}  // namespace
