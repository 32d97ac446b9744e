// Test helper: writes every argv entry, each followed by a NUL byte, to the
// file named by KESTREL_RECORD_FILE (through a temporary name, so the file
// appears complete). Then sleeps KESTREL_RECORD_SLEEP_MS milliseconds if set
// and exits with KESTREL_RECORD_EXIT (default 0). With KESTREL_RECORD_PID set
// it first writes its process id to that file; with KESTREL_RECORD_IGNORE_TERM
// set it ignores SIGTERM.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <time.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (std::getenv("KESTREL_RECORD_IGNORE_TERM") != nullptr) std::signal(SIGTERM, SIG_IGN);
  if (const char* pidFile = std::getenv("KESTREL_RECORD_PID")) {
    FILE* out = std::fopen(pidFile, "w");
    if (out == nullptr) return 102;
    std::fprintf(out, "%d\n", static_cast<int>(getpid()));
    if (std::fclose(out) != 0) return 103;
  }
  if (const char* file = std::getenv("KESTREL_RECORD_FILE")) {
    const std::string partial = std::string(file) + ".partial";
    FILE* out = std::fopen(partial.c_str(), "wb");
    if (out == nullptr) return 100;
    for (int i = 0; i < argc; ++i) std::fwrite(argv[i], 1, std::string(argv[i]).size() + 1, out);
    if (std::fclose(out) != 0 || std::rename(partial.c_str(), file) != 0) return 101;
  }
  if (const char* ms = std::getenv("KESTREL_RECORD_SLEEP_MS")) {
    const long total = std::atol(ms);
    const timespec pause{total / 1000, (total % 1000) * 1000000};
    nanosleep(&pause, nullptr);
  }
  const char* code = std::getenv("KESTREL_RECORD_EXIT");
  return code != nullptr ? std::atoi(code) : 0;
}
