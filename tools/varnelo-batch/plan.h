#pragma once

// The plan of a run: the name of every copy and thumbnail, and for each whether it is up to
// date, still to be made (under which temporary name), and whether a file that varnelo-batch
// may not replace is in its way. Reads the disk and the state; writes nothing but folders.

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
    // For a dry run's forecast: the size asked, no copy of smaller photos, and whether the
    // metadata of copies is rewritten (so that a copy is not the photo's bytes).
    int size = 1600;
    bool skipSmall = false, rewrites = false;
};

// Gives every photo that is neither a duplicate nor unreadable its copy (and thumbnail) in
// its relative folder under the output folder, always named .jpg. No two outputs share a
// name, not even without regard to case, and none takes a source's name: the second of two
// photos that would (IMG_1.JPEG beside IMG_1.jpg) gets IMG_1-2.jpg. A photo keeps the name
// the state recorded for it in that folder, then photos named .jpg choose first, so names
// stay put from run to run.
void NameOutputs(std::vector<Photo>& photos, const PlanRules& rules, const StateFile& state);

// Decides every named output against the file at its name and the state: UP_TO_DATE when an
// earlier run made that very file from this photo, unchanged, under the same settings;
// FAILED when what is there is not a file at all, or when a path is too long for the service;
// PENDING otherwise, with a temporary name beside the output. A file there that varnelo-batch
// did not make from this photo leaves the output `guarded` (unless --overwrite), with the
// reason saying whose file it is.
void Decide(std::vector<Photo>& photos, const PlanRules& rules, const StateFile& state);

// A dry run's forecast for the pending copies, from the size in each photo's header: COPIED or
// TOO_SMALL for the photos the service will find not larger than the size, CONVERTED for the
// others. A guarded output becomes ADOPTED when its file is byte for byte the copy-to-be,
// FAILED otherwise (or when only a conversion could tell).
void Foresee(std::vector<Photo>& photos, const PlanRules& rules);

// Creates the folders of the pending outputs; an output whose folder cannot be made or
// written into fails.
void MakeFolders(std::vector<Photo>& photos);

// The failure of a guarded output whose new file (`made`: converted, copied, ...) differs from
// the one in its way (`guard` says whose it is), saying what --overwrite does instead.
std::string InTheWay(const std::string& guard, Status made, bool thumbnail);

// The folders of all the outputs named, each once.
std::vector<std::string> OutputFolders(const std::vector<Photo>& photos);

}  // namespace Varnelo
