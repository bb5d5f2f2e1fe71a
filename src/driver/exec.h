#pragma once
// Process execution for tools that link this library (the inspection run
// itself does not use it).
//
// ExecuteCmd starts a shell command line or a perl script with its arguments
// in a child process; wlfprintf writes formatted output and reports a failed
// write with the caller's source position. (EndsWith, the third helper of
// this family, lives in support/strings.h.)

#include <sys/types.h>

#include <cstdio>

// Most arguments (the program name "perl" included) that the perl form of
// ExecuteCmd passes; a null entry follows the last one.
inline constexpr int kMaxExecArgs = 19;

// Start `command` in a child process.
//
// Forms:
// - use_perl 0 (shell form): runs "sh" "-c" command, the command text passed
//   unchanged as one argument. The display text is "sh -c '<command>'".
// - use_perl non-zero (perl form): the display text "perl <command>" is cut
//   at blanks into arguments, "perl" first. A word that begins with '"'
//   opens a group: the following words are gathered, each stripped of '"' at
//   both ends and joined by one blank, up to a word that ends with '"'; the
//   group is one argument. A word that begins and ends with '"' is one
//   argument, stripped of its quotes. A group that is never closed is
//   dropped. Runs of blanks separate as one, so a group's inner blanks are
//   folded to one. Example: x.pl "a b" c passes perl, x.pl, a b, c.
//   A perl command line of more than kMaxExecArgs arguments is refused: no
//   child is started, nothing is printed, *pid_out (when given) is set to -1
//   and the result is 0.
//
// Before the start, the permission bits of the file named by the whole
// command text are set to 0777 (this makes a freshly written script
// executable; when the text holds arguments the call fails unnoticed). With
// echo non-zero, "Execute: <display text>\n" is printed. Standard output is
// flushed before the fork in any case.
//
// The program ("sh" or "perl") is searched on PATH ("/bin:/usr/bin" when
// PATH is unset). A child that cannot start it exits with status 0, so a
// failed start looks like success to the caller; this is how the operation
// has always reported.
//
// Result: with wait == 1, the child's raw wait status as waitpid reports it
// (decode with WIFEXITED/WEXITSTATUS); otherwise 0 at once, with the child's
// process id stored in *pid_out (pid_out may be null). The caller then owns
// the child and must reap it (waitpid) to avoid a zombie. A failed fork
// returns 0 and leaves *pid_out untouched. `command` is only read; nothing
// is handed over to the caller.
int ExecuteCmd(const char* command, int use_perl, int echo, int wait, pid_t* pid_out);

// fprintf(stream, format, ...). When the write fails (negative count), prints
// on standard error "ERROR 65: (<source_file>,<source_line>): <system error
// text>\n" (the perror form, with errno as the write left it). Returns the
// count, negative on failure. Pass __FILE__ and __LINE__ as the position.
int wlfprintf(const char* source_file, int source_line, FILE* stream, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
