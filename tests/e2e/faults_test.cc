// Faults a build farm meets, one row each, through the built binary: every
// run ends within its bound, names what went wrong, and leaves each output
// complete under its final name or not there at all.
//
// To add a fault, add a row to kFaults: a name, how to set it up in the
// fixture (files, FIFOs, fake clients on bin, extra arguments or settings,
// a loopback server, a prefix program such as prlimit), and what must hold
// after the run.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "testlib/net_fixtures.h"
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
    auto env = wltest::ToolEnv(home_, server_, bin_ + ":/usr/bin:/bin");
    env.insert(env_.begin(), env_.end());
    return wltest::RunProgram(argv, env, start_, 30);
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
  std::map<std::string, std::string> env_;
  std::optional<wltest::LoopbackListener> server_at_;  // serves both uploads
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

// Uploads go to a loopback server whose connections `handler` serves.
void Serve(World& f, wltest::LoopbackListener::Handler handler) {
  f.server_at_.emplace(std::move(handler), 2);
  f.server_ = f.server_at_->Url();
}

// Both uploads, each ended by `error` (WHAT standing for the report's
// transfer copy), and the run completed.
void ExpectUploadErrors(const World& f, const wltest::RunResult& r, const std::string& error) {
  std::string expected;
  for (const char* kind : {"bom.data", "diff.data"}) {
    std::string e = error + "\n";
    e.replace(e.find("WHAT"), 4, kStem + std::string(kind));
    expected += "Uploading Report Data " + std::string(kStem) + kind + "\nLogUrl=" + f.server_ +
                "/LogUpload\n" + e + "\n";
  }
  EXPECT_TRUE(Has(r.out, expected + "Complete\n")) << r.out;
  EXPECT_EQ(f.Outputs().size(), 2u);
}

// The server as the ERROR lines name it.
std::string Server(const World& f) {
  return "127.0.0.1 on port " + std::to_string(f.server_at_->port);
}

void ExpectPropertyFileIgnored(World& f, const wltest::RunResult& r) {
  EXPECT_EQ(r.out.rfind("Property file " + f.home_ +
                            "/.weftlane/wlenvironment.properties is not a regular file of "
                            "at most 16777216 bytes: it is ignored.\nCommand Line Options: ",
                        0),
            0u)
      << r.out;
  EXPECT_EQ(f.Outputs().size(), 2u);
}

// The svn listing's entry for a.c, as the fake clients print it.
constexpr char kSvnEntry[] = "printf 'Path: a.c\\nRevision: 7\\nNode Kind: file\\n'\n";

// The run's inventory holds both files, a.c with the client's version, and
// its report adds both.
void ExpectCompleteWithVersion(World& f) {
  const std::string bom = wltest::ReadFile(f.start_ + "/" + kStem + "01-bom.data").value_or("");
  const std::string diff =
      wltest::ReadFile(f.start_ + "/" + kStem + "01-diff.data").value_or("");
  EXPECT_TRUE(Has(bom, "\n" + f.build_ + ";a.c;3;") && Has(bom, "; 7;\n") &&
              Has(bom, "\n" + f.build_ + ";sub/b.c;3000;"))
      << bom;
  EXPECT_TRUE(Has(diff, "\nA;" + f.build_ + ";a.c;") && Has(diff, "\nA;" + f.build_ + ";sub/b.c;"))
      << diff;
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
     0, ExpectPropertyFileIgnored},
    {"a home property file that links to /dev/zero is named and skipped",
     [](World& f) {
       wltest::MakeDirs(f.home_ + "/.weftlane");
       EXPECT_EQ(symlink("/dev/zero", (f.home_ + "/.weftlane/wlenvironment.properties").c_str()),
                 0);
     },
     0, ExpectPropertyFileIgnored},
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
    {"a server that takes each upload and never answers (bound from the home property file)",
     [](World& f) {
       Serve(f, wltest::Answer("", true));
       wltest::WriteFile(f.home_ + "/.weftlane/wlenvironment.properties", "WEFTLANE_TIMEOUT=1\n");
     },
     0,
     [](World& f, const wltest::RunResult& r) {
       ExpectUploadErrors(
           f, r, "ERROR 410: Timed out after 1 s waiting for the answer to WHAT from " + Server(f));
     }},
    {"a server that trickles its answer a byte at a time",
     [](World& f) {
       Serve(f, wltest::Trickle());
       f.env_["WEFTLANE_TIMEOUT"] = "2";
     },
     0,
     [](World& f, const wltest::RunResult& r) {
       ExpectUploadErrors(
           f, r, "ERROR 410: Timed out after 2 s waiting for the answer to WHAT from " + Server(f));
     }},
    {"a server that resets the connection instead of answering",
     [](World& f) {
       Serve(f, [](wltest::ServerConn& c) {
         c.ReadRequest();
         linger abort_on_close{1, 0};
         setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof abort_on_close);
       });
       f.env_["WEFTLANE_TIMEOUT"] = "1";
     },
     0,
     [](World& f, const wltest::RunResult& r) {
       ExpectUploadErrors(f, r, "ERROR 411: Connection to " + Server(f) +
                                    " lost while reading the answer to WHAT: Connection reset by "
                                    "peer");
     }},
    {"an svn client that sleeps is stopped at its bound; the run completes with what it printed",
     [](World& f) {
       wltest::WriteScript(f.bin_, "svn", kSvnEntry + std::string("sleep 60 & wait\n"));
       f.env_["WEFTLANE_CLIENT_TIMEOUT"] = "2";
       f.extra_args_ = {"-c", "SVN"};
     },
     0,
     [](World& f, const wltest::RunResult& r) {
       EXPECT_TRUE(Has(r.out, "Executing: svn info -R 2>&1\nStopped after 2 seconds: svn info -R "
                              "2>&1\n"))
           << r.out;
       ExpectCompleteWithVersion(f);
     }},
    {"an svn client that prints endlessly is stopped at its bound",
     [](World& f) {
       wltest::WriteScript(f.bin_, "svn", kSvnEntry + std::string("yes 'Path: endless'\n"));
       f.env_["WEFTLANE_CLIENT_TIMEOUT"] = "2";
       f.extra_args_ = {"-c", "SVN"};
     },
     0,
     [](World& f, const wltest::RunResult& r) {
       EXPECT_TRUE(Has(r.out, "\nStopped after 2 seconds: svn info -R 2>&1\n")) << r.out;
       ExpectCompleteWithVersion(f);
     }},
    {"an svn client that asks for a password gets no input, whatever the run's input is",
     [](World& f) {
       wltest::WriteScript(f.bin_, "svn",
                           "printf 'Password for u: '\nread -r secret && exit 1\necho\n" +
                               std::string(kSvnEntry));
       // Opened for reading and writing, the run's input FIFO never ends:
       // a client given it would wait for ever.
       f.prefix_ = {"/bin/sh", "-c", "exec \"$0\" \"$@\" 0<>'" + Fifo(f.dir_ / "stdin") + "'"};
       f.extra_args_ = {"-c", "SVN"};
     },
     0,
     [](World& f, const wltest::RunResult& r) {
       EXPECT_FALSE(Has(r.out, "Stopped after")) << r.out;
       ExpectCompleteWithVersion(f);
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
