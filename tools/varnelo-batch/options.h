#pragma once

// varnelo-batch's command line: the options of a run, their parsing and the texts of --help
// and --version. Nothing here touches the file system.

#include <cstddef>
#include <string>
#include <vector>

#include "service_client.h"

namespace Varnelo {

enum class ReportFormat { NONE, CSV, JSON_LINES, JSON };

struct Options {
    std::vector<std::string> inputs;  // as given; "-" stands for the list on standard input
    bool nulSeparated = false;        // -0: that list is separated by NUL bytes
    std::string outDir;
    bool recursive = false, hidden = false;
    int size = 1600, quality = 85, thumbSize = 72;
    bool omitExif = false, thumbnails = false;
    HashChoice hash = HashChoice::MD5;
    std::string report;
    ReportFormat reportFormat = ReportFormat::NONE;
    std::string service;
    bool overwrite = false, dryRun = false;
    std::size_t jobs = 0;  // photos in flight at most; 0 leaves it to the scheduler
    int verbosity = 1;     // 0 failures only, 1 normal, 2 a line per photo everywhere
};

// By extension: .csv, .jsonl, .json; NONE for anything else.
ReportFormat ReportFormatFor(const std::string& path);

// What ParseOptions decided.
enum class Parsed { RUN, DONE, BAD_USAGE };

// Fills `options` from the command line. DONE after --help or --version (printed on standard
// output); BAD_USAGE with `problem` set to one line that says what is wrong.
Parsed ParseOptions(int argc, char** argv, Options& options, std::string& problem);

// The settings that shape a copy or a thumbnail, as one text: a copy made under other
// settings is out of date.
std::string CopySettings(const Options& options);
std::string ThumbSettings(const Options& options);

}  // namespace Varnelo
