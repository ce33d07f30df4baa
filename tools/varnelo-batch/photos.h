#pragma once

// The photos of a batch: finding them under the inputs, naming their copies under the output
// folder, making the folders, and the report of what became of each.

#include <cstdint>
#include <string>
#include <vector>

#include "service_client.h"

namespace Varnelo {

struct Photo {
    std::string source;     // absolute and free of links, as sent to the service
    std::string shown;      // as the user named it
    std::string relative;   // its place under the input folder it was found in
    std::string output;     // absolute path of the copy
    std::string outShown;   // the copy under the output folder as the user named it
    std::string thumbnail;  // absolute path of the thumbnail; empty when none is wanted
    std::uint64_t bytes = 0;
    bool unreadable = false;
    int unanswered = 0;  // of copy and thumbnail, how many are still open
    ImageResult copy, thumb;
};

// The .jpg and .jpeg files of the folders among `inputs` (with `recursive`, also of the
// folders inside them, but never of `outDir`), in natural order, and the files named
// directly, whatever their names; each file once. False with `error` set when an input or a
// folder cannot be read. `outDir` is absolute and free of links.
bool FindPhotos(const std::vector<std::string>& inputs, bool recursive, const std::string& outDir,
                std::vector<Photo>& photos, std::string& error);

// Gives every photo its copy (and thumbnail, with `thumbnails`) in its relative folder under
// `outDir`, which the user named `outShown`.
void NameCopies(const std::string& outDir, const std::string& outShown, bool thumbnails,
                std::vector<Photo>& photos);

// Creates `outDir` and every folder a copy goes to. False with `error` set when one cannot be
// made or written.
bool MakeFolders(const std::string& outDir, const std::vector<Photo>& photos, std::string& error);

enum class ReportFormat { NONE, CSV, JSON_LINES };

// By extension: .csv, or .jsonl and .json for JSON Lines; NONE for anything else.
ReportFormat ReportFormatFor(const std::string& path);

// One row per photo whose copy was settled, in the photos' order. False when the file
// cannot be written.
bool WriteReport(const std::string& path, ReportFormat format, bool thumbnails,
                 const std::vector<Photo>& photos);

}  // namespace Varnelo
