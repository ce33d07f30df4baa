#include "commit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "orientation.h"

namespace fs = std::filesystem;

namespace Varnelo {

namespace {

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

// Adds the photo's Orientation to the file at `path` when it is turned.
std::string MakeUpright(Photo& photo, const std::string& path) {
    if (photo.orientation < 0) photo.orientation = ReadOrientation(photo.source);
    if (photo.orientation < 2) return "";
    std::string jpeg;
    {
        std::ifstream in(path, std::ios::binary);
        jpeg.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    if (!AddOrientation(jpeg, photo.orientation)) return "the service wrote no JPEG";
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << jpeg;
    out.close();
    return out ? "" : Errno("cannot add the orientation");
}

// Moves `temp` to `path`. When nothing was at `path` at the start, nothing may be there now;
// a file that was there must still be the one the plan saw.
std::string Rename(const std::string& temp, const std::string& path, const FileId& before) {
    if (!before.exists) {
        if (renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) {
            return "";
        }
        if (errno == EEXIST) return "a file appeared at its name during the run; left as it is";
        if (errno != EINVAL && errno != ENOSYS) return Errno("cannot rename");
        // A file system without RENAME_NOREPLACE: the check below is the best it allows.
    }
    const FileId now = IdentifyOutput(path);
    if (now.exists != before.exists || (now.exists && !now.SameContent(before))) {
        return "the file at its name changed during the run; left as it is";
    }
    return rename(temp.c_str(), path.c_str()) == 0 ? "" : Errno("cannot rename");
}

}  // namespace

Finisher::Finisher(StateFile& state, const std::string& outDir, bool upright, bool keepHash,
                   const std::string& copySettings, const std::string& thumbSettings)
    : m_state(state),
      m_outDir(outDir),
      m_upright(upright),
      m_keepHash(keepHash),
      m_copySettings(copySettings),
      m_thumbSettings(thumbSettings) {}

void Finisher::Answered(Photo& photo, bool thumbnail, ImageResult result) {
    Output& output = thumbnail ? photo.thumb : photo.copy;
    if (!m_keepHash) result.hash.clear();
    output.width = result.width;
    output.height = result.height;
    output.hash = result.hash;
    std::string problem = result.success ? Finish(photo, thumbnail, result) : result.reason;
    if (problem.empty()) {
        output.status = Status::CONVERTED;
        return;
    }
    unlink(output.temp.c_str());
    output.status = problem == kTooSmall ? Status::TOO_SMALL : Status::FAILED;
    if (output.status == Status::FAILED) output.reason = problem;
}

void Finisher::Dropped(Photo& photo, bool thumbnail) {
    Output& output = thumbnail ? photo.thumb : photo.copy;
    unlink(output.temp.c_str());
    output.status = Status::NOT_PROCESSED;
}

std::string Finisher::Finish(Photo& photo, bool thumbnail, const ImageResult& result) {
    Output& output = thumbnail ? photo.thumb : photo.copy;
    if (thumbnail || m_upright) {
        const std::string problem = MakeUpright(photo, output.temp);
        if (!problem.empty()) return problem;
    }
    const timespec times[2] = {{0, UTIME_OMIT},
                               {static_cast<time_t>(photo.file.mtimeNs / 1000000000),
                                static_cast<long>(photo.file.mtimeNs % 1000000000)}};
    if (utimensat(AT_FDCWD, output.temp.c_str(), times, 0) != 0) {
        return Errno("cannot set the modification time");
    }
    {
        // On disk before it gets its name, so that not even a power loss leaves it half there.
        Fd fd(open(output.temp.c_str(), O_RDONLY | O_CLOEXEC));
        if (fd.Get() < 0 || fsync(fd.Get()) != 0) return Errno("cannot write the file");
    }
    Record record;
    record.output = fs::path(output.path).lexically_relative(m_outDir).string();
    record.source = photo.source;
    record.sourceSize = photo.file.size;
    record.sourceMtimeNs = photo.file.mtimeNs;
    record.settings = thumbnail ? m_thumbSettings : m_copySettings;
    record.file = IdentifyOutput(output.temp);
    record.width = result.width;
    record.height = result.height;
    record.hash = output.hash;
    std::string problem;
    if (!m_state.Append(record, problem)) return problem;
    problem = Rename(output.temp, output.path, output.before);
    if (problem.empty()) output.bytes = record.file.size;
    return problem;
}

}  // namespace Varnelo
