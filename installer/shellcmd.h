// The one place where shell commands are built and run.
#pragma once
#include <cstdint>
#include <cstdio>

// Formats a shell command into out (size bytes). The format is shell text with "%s" for
// text arguments, "%d" for int arguments and "%%" for "%". Each text argument is inserted as
// exactly one shell word:
//  - a bare %s whose text is made of ordinary characters (letters, digits and _ . / - + , : = @ %)
//    goes in as it stands; an empty bare argument goes in as nothing at all;
//  - a double-quoted span of the format ("...%s...") stays as written when the composed span
//    holds none of " $ ` \ or a newline;
//  - anything else is put in single quotes, so the shell sees exactly the text given.
// Returns 0, or 1 when the command does not fit (out is then emptied).
int32_t formatShellCommand(char* out, int32_t size, const char* format, ...);
// The same, formatted onto the end of the command already in out.
int32_t appendShellCommand(char* out, int32_t size, const char* format, ...);
// Runs a command through the shell; returns system()'s status.
int32_t runShell(const char* command);
// popen/pclose for commands built by formatShellCommand.
FILE* openShellPipe(const char* command, const char* mode);
int32_t closeShellPipe(FILE* pipe);
