#include "photo_order.h"

#include <sys/stat.h>

#include <cctype>
#include <filesystem>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace Varnelo {

namespace {

// A path a job touches, and how.
struct Touch {
    enum Kind { READ, WRITE, FOLDER } kind;
    std::string resolved;  // empty: could not be resolved
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
};

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

Touch Resolve(Touch::Kind kind, const std::string& raw) {
    Touch touch{kind, std::string()};
    if (raw.empty()) return touch;
    struct stat info;
    if (stat(raw.c_str(), &info) == 0) {
        touch.exists = true;
        touch.dev = info.st_dev;
        touch.ino = info.st_ino;
    }
    std::error_code error;
    const fs::path absolute = fs::absolute(raw, error);
    if (error) return touch;
    fs::path resolved = absolute.lexically_normal();
    const fs::path name = absolute.filename();
    if (!name.empty() && name != "." && name != "..") {
        const fs::path parent = fs::canonical(absolute.parent_path(), error);
        if (!error) resolved = parent / name;
    }
    touch.resolved = Lower(resolved.string());
    while (touch.resolved.size() > 1 && touch.resolved.back() == '/') touch.resolved.pop_back();
    return touch;
}

// Whether `inner` is `outer` or lies below it.
bool Within(const std::string& inner, const std::string& outer) {
    if (inner.compare(0, outer.size(), outer) != 0) return false;
    return inner.size() == outer.size() || inner[outer.size()] == '/' || outer == "/";
}

bool Conflict(const Touch& a, const Touch& b) {
    if (a.kind == Touch::READ && b.kind == Touch::READ) return false;
    if (a.resolved.empty() || b.resolved.empty()) return true;  // in doubt
    if (a.exists && b.exists && a.dev == b.dev && a.ino == b.ino) return true;
    return Within(a.resolved, b.resolved) || Within(b.resolved, a.resolved);
}

std::vector<Touch> TouchesOf(const CProcess::Paths& paths) {
    std::vector<Touch> touches = {Resolve(Touch::READ, paths.source),
                                  Resolve(Touch::WRITE, paths.destination)};
    // A folder that exists already is not made again; one that cannot be named makes nothing.
    if (!paths.folder.empty()) {
        Touch folder = Resolve(Touch::FOLDER, paths.folder);
        if (!folder.exists) touches.push_back(folder);
    }
    return touches;
}

}  // namespace

std::vector<std::vector<std::size_t>> PhotosToWaitFor(const std::vector<CProcess::Paths>& photos) {
    std::vector<std::vector<Touch>> touches;
    for (const CProcess::Paths& paths : photos) touches.push_back(TouchesOf(paths));
    std::vector<std::vector<std::size_t>> waitFor(photos.size());
    for (std::size_t j = 0; j < photos.size(); ++j) {
        for (std::size_t k = 0; k < j; ++k) {
            bool conflict = false;
            for (const Touch& a : touches[k]) {
                for (const Touch& b : touches[j]) conflict = conflict || Conflict(a, b);
            }
            if (conflict) waitFor[j].push_back(k);
        }
    }
    return waitFor;
}

}  // namespace Varnelo
