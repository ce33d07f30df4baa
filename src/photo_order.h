#pragma once

// Which photos of one request must wait for which, so that photos run side by side give what
// one photo after another gives. A photo waits for every earlier photo of the request that
// writes its source or its destination, that reads the file it writes, or that makes a folder
// on its paths (one folder level per photo, so a later photo may rely on an earlier photo's
// folder), or on whose paths it makes one. Files are compared by identity where they exist and
// by resolved path (symbolic links of existing folders followed, without regard to case) where
// they do not; whatever cannot be resolved keeps the order. Two photos that only read the same
// file do not wait for each other.
//
// Threads: reads the file system; keeps no state.

#include <cstddef>
#include <vector>

#include "process.h"

namespace Varnelo {

// For each photo, given the paths its job touches, the earlier photos it must wait for.
std::vector<std::vector<std::size_t>> PhotosToWaitFor(const std::vector<CProcess::Paths>& photos);

}  // namespace Varnelo
