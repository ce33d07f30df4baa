#include "plan.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "fsutils.h"
#include "options.h"
#include "service_client.h"
#include "sniff.h"

namespace fs = std::filesystem;

namespace Varnelo {

namespace {

std::string Lower(std::string text) {
    ToLower(text);
    return text;
}

bool Named(const Photo& photo) {
    return photo.sameAs.empty() && photo.problem.empty() && photo.kind == FileKind::JPEG;
}

std::string Relative(const std::string& path, const std::string& outDir) {
    return fs::path(path).lexically_relative(outDir).string();
}

// `folder`, or the folder `relative` below it, without a trailing separator.
fs::path Below(const fs::path& folder, const fs::path& relative) {
    return relative.empty() ? folder : (folder / relative).lexically_normal();
}

std::string ThumbOf(const std::string& copy) {
    return copy.substr(0, copy.size() - 4) + "_thumb.jpg";
}

void Fail(Output& output, const std::string& reason) {
    output.status = Status::FAILED;
    output.reason = reason;
}

void DecideOne(const Photo& photo, Output& output, const std::string& settings,
               const PlanRules& rules, const StateFile& state, std::size_t& temps) {
    output.before = IdentifyOutput(output.path);
    const Record* record = state.Find(Relative(output.path, rules.outDir), output.before);
    const std::string name = "'" + output.shown + "'";
    if (output.before.exists && output.before.size == ~0ull) {
        return Fail(output, name + " is in the way and is not a file");
    }
    output.guarded = false;
    if (record != nullptr && record->source == photo.source) {
        if (record->sourceSize == photo.file.size && record->sourceMtimeNs == photo.file.mtimeNs &&
            SameSettings(record->settings, settings)) {
            output.status = Status::UP_TO_DATE;
            output.width = record->width;
            output.height = record->height;
            output.hash = record->hash;
            output.bytes = record->file.size;
            return;
        }
    } else if (output.before.exists && !rules.overwrite) {
        // Whether the new file may take the name is known only once it is made.
        output.guarded = true;
        output.reason = record != nullptr
                            ? name + " holds the copy of another photo, '" + record->source + "'"
                            : name + " exists and was not made by varnelo-batch from this photo";
    }
    output.temp = TempName(fs::path(output.path).parent_path().string(), ++temps);
    if (!FitsARequestLine(photo.source) || !FitsARequestLine(output.temp)) {
        output.temp.clear();
        return Fail(output, "path too long for the service");
    }
    output.status = Status::PENDING;
}

}  // namespace

void NameOutputs(std::vector<Photo>& photos, const PlanRules& rules, const StateFile& state) {
    std::set<std::string> taken;
    for (const Photo& photo : photos) {
        if (photo.file.exists) taken.insert(Lower(photo.source));
    }
    // The names the state remembers for each source's copies.
    std::map<std::string, std::set<std::string>> remembered;
    for (const auto& [output, records] : state.Records()) {
        if (records.back().settings.rfind("copy ", 0) == 0) {
            remembered[records.back().source].insert(output);
        }
    }
    std::vector<std::pair<int, Photo*>> order;
    for (Photo& photo : photos) {
        if (!Named(photo)) continue;
        const int rank = remembered.count(photo.source) != 0              ? 0
                         : fs::path(photo.relative).extension() == ".jpg" ? 1
                                                                          : 2;
        order.emplace_back(rank, &photo);
    }
    std::stable_sort(order.begin(), order.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& entry : order) {
        Photo& photo = *entry.second;
        const fs::path relative = photo.relative;
        const fs::path folder = Below(rules.outDir, relative.parent_path());
        const std::string stem = relative.stem().string();
        auto free = [&](const std::string& name) {
            const std::string copy = (folder / name).string();
            return taken.count(Lower(copy)) == 0 &&
                   (!rules.thumbnails || taken.count(Lower(ThumbOf(copy))) == 0);
        };
        std::string name;
        for (const std::string& output : remembered[photo.source]) {
            const fs::path path = fs::path(rules.outDir) / output;
            if (path.parent_path() == folder && free(path.filename().string())) {
                name = path.filename().string();
                break;
            }
        }
        for (int n = 1; name.empty(); ++n) {
            const std::string candidate = (n == 1 ? stem : stem + "-" + std::to_string(n)) + ".jpg";
            if (free(candidate)) name = candidate;
        }
        const std::string copy = (folder / name).string();
        taken.insert(Lower(copy));
        taken.insert(Lower(ThumbOf(copy)));
        const fs::path shown = Below(rules.outShown, relative.parent_path());
        photo.copy.path = copy;
        photo.copy.shown = (shown / name).string();
        if (rules.thumbnails) {
            photo.thumb.path = ThumbOf(copy);
            photo.thumb.shown = ThumbOf(photo.copy.shown);
        }
    }
}

void Decide(std::vector<Photo>& photos, const PlanRules& rules, const StateFile& state) {
    std::size_t temps = 0;
    for (Photo& photo : photos) {
        if (!Named(photo)) continue;
        DecideOne(photo, photo.copy, rules.copySettings, rules, state, temps);
        if (!photo.thumb.path.empty()) {
            DecideOne(photo, photo.thumb, rules.thumbSettings, rules, state, temps);
        }
    }
}

std::vector<std::string> OutputFolders(const std::vector<Photo>& photos) {
    std::set<std::string> folders;
    for (const Photo& photo : photos) {
        for (const Output* output : {&photo.copy, &photo.thumb}) {
            if (!output->path.empty())
                folders.insert(fs::path(output->path).parent_path().string());
        }
    }
    return {folders.begin(), folders.end()};
}

void MakeFolders(std::vector<Photo>& photos) {
    std::set<std::string> folders;
    for (const Photo& photo : photos) {
        for (const Output* output : {&photo.copy, &photo.thumb}) {
            if (output->status == Status::PENDING && !output->temp.empty()) {
                folders.insert(fs::path(output->path).parent_path().string());
            }
        }
    }
    std::map<std::string, std::string> problems;
    for (const std::string& folder : folders) {
        std::error_code ec;
        fs::create_directories(folder, ec);
        if (!ec && !fs::is_directory(folder, ec)) {
            ec = std::make_error_code(std::errc::not_a_directory);
        }
        if (ec) {
            problems[folder] = "cannot create the folder '" + folder + "': " + ec.message();
        } else if (access(folder.c_str(), W_OK) != 0) {
            problems[folder] = "the output folder '" + folder + "' is not writable";
        }
    }
    for (Photo& photo : photos) {
        for (Output* output : {&photo.copy, &photo.thumb}) {
            if (output->status != Status::PENDING || output->temp.empty()) continue;
            const auto problem = problems.find(fs::path(output->path).parent_path().string());
            if (problem != problems.end()) Fail(*output, problem->second);
        }
    }
}

std::string InTheWay(const std::string& guard, Status made, bool thumbnail) {
    const char* instead = thumbnail                ? "the thumbnail"
                          : made == Status::COPIED ? "a copy of the photo as it is"
                                                   : "the copy";
    return guard + ", and differs from what this run makes (--overwrite replaces it with " +
           instead + ")";
}

namespace {

std::string Bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

void Foresee(std::vector<Photo>& photos, const PlanRules& rules) {
    for (Photo& photo : photos) {
        Output& copy = photo.copy;
        if (!Named(photo) || copy.status != Status::PENDING) continue;
        int width = 0, height = 0;
        const bool small =
            ReadJpegSize(photo.source, width, height) && IsTooSmall(width, height, rules.size);
        copy.status = !small            ? Status::CONVERTED
                      : rules.skipSmall ? Status::TOO_SMALL
                                        : Status::COPIED;
        if (!copy.guarded || copy.status == Status::TOO_SMALL) continue;
        // Only a copy of the photo's own bytes can be compared before it is made.
        if (copy.status == Status::COPIED && !rules.rewrites &&
            copy.before.size == photo.file.size && Bytes(copy.path) == Bytes(photo.source)) {
            copy.status = Status::ADOPTED;
        } else if (copy.status == Status::COPIED && !rules.rewrites) {
            Fail(copy, InTheWay(copy.reason, Status::COPIED, false));
        } else {
            Fail(copy, InTheWay(copy.reason, copy.status, false) +
                           "; unless the new file is byte for byte that one, which only making "
                           "it tells");
        }
    }
}

}  // namespace Varnelo
