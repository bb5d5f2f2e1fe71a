// Faults a build farm meets, one row each, through the built binary: every
// run ends within its bound, names what went wrong, and leaves each output
// complete under its final name or not there at all. A row sets its world
// up (files, FIFOs, fake clients on bin, arguments, settings, a loopback
// server, a prefix program such as prlimit) and says what must hold after.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "e2e/e2e.h"
#include "testlib/net_fixtures.h"
#include "testlib/testlib.h"

namespace {

using e2e::Has;
using e2e::kStem;

struct World : e2e::World {
  World() {
    wltest::WriteFile(build + "/a.c", "abc");
    wltest::WriteFile(build + "/sub/b.c", std::string(3000, 'b'));
  }
  // The start directory's temporary files (".wlinspector-..."), or all its other names.
  std::vector<std::string> Listed(bool temporary) const {
    std::vector<std::string> out;
    for (const std::string& name : wltest::ListDir(start))
      if ((name.rfind(".wlinspector-", 0) == 0) == temporary)
        out.push_back(name);
    return out;
  }
  // Uploads go to a loopback server whose connections `handler` serves.
  void Serve(wltest::LoopbackListener::Handler handler) {
    listener.emplace(std::move(handler), 2);
    server = listener->Url();
  }
  std::string Fifo(const std::string& fifo) const {
    EXPECT_EQ(mkfifo(fifo.c_str(), 0700), 0) << fifo;
    return fifo;
  }

  std::optional<wltest::LoopbackListener> listener;
  std::vector<std::string> lead_args, extra_args;
};

// A row: how the world is set up, the run's status, a part of what it
// prints ({STEM}, {HOME}, {ROOT}, {BUILD}, {URL} and {SERVER} filled in), how many
// names it leaves in the start directory, and what else must hold.
struct Fault {
  const char* name;
  std::function<void(World&)> setup;
  int status;
  std::string printed;
  size_t left = 2;
  std::function<void(World&, const wltest::RunResult&)> check = nullptr;
};

std::string Fill(std::string text, const World& f) {
  const std::pair<const char*, std::string> marks[] = {
      {"{STEM}", kStem}, {"{HOME}", f.home}, {"{ROOT}", f.root}, {"{BUILD}", f.build}, {"{URL}", f.server.value_or("")},
      {"{SERVER}", f.listener ? "127.0.0.1 on port " + std::to_string(f.listener->port) : ""}};
  for (const auto& [mark, value] : marks)
    for (size_t at; (at = text.find(mark)) != std::string::npos;)
      text.replace(at, std::string(mark).size(), value);
  return text;
}

std::string Deep() {
  std::string path = "d";
  for (int level = 1; level < 40; ++level)
    path += "/d";
  return path;
}

// A fake client that kills the inspection that (indirectly) started it.
const char kKillInspector[] =
    "p=$PPID\n"
    "while [ \"$p\" -gt 1 ]; do\n"
    "  [ \"$(cat /proc/$p/comm)\" = wlinspector ] && kill -9 \"$p\" && exit 0\n"
    "  p=$(cut -d' ' -f4 /proc/$p/stat)\n"
    "done\n";

// The svn listing's entry for a.c, as the fake clients print it.
const std::string kSvnEntry = "printf 'Path: a.c\\nRevision: 7\\nNode Kind: file\\n'\n";

const std::string kPropertyIgnored =
    "Property file {HOME}/.weftlane/wlenvironment.properties is not a regular file of at most "
    "16777216 bytes: it is ignored.\nCommand Line Options: ";

// Both uploads, each ended by `error` (WHAT standing for the report's
// transfer copy), and the run completed.
std::string UploadErrors(const std::string& error) {
  std::string out;
  for (const std::string kind : {"bom.data", "diff.data"}) {
    std::string e = error;
    e.replace(e.find("WHAT"), 4, "{STEM}" + kind);
    out += "Uploading Report Data {STEM}" + kind + "\nLogUrl={URL}/LogUpload\n" + e + "\n\n";
  }
  return out + "Complete\n";
}

// The inventory holds both files, a.c with the svn client's version, and
// the report adds both.
void ExpectSvnVersion(World& f, const wltest::RunResult&) {
  const std::string bom = f.Out(kStem + "01-bom.data"), diff = f.Out(kStem + "01-diff.data");
  EXPECT_TRUE(Has(bom, "\n" + f.build + ";a.c;3;") && Has(bom, "; 7;\n") &&
              Has(bom, "\n" + f.build + ";sub/b.c;3000;"))
      << bom;
  EXPECT_TRUE(Has(diff, "\nA;" + f.build + ";a.c;") && Has(diff, "\nA;" + f.build + ";sub/b.c;"))
      << diff;
}

// An svn client with `body`, stopped after 2 s.
auto SvnClient(const std::string& body) {
  return [body](World& f) {
    wltest::WriteScript(f.bin, "svn", body);
    f.env["WEFTLANE_CLIENT_TIMEOUT"] = "2";
    f.extra_args = {"-c", "SVN"};
  };
}

const Fault kFaults[] = {
    {"a file size limit (full disk) fails the inventory, not the run's record",
     [](World& f) {
       for (int i = 0; i < 50; ++i)
         wltest::WriteFile(f.build + "/many/" + std::to_string(i), "");
       f.prefix = {"/usr/bin/prlimit", "--fsize=2000"};
     },
     1, "Could not write to {STEM}01-bom.data: File too large\n", 0},
    {"a low descriptor limit, a tree 40 directories deep and 200 wide: every file is digested",
     [](World& f) {
       wltest::WriteFile(f.build + "/" + Deep() + "/f.c", "");
       for (int i = 0; i < 200; ++i)
         wltest::WriteFile(f.build + "/w" + std::to_string(i) + "/g.c", "abc");
       f.prefix = {"/usr/bin/prlimit", "--nofile=20"};
     },
     0, "Complete\n", 2,
     [](World& f, const wltest::RunResult&) {
       const std::string bom = f.Out(kStem + "01-bom.data");
       EXPECT_TRUE(Has(bom, ";" + Deep() + "/f.c;0;"));
       for (int i = 0; i < 200; ++i)
         EXPECT_TRUE(Has(bom, ";w" + std::to_string(i) + "/g.c;3;")) << i;
       EXPECT_FALSE(Has(bom, ";3;0;")) << "a file recorded without its digest";
     }},
    {"a descriptor limit too low for the walk writes nothing rather than a partial inventory",
     [](World& f) {
       wltest::WriteFile(f.build + "/" + Deep() + "/f.c", "");
       f.prefix = {"/usr/bin/prlimit", "--nofile=8"};
     },
     1, "OldFileName=\nERROR 61: Ran out of file descriptors at {BUILD}/", 0,
     [](World&, const wltest::RunResult& r) {
       const std::string end =
           ": the scan is incomplete, so no report or inventory is written (raise the limit with "
           "ulimit -n)\n";
       EXPECT_EQ(r.out.substr(r.out.size() - std::min(r.out.size(), end.size())), end);
     }},
    {"a FIFO as the home property file is named and skipped",
     [](World& f) {
       wltest::MakeDirs(f.home + "/.weftlane");
       f.Fifo(f.home + "/.weftlane/wlenvironment.properties");
     },
     0, kPropertyIgnored},
    {"a home property file that links to /dev/zero is named and skipped",
     [](World& f) {
       wltest::MakeDirs(f.home + "/.weftlane");
       EXPECT_EQ(symlink("/dev/zero", (f.home + "/.weftlane/wlenvironment.properties").c_str()), 0);
     },
     0, kPropertyIgnored},
    {"a FIFO as the response file is refused",
     [](World& f) { f.lead_args = {"@" + f.Fifo(f.root + "/job.rsp")}; }, 1, "", 0,
     [](World& f, const wltest::RunResult& r) {
       EXPECT_EQ(r.out, Fill("Response file {ROOT}/job.rsp is not a regular file of at most 16777216 bytes.\n", f));
     }},
    {"a FIFO named wlsubmit on PATH is not taken for the program",
     [](World& f) { f.Fifo(f.bin + "/wlsubmit"); }, 0, "Complete\n"},
    {"a run that finds its numbers taken meanwhile takes the next ones",
     [](World& f) {
       // The per-file client stands in for a second run that finishes first.
       wltest::WriteScript(f.bin, "p4",
                           "cd '" + f.start + "' && for k in bom diff; do\n  [ -e '" + kStem +
                               "01-'$k.data ] || echo other > '" + kStem + "01-'$k.data\ndone\n");
       f.extra_args = {"-c", "PERFORCE"};
     },
     0, "Saving Comparison data\nRptFileName={STEM}02-diff.data\nNewFileName={STEM}02-bom.data\n", 4,
     [](World& f, const wltest::RunResult&) {
       EXPECT_EQ(f.Out(kStem + "01-bom.data"), "other\n");
       EXPECT_TRUE(Has(f.Out(kStem + "02-bom.data"), ";a.c;3;"));
     }},
    {"two runs at once in one start directory keep both inventories",
     [](World& f) {
       wltest::WriteFile(f.root + "/build2/other.c", "x");
       std::string second = std::string("'") + WL_BINARY + "' -b '" + f.root +
                            "/build2' -lj job.bom.data -lm m1 -ld '" + e2e::kDate + "' >/dev/null";
       f.prefix = {"/bin/sh", "-c", second + " & \"$0\" \"$@\"; s=$?; wait; exit $s"};
     },
     0, "Complete\n", 4,
     [](World& f, const wltest::RunResult&) {
       std::string both = f.Out(kStem + "01-bom.data") + f.Out(kStem + "02-bom.data");
       EXPECT_TRUE(Has(both, ";a.c;") && Has(both, ";other.c;")) << both;
     }},
    {"a server that takes each upload and never answers (bound from the home property file)",
     [](World& f) {
       f.Serve(wltest::Answer("", true));
       wltest::WriteFile(f.home + "/.weftlane/wlenvironment.properties", "WEFTLANE_TIMEOUT=1\n");
     },
     0, UploadErrors("ERROR 410: Timed out after 1 s waiting for the answer to WHAT from {SERVER}")},
    {"a server that trickles its answer a byte at a time",
     [](World& f) {
       f.Serve(wltest::Trickle());
       f.env["WEFTLANE_TIMEOUT"] = "2";
     },
     0, UploadErrors("ERROR 410: Timed out after 2 s waiting for the answer to WHAT from {SERVER}")},
    {"a server that resets the connection instead of answering",
     [](World& f) {
       f.Serve([](wltest::ServerConn& c) {
         c.ReadRequest();
         linger abort_on_close{1, 0};
         setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof abort_on_close);
       });
       f.env["WEFTLANE_TIMEOUT"] = "1";
     },
     0, UploadErrors("ERROR 411: Connection to {SERVER} lost while reading the answer to WHAT: "
                     "Connection reset by peer")},
    {"an svn client that sleeps is stopped at its bound; the run completes with what it printed",
     SvnClient(kSvnEntry + "sleep 60 & wait\n"), 0,
     "Executing: svn info -R 2>&1\nStopped after 2 seconds: svn info -R 2>&1\n", 2, ExpectSvnVersion},
    {"an svn client that prints endlessly is stopped at its bound",
     SvnClient(kSvnEntry + "yes 'Path: endless'\n"), 0,
     "\nStopped after 2 seconds: svn info -R 2>&1\nDetermining", 2, ExpectSvnVersion},
    {"an svn client that asks for a password gets no input, whatever the run's input is",
     [](World& f) {
       SvnClient("printf 'Password for u: '\nread -r secret && exit 1\necho\n" + kSvnEntry)(f);
       // Opened for reading and writing, the run's input FIFO never ends:
       // a client given it would wait for ever.
       f.prefix = {"/bin/sh", "-c", "exec \"$0\" \"$@\" 0<>'" + f.Fifo(f.root + "/stdin") + "'"};
     },
     0, "Executing: svn info -R 2>&1\nDetermining", 2, ExpectSvnVersion},
    {"a run killed while it writes the report leaves no output under a final name",
     [](World& f) {
       // An earlier inventory with a different digest makes a.c changed, so
       // the detail client runs while the report is half written.
       wltest::WriteFile(f.start + "/job.bom.data-m1-0-bom.data",
                         "ModuleRootDir=" + f.build + "\n" + f.build +
                             ";a.c;3;1; 00000000000000000000000000000000; 1;\n");
       wltest::WriteScript(f.bin, "svn",
                           "case \"$*\" in \"info -R\"*) exit 0;; esac\n" + std::string(kKillInspector));
       f.extra_args = {"-c", "SVN"};
     },
     128 + 9, "Determining Added and Changed Files\n", 1},  // the earlier inventory
};

void PrintTo(const Fault& fault, std::ostream* os) { *os << fault.name; }

// One test per row, so that the rows' waits overlap when the tests run in parallel.
class Faults : public ::testing::TestWithParam<Fault> {};
INSTANTIATE_TEST_SUITE_P(Table, Faults, ::testing::ValuesIn(kFaults));

TEST_P(Faults, EachEndsBoundedNamedAndCompleteOrAbsent) {
  const Fault& fault = GetParam();
  World f;
  fault.setup(f);
  std::vector<std::string> args = f.lead_args, job = f.Job(f.extra_args);
  args.insert(args.end(), job.begin(), job.end());
  wltest::RunResult r = f.Run(args);
  EXPECT_EQ(r.status, fault.status) << r.out << r.err;
  EXPECT_TRUE(Has(r.out, Fill(fault.printed, f))) << r.out;
  EXPECT_EQ(f.Listed(false).size(), fault.left);
  if (fault.check)
    fault.check(f, r);
  // A finished run, failed or not, leaves no temporary file behind.
  if (r.status < 128) {
    EXPECT_TRUE(f.Listed(true).empty());
  }
}

}  // namespace
