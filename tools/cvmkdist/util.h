// Small services of the distribution builder: reporting, whole files, directories and the
// programs it runs (tar, cp), which are started directly with an argument vector, never
// through a shell, so that no path needs quoting.
#pragma once
#include <sys/types.h>

#include <string>
#include <vector>

// Prints "cvmkdist: ", the format filled with what, and ": detail" when given, to standard
// error. Returns 1, the status of every failing operation here.
int mkdistFail(const char* format, const std::string& what, const char* detail = nullptr);
// "cvmkdist: warning: text" on standard error.
void mkdistWarn(const std::string& text);
// "cvmkdist: title" (behind "warning: " when asked) and each item on a line of its own below it.
void mkdistList(const std::string& title, const std::vector<std::string>& items, bool warning = false);

int readWholeFile(const std::string& file, std::string* content);
// Writes content to file (replacing it) and gives it exactly the mode given.
int writeWholeFile(const std::string& file, const std::string& content, mode_t mode);
// Copies a regular file's contents to target with the mode given.
int copyInto(const std::string& source, const std::string& target, mode_t mode);
// The same for a program that a distribution ships: an ELF file loses its symbol table and debug
// information (strip --strip-all), which the user never needs and which hold the build's paths;
// anything else (a script) is copied as it is.
int copyStripped(const std::string& source, const std::string& target, mode_t mode);
int makeDirectoryTree(const std::string& dir);
void removeTree(const std::string& dir);
// A new private directory under TMPDIR (default /tmp) for intermediate files.
int makeWorkDirectory(std::string* dir);
// The last component of a path and the directory part before it ("." when there is none).
std::string baseName(const std::string& path);
std::string dirName(const std::string& path);

// Runs the program (searched in PATH) with standard output to outFd, or left as it is when
// outFd is -1. Returns 0 when it exits with status 0; otherwise reports it and returns 1.
int runProgram(const std::vector<std::string>& argv, int outFd = -1);
// Starts the program with its standard output into a pipe; returns the pipe's read end, or -1.
int startProgramReader(const std::vector<std::string>& argv, pid_t* pid);
// Waits for a program started so; 0 when it exited with status 0, else reported and 1.
int waitProgram(pid_t pid, const std::vector<std::string>& argv);

// SOURCE_DATE_EPOCH from the environment: -1 when it is not set. Returns 1 after a message when
// it is set but not a number of seconds.
int sourceDateEpoch(long long* epoch);
// A tar command that writes to standard output an archive of the names listed (NUL-separated) in
// the file `members`, relative to `dir`, the same wherever it is built: owner and group 0 by
// number, and with an epoch (not -1) no time later than it.
std::vector<std::string> reproducibleTarCommand(const std::string& dir, const std::string& members,
                                                long long epoch);
