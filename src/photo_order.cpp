#include "photo_order.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

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

// `path` with "." and ".." taken away by their names alone.
std::string Lexical(const std::string& path) {
    std::vector<std::string> names;
    for (std::size_t at = 0; at <= path.size();) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        const std::string name = path.substr(at, end - at);
        if (name == "..") {
            if (!names.empty()) names.pop_back();
        } else if (!name.empty() && name != ".") {
            names.push_back(name);
        }
        at = end + 1;
    }
    std::string normal;
    for (const std::string& name : names) normal += "/" + name;
    return normal.empty() ? "/" : normal;
}

// `path` as the file system reaches it: its folder with every symbolic link and ".." followed,
// and its own name. Where the folder does not exist there is no link to follow, and the path
// is taken by its names, unless a ".." in it could climb out of a link: then it is not resolved
// (empty), and the order is kept.
std::string Resolved(const std::string& path) {
    std::string absolute = path;
    if (path[0] != '/') {
        std::unique_ptr<char, decltype(&std::free)> cwd(getcwd(nullptr, 0), &std::free);
        if (cwd == nullptr) return std::string();
        absolute = std::string(cwd.get()) + "/" + path;
    }
    while (absolute.size() > 1 && absolute.back() == '/') absolute.pop_back();
    const std::size_t slash = absolute.rfind('/');
    const std::string folder = slash == 0 ? "/" : absolute.substr(0, slash);
    const std::string name = absolute.substr(slash + 1);
    char real[PATH_MAX];
    if (name != "." && name != ".." && realpath(folder.c_str(), real) != nullptr) {
        return (std::string(real) == "/" ? "" : std::string(real)) + "/" + name;
    }
    if (("/" + absolute + "/").find("/../") != std::string::npos) return std::string();
    return Lexical(absolute);
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
    touch.resolved = Lower(Resolved(raw));
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
    std::vector<std::vector<std::size_t>> waitFor(photos.size());
    if (photos.size() < 2) return waitFor;  // a photo alone waits for nothing
    std::vector<std::vector<Touch>> touches;
    for (const CProcess::Paths& paths : photos) touches.push_back(TouchesOf(paths));
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
