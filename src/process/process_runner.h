#pragma once

#include <string>
#include <vector>

#include "base/error.h"

namespace qev::process {

// A pipe whose two ends are close-on-exec, so no child started meanwhile inherits them. False
// when the system refused one.
bool openCloexecPipe(int (&fds)[2]);

struct ProcessOutput {
  bool ok = false;     // started and exited with status 0
  std::string output;  // standard output, then standard error (each dropped if not UTF-8);
                       // the launch error's text when the program could not be started
};

// Runs an absolute path with an argument list (no shell), inheriting the environment, and
// waits for it. True exactly when it started and exited with status 0. Blocking: never call it
// on the main thread.
bool runProcess(const std::string& path, const std::vector<std::string>& arguments);

// As runProcess, and returns what the program printed. Both pipes are drained while the child
// runs, so a chatty program cannot block on a full pipe.
ProcessOutput runProcessOutput(const std::string& path, const std::vector<std::string>& arguments);

// A child left running: standard input and output on /dev/null, standard error on a pipe whose
// read end (close-on-exec) now belongs to the caller.
struct ErrorPipedChild {
  int pid = -1;
  int errorPipe = -1;
};

// Starts a long-running program such as the proxy core. On Linux the child is killed when this
// process ends, however it ends (unless the program gains file capabilities, which clears that).
// Fails with the launch error's text.
Result<ErrorPipedChild> spawnWithErrorPipe(const std::string& path,
                                           const std::vector<std::string>& arguments);

// Starts a program that must outlive this process and the signals sent to its group: standard
// input on `inputFd`, output on /dev/null, in a session of its own. Returns its pid; the caller
// reaps it.
Result<int> spawnInNewSession(const std::string& path, const std::vector<std::string>& arguments,
                              int inputFd);

}  // namespace qev::process
