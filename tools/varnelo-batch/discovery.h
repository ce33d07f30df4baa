#pragma once

// Finding the photos of a run: the inputs as given (files, folders, and the paths read from
// standard input), searched as they are on disk. Hidden names are skipped unless asked for,
// links to folders are not followed, a file reached twice is kept once, and an input or
// folder that cannot be read becomes a failed entry instead of ending the run. Every file
// taken is told by its first bytes, so that a PNG named .jpg, or a HEIC beside the JPEGs of a
// folder, is named for what it is.

#include <cstdio>
#include <string>
#include <vector>

#include "photo.h"

namespace Varnelo {

// Reads one path per line (or per NUL-ended field with `nul`) from `in`; empty ones are
// dropped.
std::vector<std::string> ReadPathList(std::FILE* in, bool nul);

// The file at `path` as stat(2) sees it, links followed.
FileId Identify(const std::string& path);

struct SearchRules {
    bool recursive = false;  // also the folders inside the folders given
    bool hidden = false;     // also names starting with '.' and @eaDir
    FileId outDir;           // never searched (exists false when it is still to be made)
};

// What a search found, and where it looked.
struct Discovery {
    // For each folder its .jpg and .jpeg files and its images of other formats (NOT_JPEG
    // entries), in natural order of their place below it; each file given directly whatever
    // its name. Later paths to a file already found are DUPLICATE entries; inputs and folders
    // that cannot be read, and files named as photos that are not JPEGs, are entries with their
    // problem set.
    std::vector<Photo> photos;
    // Every input and every folder below them could be read.
    bool complete = true;

    // Whether the search would have taken a photo at the absolute path `source`: a file given
    // directly, or a .jpg or .jpeg below a folder given, within the depth and names the rules
    // allow.
    bool Covers(const std::string& source) const;

    std::vector<std::string> files, folders;  // the inputs, absolute
    SearchRules rules;
};

Discovery FindPhotos(const std::vector<std::string>& inputs, const SearchRules& rules);

}  // namespace Varnelo
