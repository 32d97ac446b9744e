// Runs a shell command line (a kestrel-info invocation) and collects what it
// prints, for the tests of the tool's commands.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace kestrel_test {

struct ToolRun {
  int exitCode;        // -1 when the command could not run or did not exit
  std::string output;  // standard output and standard error together
};

inline ToolRun runTool(const std::string& commandLine) {
  const std::string command = commandLine + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return {-1, {}};
  ToolRun run{-1, {}};
  char buffer[512];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) run.output.append(buffer, n);
  const int status = pclose(pipe);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

}  // namespace kestrel_test
