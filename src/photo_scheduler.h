#pragma once

// Runs the photos of one request side by side, with the answers, files and trace of one photo
// after another.
//
// The worker that executes the request converts its photos in request order, and while a
// processor is idle and no conversion waits for one, it starts the request's next photos on
// helper threads: each helper takes a processor (ProcessorPool::TryTakeOne) before it starts,
// converts one photo after another while it can take one again, and ends when the photos run
// out or another conversion waits. So a helper holds one processor, as every conversion does, a
// waiting conversion of another request goes before this request's next photo, and at most one
// conversion runs per processor. A photo that must wait for earlier ones (photo_order.h) waits
// holding no processor.
//
// What is seen stays as one photo after another gives it:
// - Each photo's result is the caller's to keep in a slot of its own; the caller builds the
//   answer from the slots in request order once RunPhotos returns.
// - Each photo's trace lines are kept while it runs (LogDivert) and written as one block, in
//   request order, by the worker, so they come out together and in order at every level. (The
//   JPEG library's own messages on standard error may interleave across the photos.)
// - Whatever a photo's conversion throws is caught on its thread and thrown again by the worker
//   at that photo's turn, after the trace of the photos before it and its own: the photos after
//   it are started no more, those already started run to their end (nothing cancels a
//   conversion), and none of them is traced or answered.
// - Every helper is joined before RunPhotos returns or throws.
//
// Threads: called by the worker executing a request; `convert` runs on the worker and on
// helper threads, for different photos at once.

#include <cstddef>
#include <functional>
#include <vector>

namespace Varnelo {

// Runs convert(i) for each photo i of `count`, photo i only once every photo that waitFor[i]
// names has finished. A request of one photo runs on the calling thread, traced as it goes.
void RunPhotos(std::size_t count, const std::vector<std::vector<std::size_t>>& waitFor,
               const std::function<void(std::size_t)>& convert);

}  // namespace Varnelo
