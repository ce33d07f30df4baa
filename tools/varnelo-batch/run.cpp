#include "run.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "commit.h"
#include "discovery.h"
#include "driver.h"
#include "plan.h"
#include "progress.h"
#include "report.h"
#include "stale.h"
#include "state.h"
#include "summary.h"

namespace fs = std::filesystem;

namespace Varnelo {

namespace {

int Fail(const std::string& message) {
    std::fprintf(stderr, "varnelo-batch: %s\n", message.c_str());
    return 1;
}

int BadUsage(const std::string& problem) {
    std::fprintf(stderr, "varnelo-batch: %s\nTry 'varnelo-batch --help' for more information.\n",
                 problem.c_str());
    return 2;
}

// The service beside this program's own executable.
std::string ServiceBesideMe(const std::string& argv0) {
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (ec) self = fs::absolute(argv0, ec);
    return (self.parent_path() / "varnelo").string();
}

// The inputs, with the list read from standard input in the place of the first "-".
std::vector<std::string> Inputs(const Options& options) {
    std::vector<std::string> inputs;
    bool listRead = false;
    for (const std::string& input : options.inputs) {
        if (input != "-") {
            inputs.push_back(input);
        } else if (!listRead) {
            listRead = true;
            for (std::string& path : ReadPathList(stdin, options.nulSeparated)) {
                inputs.push_back(std::move(path));
            }
        }
    }
    return inputs;
}

// What a run did: how long it took and how it ended.
struct Execution {
    double seconds = 0;
    int restarts = 0;
    bool interrupted = false;
};

// Discover: the photos of the inputs. Empty `problem` unless the output folder is an input.
Discovery Discover(const Options& options, const std::string& outDir, std::string& problem) {
    SearchRules rules;
    rules.recursive = options.recursive;
    rules.hidden = options.hidden;
    rules.outDir = Identify(outDir);
    const std::vector<std::string> inputs = Inputs(options);
    for (const std::string& input : inputs) {
        if (Identify(input).SameFile(rules.outDir)) {
            problem = "the output folder '" + options.outDir + "' is the input folder '" + input +
                      "': the copies would mix with the photos";
            return {};
        }
    }
    return FindPhotos(inputs, rules);
}

// Plan: the name of every copy and thumbnail, and what to do about each.
PlanRules Plan(const Options& options, const std::string& outDir, const StateFile& state,
               std::vector<Photo>& photos) {
    PlanRules plan;
    plan.outDir = outDir;
    plan.outShown = options.outDir;
    plan.thumbnails = options.thumbnails;
    plan.overwrite = options.overwrite;
    plan.copySettings = CopySettings(options);
    plan.thumbSettings = ThumbSettings(options);
    plan.size = options.size;
    plan.skipSmall = options.skipSmall;
    plan.rewrites = options.metadata.Rewrites();
    NameOutputs(photos, plan, state);
    Decide(photos, plan, state);
    return plan;
}

// Execute: the service makes what the plan left pending, and each file is finished.
Execution Execute(const Options& options, const PlanRules& plan, StateFile& state,
                  std::vector<Photo>& photos) {
    for (const std::string& folder : OutputFolders(photos)) RemoveLeftovers(folder);
    MakeFolders(photos);
    CatchInterrupts();
    std::uint64_t totalBytes = 0;
    for (const Photo& photo : photos) totalBytes += photo.file.size;
    Progress progress(options.verbosity, photos.size(), totalBytes);
    FinishRules finish;
    finish.metadata = options.metadata;
    finish.skipSmall = options.skipSmall;
    finish.hash = options.hash;
    finish.copySettings = plan.copySettings;
    finish.thumbSettings = plan.thumbSettings;
    Finisher finisher(state, plan.outDir, finish);
    const auto start = std::chrono::steady_clock::now();
    Driver driver(options, photos, finisher, progress);
    driver.Run();
    progress.Clear();
    Execution run;
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.restarts = driver.Restarts();
    run.interrupted = driver.Interrupted();
    return run;
}

// Why --prune may not remove anything now, or empty: like rsync's --delete, not after an input
// could not be read (its photos would look gone), nor after an interrupted run.
std::string WhyNotPrune(const Discovery& found, bool interrupted) {
    if (!found.complete) return "an input or a folder could not be read";
    if (interrupted) return "the run was interrupted";
    return "";
}

// Report: the report file, the summary and the exit status.
int Report(const Options& options, const Discovery& found, const std::vector<StaleFile>& stale,
           const Execution& run, const std::string& unpruned, StateFile& state) {
    std::string problem;
    bool written = state.Compact(problem) || Fail(problem) == 0;
    if (!options.report.empty() &&
        !WriteReport(options.report, options.reportFormat, options.thumbnails,
                     ReportRows(found.photos, stale), problem)) {
        written = Fail(problem) == 0;
    }
    PrintSummary(options, found.photos, stale, run.seconds, run.restarts,
                 options.prune ? unpruned : "");
    if (run.interrupted) return 130;
    for (const Photo& photo : found.photos) {
        const Status status = photo.Overall();
        if (!photo.Failure().empty() || status == Status::NOT_PROCESSED ||
            photo.thumb.status == Status::NOT_PROCESSED) {
            return 1;
        }
    }
    return written ? 0 : 1;
}

}  // namespace

int Run(const Invocation& invocation) {
    switch (invocation.what) {
        case Invocation::PRINT:
            std::fputs(invocation.text.c_str(), stdout);
            return 0;
        case Invocation::BAD_USAGE:
            return BadUsage(invocation.text);
        case Invocation::RUN:
            break;
    }
    Options options = invocation.options;
    if (options.service.empty()) options.service = ServiceBesideMe(options.program);
    if (!options.dryRun && access(options.service.c_str(), X_OK) != 0) {
        return Fail("cannot run the service '" + options.service + "': " + std::strerror(errno));
    }
    std::error_code ec;
    const std::string outDir = fs::weakly_canonical(fs::absolute(options.outDir, ec), ec).string();
    std::string problem;
    if (!options.report.empty() && !options.dryRun && !CheckReportPath(options.report, problem)) {
        return Fail(problem);
    }
    Discovery found = Discover(options, outDir, problem);
    if (!problem.empty()) return BadUsage(problem);
    if (!options.dryRun) {
        fs::create_directories(outDir, ec);
        if (ec || !fs::is_directory(outDir, ec)) {
            return Fail("cannot create the output folder '" + options.outDir +
                        "': " + (ec ? ec.message() : std::strerror(ENOTDIR)));
        }
    }
    StateFile state(outDir);
    if (!state.Load(!options.dryRun, problem)) return Fail(problem);
    const PlanRules plan = Plan(options, outDir, state, found.photos);
    if (options.dryRun) {
        Foresee(found.photos, plan);
        return PrintForecast(options, found.photos,
                             FindStale(found.photos, state, found, outDir, options.outDir),
                             WhyNotPrune(found, false));
    }
    if (!state.Compact(problem)) return Fail(problem);
    if (found.photos.empty() && options.verbosity > 0) {
        Fail("no .jpg or .jpeg photos found (folders are searched one level deep without -r)");
    }
    const Execution run = Execute(options, plan, state, found.photos);
    std::vector<StaleFile> stale = FindStale(found.photos, state, found, outDir, options.outDir);
    const std::string unpruned = WhyNotPrune(found, run.interrupted);
    if (options.prune && unpruned.empty()) Prune(stale);
    return Report(options, found, stale, run, unpruned, state);
}

}  // namespace Varnelo
