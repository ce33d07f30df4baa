// varnelo-batch: makes upload-ready copies of folders of photos through the varnelo service.
//
// The run in order: the command line (varnelo-batch/options), the photos as they are on disk
// (discovery), the plan against the output folder and its books (plan, state), the service
// driven through the photos (driver, scheduler) with each file finished safely (commit), then
// the report and the summary (report).
//
// usage: varnelo-batch [options] PHOTO|FOLDER|-... -o OUTDIR   (--help has the options)

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "varnelo-batch/commit.h"
#include "varnelo-batch/discovery.h"
#include "varnelo-batch/driver.h"
#include "varnelo-batch/options.h"
#include "varnelo-batch/plan.h"
#include "varnelo-batch/report.h"
#include "varnelo-batch/state.h"

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
std::string ServiceBesideMe(const char* argv0) {
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (ec) self = fs::absolute(argv0, ec);
    return (self.parent_path() / "varnelo").string();
}

// Lists on standard output what a run would do; returns the exit status it would have.
int DryRun(const std::vector<Photo>& photos) {
    std::size_t counts[7] = {};
    for (const Photo& p : photos) {
        Status status = p.Overall();
        if (status == Status::UP_TO_DATE && !p.thumb.path.empty() &&
            p.thumb.status == Status::PENDING) {
            status = Status::PENDING;
        }
        ++counts[static_cast<int>(status)];
        const std::string failure = p.Failure();
        if (!failure.empty()) {
            std::printf("failed      %s: %s\n", p.shown.c_str(), failure.c_str());
        } else if (status == Status::DUPLICATE) {
            std::printf("duplicate   %s (same file as %s)\n", p.shown.c_str(), p.sameAs.c_str());
        } else {
            std::printf("%-11s %s -> %s\n", status == Status::PENDING ? "convert" : "up to date",
                        p.shown.c_str(), p.copy.shown.c_str());
        }
    }
    std::printf(
        "%zu to convert, %zu up to date, %zu failing, %zu duplicate\n",
        counts[static_cast<int>(Status::PENDING)], counts[static_cast<int>(Status::UP_TO_DATE)],
        counts[static_cast<int>(Status::FAILED)], counts[static_cast<int>(Status::DUPLICATE)]);
    return counts[static_cast<int>(Status::FAILED)] > 0 ? 1 : 0;
}

int Main(int argc, char** argv) {
    Options options;
    std::string problem;
    switch (ParseOptions(argc, argv, options, problem)) {
        case Parsed::DONE:
            return 0;
        case Parsed::BAD_USAGE:
            return BadUsage(problem);
        case Parsed::RUN:
            break;
    }
    if (options.service.empty()) options.service = ServiceBesideMe(argv[0]);
    if (!options.dryRun && access(options.service.c_str(), X_OK) != 0) {
        return Fail("cannot run the service '" + options.service + "': " + std::strerror(errno));
    }
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
    std::error_code ec;
    const std::string outDir = fs::weakly_canonical(fs::absolute(options.outDir, ec), ec).string();
    SearchRules rules;
    rules.recursive = options.recursive;
    rules.hidden = options.hidden;
    rules.outDir = Identify(outDir);
    for (const std::string& input : inputs) {
        if (Identify(input).SameFile(rules.outDir)) {
            return BadUsage("the output folder '" + options.outDir + "' is the input folder '" +
                            input + "': the copies would mix with the photos");
        }
    }
    if (!options.report.empty() && !options.dryRun && !CheckReportPath(options.report, problem)) {
        return Fail(problem);
    }

    std::vector<Photo> photos = FindPhotos(inputs, rules);
    if (!options.dryRun) {
        fs::create_directories(outDir, ec);
        if (ec || !fs::is_directory(outDir, ec)) {
            return Fail("cannot create the output folder '" + options.outDir +
                        "': " + (ec ? ec.message() : std::strerror(ENOTDIR)));
        }
    }
    StateFile state(outDir);
    if (!state.Load(!options.dryRun, problem)) return Fail(problem);
    PlanRules plan;
    plan.outDir = outDir;
    plan.outShown = options.outDir;
    plan.thumbnails = options.thumbnails;
    plan.overwrite = options.overwrite;
    plan.copySettings = CopySettings(options);
    plan.thumbSettings = ThumbSettings(options);
    NameOutputs(photos, plan, state);
    Decide(photos, plan, state);
    if (options.dryRun) return DryRun(photos);

    for (const std::string& folder : OutputFolders(photos)) RemoveLeftovers(folder);
    MakeFolders(photos);
    if (!state.Compact(problem)) return Fail(problem);
    if (photos.empty() && options.verbosity > 0) {
        Fail("no .jpg or .jpeg photos found (folders are searched one level deep without -r)");
    }

    CatchInterrupts();
    std::uint64_t totalBytes = 0;
    for (const Photo& photo : photos) totalBytes += photo.file.size;
    Progress progress(options.verbosity, photos.size(), totalBytes);
    Finisher finisher(state, outDir, options.omitExif, options.hash != HashChoice::NONE,
                      plan.copySettings, plan.thumbSettings);
    const auto start = std::chrono::steady_clock::now();
    Driver driver(options, photos, finisher, progress);
    driver.Run();
    progress.Clear();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    bool written = state.Compact(problem) || Fail(problem) == 0;
    if (!options.report.empty() &&
        !WriteReport(options.report, options.reportFormat, options.thumbnails, photos, problem)) {
        written = Fail(problem) == 0;
    }
    PrintSummary(options, photos, seconds, driver.Restarts());
    if (driver.Interrupted()) return 130;
    for (const Photo& photo : photos) {
        const Status status = photo.Overall();
        if (!photo.Failure().empty() || status == Status::NOT_PROCESSED ||
            photo.thumb.status == Status::NOT_PROCESSED) {
            return 1;
        }
    }
    return written ? 0 : 1;
}

}  // namespace
}  // namespace Varnelo

int main(int argc, char** argv) { return Varnelo::Main(argc, argv); }
