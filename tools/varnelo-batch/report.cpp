#include "report.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace Varnelo {

const char* StatusName(Status status) {
    switch (status) {
        case Status::PENDING:
        case Status::NOT_PROCESSED:
            break;
        case Status::CONVERTED:
            return "converted";
        case Status::UP_TO_DATE:
            return "up_to_date";
        case Status::TOO_SMALL:
            return "too_small";
        case Status::FAILED:
            return "failed";
        case Status::DUPLICATE:
            return "duplicate";
    }
    return "not_processed";
}

const char* StatusText(Status status) {
    switch (status) {
        case Status::UP_TO_DATE:
            return "up to date";
        case Status::TOO_SMALL:
            return "too small";
        case Status::PENDING:
        case Status::NOT_PROCESSED:
            return "not processed";
        default:
            return StatusName(status);
    }
}

namespace {

// The length of the UTF-8 sequence at `at` (1..4), or 0 when it is not one. Overlong forms,
// surrogates and code points past U+10FFFF are not UTF-8.
std::size_t Utf8Length(const std::string& s, std::size_t at) {
    const unsigned char c = static_cast<unsigned char>(s[at]);
    if (c < 0x80) return 1;
    std::size_t n;
    unsigned min;
    unsigned code;
    if ((c & 0xE0) == 0xC0) {
        n = 2, min = 0x80, code = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
        n = 3, min = 0x800, code = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
        n = 4, min = 0x10000, code = c & 0x07;
    } else {
        return 0;
    }
    if (at + n > s.size()) return 0;
    for (std::size_t i = 1; i < n; ++i) {
        const unsigned char d = static_cast<unsigned char>(s[at + i]);
        if ((d & 0xC0) != 0x80) return 0;
        code = code << 6 | (d & 0x3F);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return n;
}

std::string Csv(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string out = "\"";
    for (const char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

std::string Number(long long n, bool known, bool csv) {
    return known ? std::to_string(n) : csv ? "" : "null";
}

std::string Plural(std::size_t n, const char* word) {
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

std::string FormatBytes(std::uint64_t bytes) {
    char text[32];
    if (bytes >= (1u << 20)) {
        std::snprintf(text, sizeof(text), "%.1f MB", bytes / 1048576.0);
    } else {
        std::snprintf(text, sizeof(text), "%.1f KB", bytes / 1024.0);
    }
    return text;
}

int TerminalWidth() {
    winsize size = {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

}  // namespace

std::string JsonString(const std::string& text, bool& valid) {
    valid = true;
    if (text.empty()) return "null";
    std::string out = "\"";
    for (std::size_t at = 0; at < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[at]);
        const std::size_t n = Utf8Length(text, at);
        if (n == 0) {
            valid = false;
            out += "\xEF\xBF\xBD";  // U+FFFD REPLACEMENT CHARACTER
            ++at;
            continue;
        }
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F) {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", c);
            out += escape;
        } else {
            out.append(text, at, n);
        }
        at += n;
    }
    return out + "\"";
}

std::string Hex(const std::string& text) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (const char c : text) {
        out += kDigits[static_cast<unsigned char>(c) >> 4];
        out += kDigits[static_cast<unsigned char>(c) & 15];
    }
    return out;
}

bool CheckReportPath(const std::string& path, std::string& error) {
    std::error_code ec;
    if (fs::is_directory(path, ec)) {
        error = "cannot write the report '" + path + "': it is a folder";
        return false;
    }
    const std::string probe = path + ".varnelo-batch-tmp";
    const int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = "cannot write the report '" + path + "': " + std::strerror(errno);
        return false;
    }
    close(fd);
    unlink(probe.c_str());
    return true;
}

bool WriteReport(const std::string& path, ReportFormat format, bool thumbnails,
                 const std::vector<Photo>& photos, std::string& error) {
    const bool csv = format == ReportFormat::CSV;
    const std::vector<const char*> names = {
        "source", "status",       "reason",    "output",           "width",           "height",
        "hash",   "output_bytes", "thumbnail", "thumbnail_status", "thumbnail_reason"};
    const std::size_t columns = thumbnails ? names.size() : 8;
    const std::string temp = path + ".varnelo-batch-tmp";
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    if (csv) {
        for (std::size_t i = 0; i < columns; ++i) out << (i ? "," : "") << names[i];
        out << "\n";
    } else if (format == ReportFormat::JSON) {
        out << "[";
    }
    bool first = true;
    for (const Photo& p : photos) {
        const Status status = p.Overall();
        const Output& c = p.copy;
        const bool made = status == Status::CONVERTED || status == Status::UP_TO_DATE;
        const bool thumbMade =
            p.thumb.status == Status::CONVERTED || p.thumb.status == Status::UP_TO_DATE;
        const bool thumbKnown = !p.thumb.path.empty();
        const std::string reason = !p.sameAs.empty()          ? "same file as " + p.sameAs
                                   : !p.problem.empty()       ? p.problem
                                   : status == Status::FAILED ? c.reason
                                                              : "";
        const std::string values[] = {p.source,
                                      StatusName(status),
                                      reason,
                                      made ? c.path : "",
                                      Number(c.width, c.width >= 0, csv),
                                      Number(c.height, c.width >= 0, csv),
                                      c.hash,
                                      Number(static_cast<long long>(c.bytes), made, csv),
                                      thumbMade ? p.thumb.path : "",
                                      thumbKnown ? StatusName(p.thumb.status) : "",
                                      p.thumb.status == Status::FAILED ? p.thumb.reason : ""};
        const bool isText[] = {true, true, true, true, false, false, true, false, true, true, true};
        std::string row, extra;
        for (std::size_t i = 0; i < columns; ++i) {
            if (csv) {
                row += (i ? "," : "") + (isText[i] ? Csv(values[i]) : values[i]);
                continue;
            }
            bool valid = true;
            const std::string value = isText[i] ? JsonString(values[i], valid) : values[i];
            row += std::string(i ? ",\"" : "{\"") + names[i] + "\":" + value;
            // A name that is not UTF-8: its exact bytes, so that nothing is lost.
            if (!valid)
                extra += std::string(",\"") + names[i] + "_hex\":\"" + Hex(values[i]) + "\"";
        }
        if (format == ReportFormat::JSON) out << (first ? "\n" : ",\n");
        out << row << (csv ? "" : extra + "}") << (format == ReportFormat::JSON ? "" : "\n");
        first = false;
    }
    if (format == ReportFormat::JSON) out << (first ? "]\n" : "\n]\n");
    out.close();
    if (!out || rename(temp.c_str(), path.c_str()) != 0) {
        error = "cannot write the report '" + path + "': " + std::strerror(errno);
        unlink(temp.c_str());
        return false;
    }
    return true;
}

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
    char label[24];
    std::snprintf(label, sizeof(label), "%-14s", StatusText(status));
    line += label + photo.shown;
    if (status == Status::CONVERTED || status == Status::UP_TO_DATE) {
        line += " -> " + photo.copy.shown;
    } else if (status == Status::DUPLICATE) {
        line += " (same file as " + photo.sameAs + ")";
    } else if (status == Status::TOO_SMALL) {
        line += " (no copy made)";
    }
    if (!failure.empty()) line += ": " + failure;
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

void PrintSummary(const Options& options, const std::vector<Photo>& photos, double seconds,
                  int restarts) {
    if (options.verbosity == 0) return;
    std::size_t counts[7] = {};
    std::size_t thumbsMade = 0, thumbsFailed = 0, worked = 0;
    std::uint64_t bytesIn = 0, bytesOut = 0;
    std::vector<const Photo*> failed;
    for (const Photo& p : photos) {
        const Status status = p.Overall();
        ++counts[static_cast<int>(status == Status::PENDING ? Status::NOT_PROCESSED : status)];
        if (!p.Failure().empty()) failed.push_back(&p);
        if (p.copy.status == Status::CONVERTED || p.thumb.status == Status::CONVERTED ||
            status == Status::TOO_SMALL || status == Status::FAILED) {
            ++worked;
            bytesIn += p.file.size;
        }
        if (p.copy.status == Status::CONVERTED) bytesOut += p.copy.bytes;
        if (p.thumb.status == Status::CONVERTED) bytesOut += p.thumb.bytes, ++thumbsMade;
        if (p.thumb.status == Status::FAILED) ++thumbsFailed;
    }
    std::fprintf(stderr, "%s in %.1f s (%.1f photos/s)\n", Plural(photos.size(), "photo").c_str(),
                 seconds, seconds > 0 ? worked / seconds : 0.0);
    const struct {
        Status status;
        const char* label;
        std::string note;
    } rows[] = {{Status::CONVERTED, "converted", ""},
                {Status::UP_TO_DATE, "up to date", "(made by an earlier run)"},
                {Status::TOO_SMALL, "too small to reduce",
                 "(not larger than " + std::to_string(options.size) + " pixels: no copy made)"},
                {Status::FAILED, "failed", ""},
                {Status::NOT_PROCESSED, "not processed", "(a re-run finishes them)"},
                {Status::DUPLICATE, "duplicate", "(a file reached twice: converted once)"}};
    for (const auto& row : rows) {
        const std::size_t n = counts[static_cast<int>(row.status)];
        if (n == 0 && row.status != Status::CONVERTED) continue;
        std::fprintf(stderr, "  %-20s %6zu%s\n", row.label, n,
                     row.note.empty() ? "" : ("  " + row.note).c_str());
    }
    if (options.thumbnails) {
        std::fprintf(stderr, "  thumbnails           %6zu made, %zu failed\n", thumbsMade,
                     thumbsFailed);
    }
    std::fprintf(stderr, "  read %s, wrote %s\n", FormatBytes(bytesIn).c_str(),
                 FormatBytes(bytesOut).c_str());
    if (restarts > 0) {
        std::fprintf(stderr, "  the service was restarted %s\n", Plural(restarts, "time").c_str());
    }
    if (!failed.empty()) std::fprintf(stderr, "  failed:\n");
    for (std::size_t i = 0; i < failed.size() && i < 10; ++i) {
        std::fprintf(stderr, "    %s: %s\n", failed[i]->shown.c_str(),
                     failed[i]->Failure().c_str());
    }
    if (failed.size() > 10) {
        std::fprintf(stderr, "    and %zu more (%s)\n", failed.size() - 10,
                     options.report.empty() ? "--report FILE lists them all"
                                            : ("all in " + options.report).c_str());
    }
    if (!options.report.empty()) std::fprintf(stderr, "  report: %s\n", options.report.c_str());
}

}  // namespace Varnelo
