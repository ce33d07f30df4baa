#include "stale.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>

namespace fs = std::filesystem;

namespace Varnelo {

namespace {

// A photo that this run settled: what it should have in the output folder is known.
bool Settled(const Photo& photo) {
    const Status status = photo.Overall();
    return IsMade(status) || status == Status::TOO_SMALL;
}

bool Gone(const std::string& source) {
    struct stat st;
    return lstat(source.c_str(), &st) != 0 && errno == ENOENT;
}

}  // namespace

std::vector<StaleFile> FindStale(const std::vector<Photo>& photos, const StateFile& state,
                                 const Discovery& discovery, const std::string& outDir,
                                 const std::string& outShown) {
    std::map<std::string, std::pair<const Photo*, const Output*>> outputs;
    std::map<std::string, const Photo*> sources;
    for (const Photo& photo : photos) {
        for (const Output* output : {&photo.copy, &photo.thumb}) {
            if (!output->path.empty()) outputs[output->path] = {&photo, output};
        }
        if (photo.sameAs.empty()) sources[photo.source] = &photo;
    }
    std::vector<StaleFile> stale;
    for (const auto& entry : state.Records()) {
        const std::string path = (fs::path(outDir) / entry.first).string();
        const Record* record = state.Find(entry.first, IdentifyOutput(path));
        if (record == nullptr) continue;
        StaleFile file;
        file.path = path;
        file.shown = (fs::path(outShown) / entry.first).string();
        file.source = record->source;
        file.file = record->file;
        const auto output = outputs.find(path);
        const auto photo = sources.find(record->source);
        const bool ours = photo != sources.end() && Settled(*photo->second);
        if (output != outputs.end()) {
            // A name of this run: stale only when its own photo now gets nothing there.
            const auto [owner, made] = output->second;
            if (made->status != Status::TOO_SMALL || owner->source != record->source) continue;
            file.why = made == &owner->thumb
                           ? "the photo is not larger than --thumb-size: no thumbnail made"
                           : "the photo is not larger than --size, and --skip-small makes no copy";
        } else if (ours) {
            file.why = record->settings.rfind("thumbnail ", 0) == 0
                           ? "a thumbnail, and this run makes none (--thumbnails)"
                           : "an earlier copy of the photo, under a name it no longer has";
        } else if (photo == sources.end() && discovery.Covers(record->source) &&
                   Gone(record->source)) {
            file.why = "its photo is gone";
        } else {
            continue;
        }
        stale.push_back(file);
    }
    return stale;
}

void Prune(std::vector<StaleFile>& stale) {
    for (StaleFile& file : stale) {
        if (!IdentifyOutput(file.path).SameContent(file.file)) {
            file.why += "; changed since: left as it is";
        } else if (unlink(file.path.c_str()) != 0) {
            file.why += std::string("; cannot remove it: ") + std::strerror(errno);
        } else {
            file.status = Status::PRUNED;
        }
    }
}

}  // namespace Varnelo
