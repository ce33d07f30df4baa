#include "report.h"

#include <fcntl.h>
#include <unistd.h>

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
        case Status::WARNED:
            return "converted_with_warnings";
        case Status::COPIED:
            return "copied";
        case Status::ADOPTED:
            return "adopted";
        case Status::UP_TO_DATE:
            return "up_to_date";
        case Status::TOO_SMALL:
            return "too_small";
        case Status::FAILED:
            return "failed";
        case Status::DUPLICATE:
            return "duplicate";
        case Status::NOT_JPEG:
            return "not_jpeg";
        case Status::STALE:
            return "stale";
        case Status::PRUNED:
            return "pruned";
    }
    return "not_processed";
}

const char* StatusText(Status status) {
    switch (status) {
        case Status::WARNED:
            return "converted with warnings";
        case Status::UP_TO_DATE:
            return "up to date";
        case Status::TOO_SMALL:
            return "too small";
        case Status::PENDING:
        case Status::NOT_PROCESSED:
            return "not processed";
        case Status::NOT_JPEG:
            return "not JPEG";
        default:
            return StatusName(status);
    }
}

std::vector<ReportRow> ReportRows(const std::vector<Photo>& photos,
                                  const std::vector<StaleFile>& stale) {
    std::vector<ReportRow> rows;
    for (const Photo& p : photos) {
        ReportRow row;
        row.source = p.source;
        row.status = p.Overall();
        if (row.status == Status::PENDING) row.status = Status::NOT_PROCESSED;
        row.reason = !p.sameAs.empty()                ? "same file as " + p.sameAs
                     : !p.problem.empty()             ? p.problem
                     : row.status == Status::NOT_JPEG ? KindText(p.kind, p.source)
                                                      : p.copy.reason;
        if (IsMade(row.status)) {
            row.output = p.copy.path;
            row.bytes = static_cast<std::int64_t>(p.copy.bytes);
        }
        row.width = p.copy.width;
        row.height = p.copy.height;
        row.hash = p.copy.hash;
        if (!p.thumb.path.empty()) {
            row.thumbnailed = true;
            row.thumbStatus =
                p.thumb.status == Status::PENDING ? Status::NOT_PROCESSED : p.thumb.status;
            if (IsMade(p.thumb.status)) row.thumbnail = p.thumb.path;
            row.thumbReason = p.thumb.reason;
        }
        rows.push_back(row);
    }
    for (const StaleFile& file : stale) {
        ReportRow row;
        row.source = file.source;
        row.status = file.status;
        row.reason = file.why;
        row.output = file.path;
        rows.push_back(row);
    }
    return rows;
}

namespace {

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

// One cell of a row: a text, or a number (absent when not known).
struct Cell {
    bool text;
    std::string value;
    bool known = true;
};

struct Column {
    const char* name;
    Cell (*of)(const ReportRow&);
};

Cell Text(const std::string& value) { return {true, value}; }
Cell Number(long long value, bool known) { return {false, std::to_string(value), known}; }

const Column kColumns[] = {
    {"source", [](const ReportRow& r) { return Text(r.source); }},
    {"status", [](const ReportRow& r) { return Text(StatusName(r.status)); }},
    {"reason", [](const ReportRow& r) { return Text(r.reason); }},
    {"output", [](const ReportRow& r) { return Text(r.output); }},
    {"width", [](const ReportRow& r) { return Number(r.width, r.width >= 0); }},
    {"height", [](const ReportRow& r) { return Number(r.height, r.width >= 0); }},
    {"hash", [](const ReportRow& r) { return Text(r.hash); }},
    {"output_bytes", [](const ReportRow& r) { return Number(r.bytes, r.bytes >= 0); }},
    {"thumbnail", [](const ReportRow& r) { return Text(r.thumbnail); }},
    {"thumbnail_status",
     [](const ReportRow& r) { return Text(r.thumbnailed ? StatusName(r.thumbStatus) : ""); }},
    {"thumbnail_reason", [](const ReportRow& r) { return Text(r.thumbReason); }},
};
const std::size_t kPhotoColumns = 8;  // the columns before the thumbnail's

std::size_t Columns(bool thumbnails) {
    return thumbnails ? sizeof(kColumns) / sizeof(kColumns[0]) : kPhotoColumns;
}

std::string Csv(const Cell& cell) {
    if (!cell.known) return "";
    if (!cell.text || cell.value.find_first_of(",\"\r\n") == std::string::npos) return cell.value;
    std::string out = "\"";
    for (const char c : cell.value) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

// A row as one JSON object. A name that is not UTF-8 also gets its exact bytes, in hex, so
// that nothing is lost.
std::string JsonObject(const ReportRow& row, bool thumbnails) {
    std::string object, extra;
    for (std::size_t i = 0; i < Columns(thumbnails); ++i) {
        const Cell cell = kColumns[i].of(row);
        bool valid = true;
        const std::string value = !cell.known ? "null"
                                  : cell.text ? JsonString(cell.value, valid)
                                              : cell.value;
        object += std::string(i ? ",\"" : "{\"") + kColumns[i].name + "\":" + value;
        if (!valid)
            extra += std::string(",\"") + kColumns[i].name + "_hex\":\"" + Hex(cell.value) + "\"";
    }
    return object + extra + "}";
}

}  // namespace

std::string CsvReport(const std::vector<ReportRow>& rows, bool thumbnails) {
    std::string out;
    for (std::size_t i = 0; i < Columns(thumbnails); ++i) {
        out += std::string(i ? "," : "") + kColumns[i].name;
    }
    out += "\n";
    for (const ReportRow& row : rows) {
        for (std::size_t i = 0; i < Columns(thumbnails); ++i) {
            out += (i ? "," : "") + Csv(kColumns[i].of(row));
        }
        out += "\n";
    }
    return out;
}

std::string JsonLinesReport(const std::vector<ReportRow>& rows, bool thumbnails) {
    std::string out;
    for (const ReportRow& row : rows) out += JsonObject(row, thumbnails) + "\n";
    return out;
}

std::string JsonReport(const std::vector<ReportRow>& rows, bool thumbnails) {
    std::string out = "[";
    for (std::size_t i = 0; i < rows.size(); ++i) {
        out += (i ? ",\n" : "\n") + JsonObject(rows[i], thumbnails);
    }
    return out + (rows.empty() ? "]\n" : "\n]\n");
}

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
                 const std::vector<ReportRow>& rows, std::string& error) {
    const std::string text = format == ReportFormat::CSV ? CsvReport(rows, thumbnails)
                             : format == ReportFormat::JSON_LINES
                                 ? JsonLinesReport(rows, thumbnails)
                                 : JsonReport(rows, thumbnails);
    const std::string temp = path + ".varnelo-batch-tmp";
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out || rename(temp.c_str(), path.c_str()) != 0) {
        error = "cannot write the report '" + path + "': " + std::strerror(errno);
        unlink(temp.c_str());
        return false;
    }
    return true;
}

}  // namespace Varnelo
