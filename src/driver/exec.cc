#include "driver/exec.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/strings.h"

namespace {

bool StartsWithQuote(const std::string& w) { return !w.empty() && w.front() == '"'; }
bool EndsWithQuote(const std::string& w) { return !w.empty() && w.back() == '"'; }

std::string Unquoted(std::string w) {
  StripChar(w, "\"", 2);
  return w;
}

// The perl form's arguments from the display text, or false when there are
// more than kMaxExecArgs of them.
bool PerlArguments(const std::string& display, std::vector<std::string>& args) {
  const char* text = display.c_str();
  bool in_group = false;
  std::string group;
  for (int n = 1;; ++n) {
    std::string word = GetWord(text, " ", n, n);
    if (word.empty())
      break;
    std::string arg;
    bool complete = false;
    if (in_group) {
      group += ' ';
      group += Unquoted(word);
      if (EndsWithQuote(word)) {
        arg = std::move(group);
        group.clear();
        in_group = false;
        complete = true;
      }
    } else if (StartsWithQuote(word) && EndsWithQuote(word)) {
      arg = Unquoted(word);
      complete = true;
    } else if (StartsWithQuote(word)) {
      group = Unquoted(word);
      in_group = true;
    } else {
      arg = std::move(word);
      complete = true;
    }
    if (complete) {
      if (args.size() >= static_cast<size_t>(kMaxExecArgs))
        return false;
      args.push_back(std::move(arg));
    }
  }
  // A group still open at the end is dropped.
  return true;
}

// Where execvp would find `program`: a name with a '/' as it stands, else
// the first executable PATH entry. Resolved before the fork so that the
// child only has to call execv.
std::string ResolveProgram(const std::string& program) {
  if (program.find('/') != std::string::npos)
    return program;
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/bin:/usr/bin";
  size_t start = 0;
  for (;;) {
    size_t end = dirs.find(':', start);
    std::string dir =
        dirs.substr(start, end == std::string::npos ? std::string::npos : end - start);
    std::string candidate = (dir.empty() ? std::string(".") : dir) + "/" + program;
    struct stat st;
    if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
    if (end == std::string::npos)
      break;
    start = end + 1;
  }
  return {};
}

}  // namespace

int ExecuteCmd(const char* command, int use_perl, int echo, int wait, pid_t* pid_out) {
  std::string display =
      use_perl ? std::string("perl ") + command : std::string("sh -c '") + command + "'";
  chmod(command, 0777);  // fails unnoticed when the text holds arguments

  std::vector<std::string> args;
  if (use_perl) {
    if (!PerlArguments(display, args)) {
      if (pid_out)
        *pid_out = -1;
      return 0;
    }
  } else {
    args = {"sh", "-c", command};
  }
  // Everything the child needs is made here: between fork and exec it only
  // calls execv and _exit.
  std::string program = args.empty() ? std::string() : ResolveProgram(args[0]);
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (std::string& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);

  if (echo)
    std::printf("Execute: %s\n", display.c_str());
  std::fflush(stdout);

  pid_t pid = fork();
  if (pid == 0) {
    if (!program.empty())
      execv(program.c_str(), argv.data());
    // A program that cannot be started ends the child with status 0.
    _exit(0);
  }
  if (pid < 0)
    return 0;
  if (wait == 1) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
      if (errno != EINTR)
        return 0;
    }
    return status;
  }
  if (pid_out)
    *pid_out = pid;
  return 0;
}

int wlfprintf(const char* source_file, int source_line, FILE* stream, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int count = std::vfprintf(stream, format, args);
  va_end(args);
  if (count < 0) {
    int err = errno;
    std::string prefix =
        "ERROR 65: (" + std::string(source_file) + "," + std::to_string(source_line) + ")";
    errno = err;
    std::perror(prefix.c_str());
  }
  return count;
}
