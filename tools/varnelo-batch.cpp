// varnelo-batch: makes upload-ready copies of folders of photos through the varnelo service.
//
// The parts, in the order a run meets them: the command line (varnelo-batch/options), the
// run's stages (run): discover the photos as they are on disk (discovery, sniff), plan their
// copies against the output folder and its state (plan, state), execute the plan through the
// service (driver, scheduler, service_client) with each file finished safely (commit,
// metadata), and report (stale, report, progress, summary).
//
// usage: varnelo-batch [options] PHOTO|FOLDER|-... -o OUTDIR   (--help has the options)

#include "varnelo-batch/options.h"
#include "varnelo-batch/run.h"

int main(int argc, char** argv) { return Varnelo::Run(Varnelo::Parse(argc, argv)); }
