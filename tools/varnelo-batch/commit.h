#pragma once

// Finishing the files of a run. The service writes each copy and thumbnail under a temporary
// name, or answers that a photo is not larger than the size asked; then the photo itself is
// copied under the temporary name. A file kept (made, made with warnings, or copied) gets the
// metadata the run asks for, its photo's modification time, is synced, recorded in the state
// and renamed over its final name, so that no half-written file ever carries a final name.
// When a file that varnelo-batch may not replace is at that name, the new file takes its
// place only if it is byte for byte that file (which is then recorded as made by
// varnelo-batch). Everything else removes the temporary file and leaves the final name as it
// was. One thread uses a Finisher.

#include <string>

#include "metadata.h"
#include "photo.h"
#include "service_client.h"
#include "state.h"

namespace Varnelo {

// What the files of a run are to be.
struct FinishRules {
    MetadataChoice metadata;
    bool skipSmall = false;  // no copy of a photo not larger than the size asked
    HashChoice hash = HashChoice::MD5;
    std::string copySettings, thumbSettings;  // recorded with each file
};

class Finisher {
  public:
    Finisher(StateFile& state, const std::string& outDir, const FinishRules& rules);

    // Settles the copy or thumbnail of `photo` with the service's answer.
    void Answered(Photo& photo, bool thumbnail, const ImageResult& result);
    // Settles the copy or thumbnail of `photo` as not processed: the run ended before the
    // service made it.
    void Dropped(Photo& photo, bool thumbnail);

  private:
    // Turns the temporary file, complete, into the final one; `made` becomes ADOPTED when
    // the file in the way (`guard` says whose it is) is byte for byte the new one. Returns why
    // it could not, or empty.
    std::string Finish(Photo& photo, bool thumbnail, const std::string& guard, Status& made);

    StateFile& m_state;
    const std::string m_outDir;
    const FinishRules m_rules;
};

}  // namespace Varnelo
