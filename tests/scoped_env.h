// ScopedEnv: an environment variable set or unset for the lifetime of a test
// object, restored afterwards. Shared by the test families that point the
// library at fake folders and programs.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace kestrel::test {

// Sets (or with nullopt unsets) an environment variable for its lifetime.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value) : mName(name) {
    if (const char* old = std::getenv(name)) mOld = old;
    if (value)
      ::setenv(name, value->c_str(), 1);
    else
      ::unsetenv(name);
  }
  ~ScopedEnv() {
    if (mOld)
      ::setenv(mName, mOld->c_str(), 1);
    else
      ::unsetenv(mName);
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* mName;
  std::optional<std::string> mOld;
};

}  // namespace kestrel::test
