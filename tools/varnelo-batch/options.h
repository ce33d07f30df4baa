#pragma once

// varnelo-batch's command line: the options of a run, their parsing and the texts of --help
// and --version, and the settings text that a run records with each file it makes. Nothing
// here touches the file system.

#include <cstddef>
#include <string>
#include <vector>

#include "metadata.h"
#include "service_client.h"

namespace Varnelo {

enum class ReportFormat { NONE, CSV, JSON_LINES, JSON };

struct Options {
    std::vector<std::string> inputs;  // as given; "-" stands for the list on standard input
    bool nulSeparated = false;        // -0: that list is separated by NUL bytes
    std::string outDir;
    bool recursive = false, hidden = false;
    int size = 1600, quality = 85, thumbSize = 72;
    bool skipSmall = false;   // no copy of a photo not larger than `size`
    MetadataChoice metadata;  // what the copies carry of their photo's metadata
    bool thumbnails = false;
    HashChoice hash = HashChoice::MD5;
    std::string report;
    ReportFormat reportFormat = ReportFormat::NONE;
    std::string service;
    std::string program;  // argv[0]
    bool overwrite = false, prune = false, dryRun = false;
    std::size_t jobs = 0;  // photos in flight at most; 0 leaves it to the scheduler
    int verbosity = 1;     // 0 failures only, 1 normal, 2 a line per photo everywhere
};

// By extension: .csv, .jsonl, .json; NONE for anything else.
ReportFormat ReportFormatFor(const std::string& path);

// What the command line asks for: a run with its options, a text to print (--help,
// --version), or nothing, because it is wrong.
struct Invocation {
    enum What { RUN, PRINT, BAD_USAGE } what = RUN;
    Options options;
    std::string text;  // for PRINT, what to print; for BAD_USAGE, one line that says what is wrong
};

Invocation Parse(int argc, char** argv);

// The settings that shape a copy or a thumbnail, as one text: a copy made under other
// settings is out of date.
std::string CopySettings(const Options& options);
std::string ThumbSettings(const Options& options);
// Whether a file recorded with the settings `recorded` carries the settings `current`.
bool SameSettings(const std::string& recorded, const std::string& current);

}  // namespace Varnelo
