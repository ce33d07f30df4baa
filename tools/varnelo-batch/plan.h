#pragma once

// The plan of a run: the name of every copy and thumbnail, and for each whether it is up to
// date, still to be made (under which temporary name), or in the way of a file that
// varnelo-batch may not touch. Reads the disk and the books; writes nothing but folders.

#include <string>
#include <vector>

#include "photo.h"
#include "state.h"

namespace Varnelo {

struct PlanRules {
    std::string outDir;    // absolute
    std::string outShown;  // as the user named it
    bool thumbnails = false;
    bool overwrite = false;  // files in the way may be replaced
    std::string copySettings, thumbSettings;
};

// Gives every photo that is neither a duplicate nor unreadable its copy (and thumbnail) in
// its relative folder under the output folder, always named .jpg. No two outputs share a
// name, not even without regard to case, and none takes a source's name: the second of two
// photos that would (IMG_1.JPEG beside IMG_1.jpg) gets IMG_1-2.jpg. A photo keeps the name
// the books recorded for it in that folder, then photos named .jpg choose first, so names
// stay put from run to run.
void NameOutputs(std::vector<Photo>& photos, const PlanRules& rules, const StateFile& state);

// Decides every named output against the file at its name and the books: UP_TO_DATE when an
// earlier run made that very file from this photo, unchanged, under the same settings;
// FAILED when a file is there that varnelo-batch did not make from this photo (unless
// --overwrite) or that is not a file at all, or when a path is too long for the service;
// PENDING otherwise, with a temporary name beside the output.
void Decide(std::vector<Photo>& photos, const PlanRules& rules, const StateFile& state);

// Creates the folders of the pending outputs; an output whose folder cannot be made fails.
void MakeFolders(std::vector<Photo>& photos);

// The folders of all the outputs named, each once.
std::vector<std::string> OutputFolders(const std::vector<Photo>& photos);

}  // namespace Varnelo
