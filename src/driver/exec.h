#pragma once
// Process execution for tools that link this library (the inspection itself
// does not use it).

#include <sys/types.h>

#include <cstdio>

int ExecuteCmd(const char* command, int use_perl, int echo, int wait, pid_t* pid_out);
int wlfprintf(const char* source_file, int source_line, FILE* stream, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
