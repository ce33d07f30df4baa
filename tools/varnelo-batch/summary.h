#pragma once

// What a run tells at its end: the summary on standard error, and for a dry run the forecast
// on standard output, a line per photo and per stale file. Reads the photos; one thread.

#include <string>
#include <vector>

#include "options.h"
#include "photo.h"
#include "stale.h"

namespace Varnelo {

// Prints the summary (nothing with -q): counts by status, with the images of other formats by
// kind, the failed photos (the first ten), bytes read and written, and where the report is.
// `unpruned` says why --prune removed nothing, when it could not.
void PrintSummary(const Options& options, const std::vector<Photo>& photos,
                  const std::vector<StaleFile>& stale, double seconds, int restarts,
                  const std::string& unpruned);

// Prints what a run would do, from the plan and its forecast, and what only the run can tell;
// returns the exit status the run would have.
int PrintForecast(const Options& options, const std::vector<Photo>& photos,
                  const std::vector<StaleFile>& stale, const std::string& unpruned);

}  // namespace Varnelo
