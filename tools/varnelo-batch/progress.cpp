#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "report.h"

namespace Varnelo {

namespace {

int TerminalWidth() {
    winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

}  // namespace

Progress::Progress(int verbosity, std::size_t total, std::uint64_t totalBytes)
    : m_verbosity(verbosity),
      m_bar(verbosity > 0 && isatty(STDERR_FILENO)),
      m_lines(verbosity == 2 || (verbosity == 1 && !m_bar)),
      m_total(total),
      m_totalBytes(totalBytes),
      m_start(std::chrono::steady_clock::now()) {}

void Progress::PhotoDone(const Photo& photo) {
    ++m_done;
    m_doneBytes += photo.file.size;
    const std::string failure = photo.Failure();
    if (m_verbosity == 0) {
        if (!failure.empty()) Print("varnelo-batch: " + photo.shown + ": " + failure);
        return;
    }
    const Status status = photo.Overall();
    if (!m_lines && failure.empty()) return;
    if (status == Status::NOT_PROCESSED && m_verbosity < 2) return;  // the summary counts them
    char count[48];
    const int digits = static_cast<int>(std::to_string(m_total).size());
    std::snprintf(count, sizeof(count), "[%*zu/%zu] ", digits, m_done, m_total);
    std::string line = count;
    std::string label = StatusText(status);
    label.resize(std::max<std::size_t>(label.size() + 1, 14), ' ');
    line += label + photo.shown;
    if (IsMade(status)) {
        line += " -> " + photo.copy.shown;
    } else if (status == Status::DUPLICATE) {
        line += " (same file as " + photo.sameAs + ")";
    } else if (status == Status::TOO_SMALL) {
        line += " (no copy made)";
    } else if (status == Status::NOT_JPEG) {
        line += " (" + KindText(photo.kind, photo.source) + ")";
    }
    if (!failure.empty()) {
        line += ": " + failure;
    } else if (!photo.copy.reason.empty()) {
        line += ": " + photo.copy.reason;
    }
    Print(line);
}

void Progress::Note(const std::string& line) {
    if (m_verbosity > 0) Print(line);
}

void Progress::Print(const std::string& line) {
    Clear();
    std::fprintf(stderr, "%s\n", line.c_str());
}

void Progress::Tick() {
    const auto now = std::chrono::steady_clock::now();
    if (!m_bar || now - m_lastDraw < std::chrono::milliseconds(100)) return;
    m_lastDraw = now;
    const double elapsed = std::chrono::duration<double>(now - m_start).count();
    const std::string count = std::to_string(m_done) + "/" + std::to_string(m_total) + " ";
    std::string tail;
    if (m_done > 0 && elapsed > 0) {
        char text[64];
        const double perByte = elapsed / std::max<std::uint64_t>(m_doneBytes, 1);
        const int secs =
            static_cast<int>(perByte * (m_totalBytes - std::min(m_doneBytes, m_totalBytes)));
        std::snprintf(text, sizeof(text), "  %.1f photos/s  %d:%02d left", m_done / elapsed,
                      secs / 60, secs % 60);
        tail = text;
    }
    // The line stays one column short of the width, so that the terminal never wraps it.
    const int room = TerminalWidth() - 1;
    int bar = std::min<int>(40, room - static_cast<int>(count.size() + tail.size()) - 2);
    if (bar < 10) {
        tail.clear();
        bar = std::min<int>(40, room - static_cast<int>(count.size()) - 2);
    }
    std::string line = count;
    if (bar > 0) {
        const int filled = m_total ? static_cast<int>(bar * m_done / m_total) : bar;
        line += "[" + std::string(filled, '#') + std::string(bar - filled, '.') + "]" + tail;
    }
    line.resize(std::min<std::size_t>(line.size(), static_cast<std::size_t>(std::max(room, 0))));
    std::fprintf(stderr, "\r%s\033[K", line.c_str());
    m_drawn = true;
}

void Progress::Clear() {
    if (m_drawn) std::fputs("\r\033[K", stderr);
    m_drawn = false;
    m_lastDraw = {};
}

}  // namespace Varnelo
