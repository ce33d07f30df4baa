#pragma once

// What a run tells: the line of progress (or a line per photo), the summary at the end, and
// the report file with one row per photo. Reads the photos; writes only standard error and
// the report.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "options.h"
#include "photo.h"

namespace Varnelo {

// The status as the report writes it (converted, up_to_date, too_small, failed,
// not_processed, duplicate) and as people read it ("up to date", ...).
const char* StatusName(Status status);
const char* StatusText(Status status);

// `text` as a JSON string. Bytes that are not UTF-8 become U+FFFD there; `valid` says whether
// any did. An empty text is null.
std::string JsonString(const std::string& text, bool& valid);
// The bytes of `text` in lower-case hex: how the report gives a name that is not UTF-8 exactly.
std::string Hex(const std::string& text);

// Whether the report can be written at `path`: its folder exists and takes a new file. False
// with `error` set otherwise. Leaves nothing behind.
bool CheckReportPath(const std::string& path, std::string& error);
// Writes the report whole under a temporary name, then renames it to `path`. False with
// `error` set when it cannot.
bool WriteReport(const std::string& path, ReportFormat format, bool thumbnails,
                 const std::vector<Photo>& photos, std::string& error);

// Progress on standard error: a bar redrawn in place, cut to the terminal's width, when that
// is a terminal; a line per photo otherwise (and with -v); with -q a line per failed photo
// and nothing else. Failures are shown as they happen in every mode.
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

// Prints the summary (nothing with -q): counts by status, the failed photos (the first ten),
// bytes read and written, and where the report is.
void PrintSummary(const Options& options, const std::vector<Photo>& photos, double seconds,
                  int restarts);

}  // namespace Varnelo
