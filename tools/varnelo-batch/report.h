#pragma once

// The report of a run: one typed row per photo (and per stale file), and one writer for each
// format the report can take: CSV, JSON Lines and a JSON array. Also the names of the
// statuses, as the report, the progress lines and the summary show them. Writes only the
// report file.

#include <cstdint>
#include <string>
#include <vector>

#include "options.h"
#include "photo.h"
#include "stale.h"

namespace Varnelo {

// The status as the report writes it (converted, up_to_date, not_jpeg, ...) and as people
// read it ("up to date", "not JPEG", ...).
const char* StatusName(Status status);
const char* StatusText(Status status);

struct ReportRow {
    std::string source;
    Status status = Status::NOT_PROCESSED;
    std::string reason;  // why it failed, or what else there is to know
    std::string output;  // the file made, kept or (for a stale file) found
    int width = -1, height = -1;
    std::string hash;
    std::int64_t bytes = -1;  // of the output; -1 when there is none
    // With --thumbnails: the thumbnail made or kept, its status and reason.
    bool thumbnailed = false;
    std::string thumbnail;
    Status thumbStatus = Status::NOT_PROCESSED;
    std::string thumbReason;
};

// The rows of a run: its photos in order, then the stale files.
std::vector<ReportRow> ReportRows(const std::vector<Photo>& photos,
                                  const std::vector<StaleFile>& stale);

// The whole report in each format; `thumbnails` adds the thumbnail columns.
std::string CsvReport(const std::vector<ReportRow>& rows, bool thumbnails);
std::string JsonLinesReport(const std::vector<ReportRow>& rows, bool thumbnails);
std::string JsonReport(const std::vector<ReportRow>& rows, bool thumbnails);

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
                 const std::vector<ReportRow>& rows, std::string& error);

}  // namespace Varnelo
