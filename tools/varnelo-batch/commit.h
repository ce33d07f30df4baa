#pragma once

// Finishing the files of a run. The service writes each copy and thumbnail under a temporary
// name; only a success is turned upright where it needs to be, given its photo's
// modification time, synced, booked and renamed over its final name, so that no half-written
// file ever carries a final name. Everything else removes the temporary file and leaves the
// final name as it was. One thread uses a Finisher.

#include <string>

#include "photo.h"
#include "service_client.h"
#include "state.h"

namespace Varnelo {

class Finisher {
  public:
    // `upright`: copies get an Orientation-only EXIF block (they are made without EXIF);
    // thumbnails always do. `keepHash`: the report shows the hash.
    Finisher(StateFile& state, const std::string& outDir, bool upright, bool keepHash,
             const std::string& copySettings, const std::string& thumbSettings);

    // Settles `output` of `photo` with the service's answer.
    void Answered(Photo& photo, bool thumbnail, ImageResult result);
    // Settles `output` of `photo` as not processed: the run ended before the service made it.
    void Dropped(Photo& photo, bool thumbnail);

  private:
    // Turns the answered temporary file into the final one; an empty text on success.
    std::string Finish(Photo& photo, bool thumbnail, const ImageResult& result);

    StateFile& m_state;
    const std::string m_outDir;
    const bool m_upright, m_keepHash;
    const std::string m_copySettings, m_thumbSettings;
};

}  // namespace Varnelo
