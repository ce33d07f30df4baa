#pragma once

// The progress of a run on standard error: a bar redrawn in place, cut to the terminal's
// width, when that is a terminal; a line per photo otherwise (and with -v); with -q a line per
// failed photo and nothing else. Failures are shown as they happen in every mode. One thread.

#include <chrono>
#include <cstdint>
#include <string>

#include "photo.h"

namespace Varnelo {

class Progress {
  public:
    Progress(int verbosity, std::size_t total, std::uint64_t totalBytes);

    // How often Tick wants to run, in milliseconds; -1 for never.
    int TickMs() const { return m_bar ? 100 : -1; }
    // Every output of `photo` is settled.
    void PhotoDone(const Photo& photo);
    // A line that must not run into the bar; dropped with -q.
    void Note(const std::string& line);
    void Tick();
    // Removes the bar from the screen.
    void Clear();

  private:
    void Print(const std::string& line);

    const int m_verbosity;
    const bool m_bar, m_lines;
    const std::size_t m_total;
    const std::uint64_t m_totalBytes;
    std::size_t m_done = 0;
    std::uint64_t m_doneBytes = 0;
    std::chrono::steady_clock::time_point m_start, m_lastDraw;
    bool m_drawn = false;
};

}  // namespace Varnelo
