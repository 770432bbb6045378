// Runs programs the way a user's shell would, for the tests of the orvel commands.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

struct CommandResult {
  std::string output;
  int status = -1;  // the exit status; -1 when the command did not exit on its own
};

// `command` run by the shell, its standard error joined to the output unless `joinErrors` is false.
inline CommandResult runCommand(const std::string& command, bool joinErrors = true) {
  CommandResult result;
  FILE* pipe = popen((joinErrors ? command + " 2>&1" : command).c_str(), "r");
  if (!pipe) return result;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.output.append(buffer, n);
  int raw = pclose(pipe);
  if (raw != -1 && WIFEXITED(raw)) result.status = WEXITSTATUS(raw);
  return result;
}

inline CommandResult runOrvel(const std::string& arguments) {
  return runCommand(std::string(ORVEL_PROGRAM_PATH) + " " + arguments);
}
