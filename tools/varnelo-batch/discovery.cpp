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
#include "sniff.h"

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

std::string Absolute(const fs::path& path) {
    std::error_code ec;
    const fs::path absolute = fs::absolute(path, ec);
    return (ec ? path : absolute).lexically_normal().string();
}

// A file found, told by its first bytes: one named as a photo that is not a JPEG fails.
Photo Found(const fs::path& path, const fs::path& relative, const FileId& id) {
    Photo photo;
    photo.shown = path.string();
    photo.source = Absolute(path);
    photo.relative = relative.lexically_normal().string();
    photo.file = id;
    if (access(photo.source.c_str(), R_OK) != 0) {
        photo.problem = std::string("cannot read the file: ") + std::strerror(errno);
        return photo;
    }
    photo.kind = SniffFile(photo.source);
    if (photo.kind == FileKind::OTHER) {
        photo.problem = id.size == 0 ? "not an image: the file is empty" : "not an image";
    } else if (photo.kind != FileKind::JPEG) {
        photo.problem = "not a JPEG but " + KindText(photo.kind, photo.source);
    }
    return photo;
}

// A file of a folder that is not named as a photo: an entry only when it is an image.
bool FoundOther(const fs::path& path, const fs::path& relative, const FileId& id,
                std::vector<Photo>& photos) {
    const FileKind kind = SniffFile(path.string());
    if (kind == FileKind::OTHER || kind == FileKind::JPEG) return false;
    Photo photo;
    photo.shown = path.string();
    photo.source = Absolute(path);
    photo.relative = relative.lexically_normal().string();
    photo.file = id;
    photo.kind = kind;
    photos.push_back(photo);
    return true;
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
        } else if (id.exists && it->is_regular_file(typeError)) {
            FoundOther(path, relative / name, id, photos);
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

Discovery FindPhotos(const std::vector<std::string>& inputs, const SearchRules& rules) {
    Discovery found;
    found.rules = rules;
    std::vector<Photo>& all = found.photos;
    for (const std::string& input : inputs) {
        struct stat st;
        if (stat(input.c_str(), &st) != 0) {
            all.push_back(Problem(input, std::string("cannot read: ") + std::strerror(errno)));
        } else if (S_ISDIR(st.st_mode)) {
            found.folders.push_back(Absolute(input));
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
            found.files.push_back(Absolute(input));
            all.push_back(Found(input, fs::path(input).filename(), Identify(input)));
        }
    }
    // Only what could not be read makes the search incomplete, not a file of another kind.
    for (const Photo& photo : all) {
        if (photo.problem.rfind("cannot read", 0) == 0) found.complete = false;
    }
    // A file reached again (a link, a second name, a folder given twice) is the same photo.
    std::map<std::pair<dev_t, ino_t>, std::string> seen;
    for (Photo& photo : all) {
        if (!photo.file.exists) continue;
        const auto [at, fresh] =
            seen.emplace(std::make_pair(photo.file.dev, photo.file.ino), photo.shown);
        if (!fresh) photo.sameAs = at->second;
    }
    return found;
}

bool Discovery::Covers(const std::string& source) const {
    if (std::find(files.begin(), files.end(), source) != files.end()) return true;
    if (!IsJpegName(source)) return false;
    for (const std::string& folder : folders) {
        const fs::path relative = fs::path(source).lexically_relative(folder);
        if (relative.empty() || *relative.begin() == "..") continue;
        std::size_t depth = 0;
        bool hidden = false;
        for (const fs::path& part : relative) {
            ++depth;
            hidden = hidden || IsHidden(part.string());
        }
        if ((depth == 1 || rules.recursive) && (rules.hidden || !hidden)) return true;
    }
    return false;
}

}  // namespace Varnelo
