#include "discovery.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <utility>

#include "fsutils.h"

namespace fs = std::filesystem;

namespace Varnelo {

namespace {

bool IsJpegName(const fs::path& path) {
    std::string ext = path.extension().string();
    ToLower(ext);
    return ext == ".jpg" || ext == ".jpeg";
}

// Names a file manager or a NAS keeps for itself: dot files (macOS "._" resource forks
// among them) and Synology's @eaDir thumbnail folders.
bool IsHidden(const std::string& name) {
    return name.empty() || name[0] == '.' || name == "@eaDir";
}

Photo Problem(const std::string& shown, const std::string& problem) {
    Photo photo;
    photo.shown = shown;
    std::error_code ec;
    const fs::path absolute = fs::absolute(shown, ec);
    photo.source = ec ? shown : absolute.lexically_normal().string();
    photo.problem = problem;
    return photo;
}

Photo Found(const fs::path& path, const fs::path& relative, const FileId& id) {
    Photo photo;
    photo.shown = path.string();
    std::error_code ec;
    const fs::path absolute = fs::absolute(path, ec);
    photo.source = (ec ? path : absolute).lexically_normal().string();
    photo.relative = relative.lexically_normal().string();
    photo.file = id;
    if (access(photo.source.c_str(), R_OK) != 0) {
        photo.problem = std::string("cannot read the file: ") + std::strerror(errno);
    }
    return photo;
}

// Collects the photos below `folder` (its place below the input is `relative`) and the
// folders that cannot be read.
void Walk(const fs::path& folder, const fs::path& relative, const SearchRules& rules,
          std::vector<Photo>& photos, std::vector<Photo>& problems) {
    std::error_code ec;
    fs::directory_iterator it(folder, ec);
    if (ec) {
        problems.push_back(Problem(folder.string(), "cannot read the folder: " + ec.message()));
        return;
    }
    for (const fs::directory_iterator end; it != end; it.increment(ec)) {
        const fs::path& path = it->path();
        const std::string name = path.filename().string();
        if (!rules.hidden && IsHidden(name)) continue;
        std::error_code typeError;
        const bool link = it->is_symlink(typeError);
        const FileId id = Identify(path.string());
        if (it->is_directory(typeError)) {
            if (!link && rules.recursive && !id.SameFile(rules.outDir)) {
                Walk(path, relative / name, rules, photos, problems);
            }
        } else if (IsJpegName(path) && !id.exists) {
            problems.push_back(Problem(path.string(), "cannot read: the link leads nowhere"));
        } else if (IsJpegName(path)) {
            photos.push_back(Found(path, relative / name, id));
        }
    }
    if (ec) {
        problems.push_back(
            Problem(folder.string(), "cannot read the whole folder: " + ec.message()));
    }
}

}  // namespace

std::vector<std::string> ReadPathList(std::FILE* in, bool nul) {
    std::vector<std::string> paths;
    std::string path;
    for (int c; (c = std::fgetc(in)) != EOF;) {
        if (c == (nul ? '\0' : '\n')) {
            if (!path.empty()) paths.push_back(path);
            path.clear();
        } else {
            path += static_cast<char>(c);
        }
    }
    if (!path.empty()) paths.push_back(path);
    return paths;
}

FileId Identify(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? FileId::Of(st) : FileId();
}

std::vector<Photo> FindPhotos(const std::vector<std::string>& inputs, const SearchRules& rules) {
    std::vector<Photo> all;
    for (const std::string& input : inputs) {
        struct stat st;
        if (stat(input.c_str(), &st) != 0) {
            all.push_back(Problem(input, std::string("cannot read: ") + std::strerror(errno)));
        } else if (S_ISDIR(st.st_mode)) {
            std::vector<Photo> photos, problems;
            Walk(input, "", rules, photos, problems);
            std::sort(photos.begin(), photos.end(), [](const Photo& a, const Photo& b) {
                return strcmpdig(a.relative.c_str(), b.relative.c_str()) < 0;
            });
            all.insert(all.end(), photos.begin(), photos.end());
            all.insert(all.end(), problems.begin(), problems.end());
        } else if (!S_ISREG(st.st_mode)) {
            all.push_back(Problem(input, "not a file or a folder"));
        } else {
            all.push_back(Found(input, fs::path(input).filename(), Identify(input)));
        }
    }
    // A file reached again (a link, a second name, a folder given twice) is the same photo.
    std::map<std::pair<dev_t, ino_t>, std::string> seen;
    for (Photo& photo : all) {
        if (!photo.file.exists) continue;
        const auto [at, fresh] =
            seen.emplace(std::make_pair(photo.file.dev, photo.file.ino), photo.shown);
        if (!fresh) photo.sameAs = at->second;
    }
    return all;
}

}  // namespace Varnelo
