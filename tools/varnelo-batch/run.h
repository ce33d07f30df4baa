#pragma once

// A run of varnelo-batch from its command line to its exit status, in four stages: discover
// the photos as they are on disk, plan their copies against the output folder and its state,
// execute the plan through the service, and report what became of every photo and of the
// files no longer made.

#include "options.h"

namespace Varnelo {

// Does what `invocation` asks; returns the exit status.
int Run(const Invocation& invocation);

}  // namespace Varnelo
