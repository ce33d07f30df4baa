#pragma once

// Files an earlier run made in the output folder that this run would not make: those whose
// photo is gone from where this run looks, and those that no setting of this run makes any
// more (a thumbnail without --thumbnails, the copy of a photo now skipped as too small, a copy
// under a name the photo no longer has). Found from the state once the photos are settled (or
// forecast, in a dry run); --prune removes them. Only files the state says varnelo-batch made,
// unchanged since, are ever named, and a photo that failed or was not processed keeps what it
// had. One thread.

#include <string>
#include <vector>

#include "discovery.h"
#include "photo.h"
#include "state.h"

namespace Varnelo {

struct StaleFile {
    std::string path;    // absolute
    std::string shown;   // under the output folder as the user named it
    std::string source;  // the photo it was made from
    std::string why;
    FileId file;                    // as the state recorded it: what it must still be to be removed
    Status status = Status::STALE;  // PRUNED once removed
};

std::vector<StaleFile> FindStale(const std::vector<Photo>& photos, const StateFile& state,
                                 const Discovery& discovery, const std::string& outDir,
                                 const std::string& outShown);

// Removes each stale file that is still the file the state recorded. A file that cannot be
// removed stays STALE, and its `why` says what stopped it.
void Prune(std::vector<StaleFile>& stale);

}  // namespace Varnelo
