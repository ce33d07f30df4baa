#include "summary.h"

#include <cstdio>
#include <map>

#include "report.h"

namespace Varnelo {

namespace {

std::string Plural(std::size_t n, const char* word) {
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

std::string FormatBytes(std::uint64_t bytes) {
    char text[32];
    if (bytes >= (1u << 20)) {
        std::snprintf(text, sizeof(text), "%.1f MB", bytes / 1048576.0);
    } else {
        std::snprintf(text, sizeof(text), "%.1f KB", bytes / 1024.0);
    }
    return text;
}

// The images of other formats by kind: "1 HEIC, 2 PNG".
std::string OtherKinds(const std::vector<Photo>& photos) {
    std::map<std::string, std::size_t> kinds;
    for (const Photo& p : photos) {
        if (p.Overall() == Status::NOT_JPEG) ++kinds[KindName(p.kind, p.source)];
    }
    std::string text;
    for (const auto& [kind, n] : kinds) {
        text += (text.empty() ? "" : ", ") + std::to_string(n) + " " + kind;
    }
    return text;
}

bool Made(Status status) {
    return status == Status::CONVERTED || status == Status::WARNED || status == Status::COPIED;
}

}  // namespace

void PrintSummary(const Options& options, const std::vector<Photo>& photos,
                  const std::vector<StaleFile>& stale, double seconds, int restarts,
                  const std::string& unpruned) {
    if (options.verbosity == 0) return;
    std::size_t counts[kStatusCount] = {};
    std::size_t thumbsMade = 0, thumbsFailed = 0, worked = 0, found = 0;
    std::uint64_t bytesIn = 0, bytesOut = 0;
    std::vector<const Photo*> failed;
    for (const Photo& p : photos) {
        const Status status = p.Overall();
        ++counts[static_cast<int>(status == Status::PENDING ? Status::NOT_PROCESSED : status)];
        if (status != Status::NOT_JPEG) ++found;
        if (!p.Failure().empty()) failed.push_back(&p);
        if (Made(p.copy.status) || Made(p.thumb.status) || status == Status::TOO_SMALL ||
            status == Status::FAILED) {
            ++worked;
            bytesIn += p.file.size;
        }
        if (Made(p.copy.status)) bytesOut += p.copy.bytes;
        if (Made(p.thumb.status)) bytesOut += p.thumb.bytes, ++thumbsMade;
        if (p.thumb.status == Status::FAILED) ++thumbsFailed;
    }
    for (const StaleFile& file : stale) ++counts[static_cast<int>(file.status)];
    std::fprintf(stderr, "%s in %.1f s (%.1f photos/s)\n", Plural(found, "photo").c_str(), seconds,
                 seconds > 0 ? worked / seconds : 0.0);
    const std::string size = std::to_string(options.size) + " pixels";
    const struct {
        Status status;
        const char* label;
        std::string note;
    } rows[] = {
        {Status::CONVERTED, "converted", ""},
        {Status::WARNED, "converted with warnings", "(the photos may be damaged)"},
        {Status::COPIED, "copied", "(not larger than " + size + ": copied as they are)"},
        {Status::ADOPTED, "adopted", "(already at their names, byte for byte)"},
        {Status::UP_TO_DATE, "up to date", "(made by an earlier run)"},
        {Status::TOO_SMALL, "too small", "(not larger than " + size + ": no copy made)"},
        {Status::FAILED, "failed", ""},
        {Status::NOT_PROCESSED, "not processed", "(a re-run finishes them)"},
        {Status::DUPLICATE, "duplicate", "(a file reached twice: converted once)"},
        {Status::NOT_JPEG, "not JPEG", "(" + OtherKinds(photos) + ")"},
        {Status::STALE, "stale", "(made by an earlier run, not by this one: --prune removes them)"},
        {Status::PRUNED, "pruned", "(stale files removed)"}};
    for (const auto& row : rows) {
        const std::size_t n = counts[static_cast<int>(row.status)];
        if (n == 0 && row.status != Status::CONVERTED) continue;
        std::fprintf(stderr, "  %-23s %6zu%s\n", row.label, n,
                     row.note.empty() ? "" : ("  " + row.note).c_str());
    }
    if (options.thumbnails) {
        std::fprintf(stderr, "  %-23s %6zu made, %zu failed\n", "thumbnails", thumbsMade,
                     thumbsFailed);
    }
    std::fprintf(stderr, "  read %s, wrote %s\n", FormatBytes(bytesIn).c_str(),
                 FormatBytes(bytesOut).c_str());
    if (restarts > 0) {
        std::fprintf(stderr, "  the service was restarted %s\n", Plural(restarts, "time").c_str());
    }
    if (!unpruned.empty()) std::fprintf(stderr, "  nothing pruned: %s\n", unpruned.c_str());
    if (!failed.empty()) std::fprintf(stderr, "  failed:\n");
    for (std::size_t i = 0; i < failed.size() && i < 10; ++i) {
        std::fprintf(stderr, "    %s: %s\n", failed[i]->shown.c_str(),
                     failed[i]->Failure().c_str());
    }
    if (failed.size() > 10) {
        std::fprintf(stderr, "    and %zu more (%s)\n", failed.size() - 10,
                     options.report.empty() ? "--report FILE lists them all"
                                            : ("all in " + options.report).c_str());
    }
    if (!options.report.empty()) std::fprintf(stderr, "  report: %s\n", options.report.c_str());
}

int PrintForecast(const Options& options, const std::vector<Photo>& photos,
                  const std::vector<StaleFile>& stale, const std::string& unpruned) {
    const std::string size = "not larger than " + std::to_string(options.size) + " pixels";
    std::size_t convert = 0, copy = 0, adopt = 0, upToDate = 0, skip = 0, failing = 0,
                duplicate = 0, other = 0;
    for (const Photo& p : photos) {
        const Status status = p.Overall();
        const std::string failure = p.Failure();
        const char* shown = p.shown.c_str();
        const char* to = p.copy.shown.c_str();
        if (!failure.empty()) {
            ++failing;
            std::printf("failed      %s: %s\n", shown, failure.c_str());
        } else if (status == Status::DUPLICATE) {
            ++duplicate;
            std::printf("duplicate   %s (same file as %s)\n", shown, p.sameAs.c_str());
        } else if (status == Status::NOT_JPEG) {
            ++other;
            std::printf("not JPEG    %s (%s)\n", shown, KindText(p.kind, p.source).c_str());
        } else if (status == Status::COPIED) {
            ++copy;
            std::printf("copy        %s -> %s (%s)\n", shown, to, size.c_str());
        } else if (status == Status::TOO_SMALL) {
            ++skip;
            std::printf("skip        %s (%s: --skip-small)\n", shown, size.c_str());
        } else if (status == Status::ADOPTED) {
            ++adopt;
            std::printf("adopt       %s -> %s (already there, byte for byte)\n", shown, to);
        } else if (status == Status::UP_TO_DATE &&
                   (p.thumb.path.empty() || p.thumb.status != Status::PENDING)) {
            ++upToDate;
            std::printf("up to date  %s -> %s\n", shown, to);
        } else {
            ++convert;
            std::printf("convert     %s -> %s\n", shown, to);
        }
    }
    const bool prune = options.prune && unpruned.empty();
    for (const StaleFile& file : stale) {
        std::printf("%-11s %s: %s\n", prune ? "remove" : "stale", file.shown.c_str(),
                    file.why.c_str());
    }
    std::string counts = std::to_string(convert) + " to convert";
    const struct {
        std::size_t n;
        const char* what;
    } more[] = {{copy, "to copy"},        {adopt, "to adopt"},
                {upToDate, "up to date"}, {skip, "too small"},
                {failing, "failing"},     {duplicate, "duplicate"},
                {other, "not JPEG"},      {stale.size(), prune ? "to remove" : "stale"}};
    for (const auto& m : more) {
        if (m.n > 0) counts += ", " + std::to_string(m.n) + " " + m.what;
    }
    std::printf("%s\n", counts.c_str());
    if (options.prune && !unpruned.empty() && !stale.empty()) {
        std::printf("nothing would be pruned: %s\n", unpruned.c_str());
    }
    if (convert > 0) {
        std::printf(
            "only converting tells which photos are damaged (the JPEG library warns) or whether "
            "the disk fills\n");
    }
    return failing > 0 ? 1 : 0;
}

}  // namespace Varnelo
