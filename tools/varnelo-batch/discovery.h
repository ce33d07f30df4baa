#pragma once

// Finding the photos of a run: the inputs as given (files, folders, and the paths read from
// standard input), searched as they are on disk. Hidden names are skipped unless asked for,
// links to folders are not followed, a file reached twice is kept once, and an input or
// folder that cannot be read becomes a failed entry instead of ending the run.

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

// The photos of `inputs` in order: for each folder its .jpg and .jpeg files in natural order
// of their place below it, each file given directly whatever its name. Later paths to a file
// already found become DUPLICATE entries; inputs and folders that cannot be read become
// entries with their problem set.
std::vector<Photo> FindPhotos(const std::vector<std::string>& inputs, const SearchRules& rules);

}  // namespace Varnelo
