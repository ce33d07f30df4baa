#pragma once

#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace Varnelo {

// Points the global logger at a private file with the given threshold for the lifetime of
// the object; restores threshold 0 afterwards. Tests that use it must not run log-checking
// code concurrently with other such tests (GoogleTest runs tests one at a time).
class LogCapture {
  public:
    explicit LogCapture(int level);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string Text() const;
    std::vector<std::string> Lines() const;
    // How many lines equal `line` exactly.
    int Count(const std::string& line) const;

  private:
    TempDir m_dir;
};

}  // namespace Varnelo
