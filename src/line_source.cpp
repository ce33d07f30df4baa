#include "line_source.h"

#include <atomic>

#include "converter.h"
#include "processor_pool.h"
#include "staged_decoder.h"

namespace Varnelo {

namespace {

std::atomic<int> g_mode{CONVERT_THREADS_AUTO};

// Whether a conversion that may be staged is. A photo that is not reduced gains nothing; a
// processor that is not idle is better left to the conversion that waits for it.
bool StagingChosen(JpegReader& reader, int descriptor, bool reduces) {
    if (!reduces) return false;
    switch (g_mode.load()) {
        case CONVERT_THREADS_ONE:
            return false;
        case CONVERT_THREADS_STAGED:
            return StagingProven(reader, descriptor);
        default:
            return StagingProven(reader, descriptor) && ProcessorPool::Shared().Idle();
    }
}

}  // namespace

void SetConvertThreads(ConvertThreads mode) { g_mode.store(mode); }

std::unique_ptr<LineSource> ChooseLineSource(std::unique_ptr<JpegReader> reader, int descriptor,
                                             JCOPY_OPTION copy, bool reduces) {
    if (StagingChosen(*reader, descriptor, reduces)) {
        std::unique_ptr<StagedDecoder> staged = StagedDecoder::Make(reader, descriptor, copy);
        if (staged != nullptr) return staged;
    }
    return std::make_unique<OneThreadDecoder>(std::move(reader));
}

}  // namespace Varnelo
