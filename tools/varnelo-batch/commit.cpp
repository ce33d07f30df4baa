#include "commit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "plan.h"
#include "sniff.h"

namespace fs = std::filesystem;

namespace Varnelo {

namespace {

// Below this much free space, a file that could not be written is taken to have filled the
// disk: the service leaves what it wrote of a failed file under its temporary name, so a disk
// it filled stays full until that is removed.
const unsigned long long kLowSpace = 1 << 20;

std::string Folder(const std::string& path) { return fs::path(path).parent_path().string(); }

// The cause that the client can see of a failure to write into `folder`, or empty.
std::string VisibleCause(const std::string& folder) {
    if (access(folder.c_str(), W_OK) != 0 && (errno == EACCES || errno == EROFS)) {
        return "the output folder '" + folder + "' is not writable";
    }
    struct statvfs space;
    if (statvfs(folder.c_str(), &space) == 0 &&
        static_cast<unsigned long long>(space.f_bavail) * space.f_frsize < kLowSpace) {
        return "no space left on the output file system";
    }
    return "";
}

// `what` failed with `err` while writing into `folder`: the cause in the user's terms.
std::string WriteError(const std::string& what, int err, const std::string& folder) {
    if (err == ENOSPC || err == EDQUOT) return "no space left on the output file system";
    if (err == EACCES || err == EPERM || err == EROFS) {
        return "the output folder '" + folder + "' is not writable";
    }
    return what + ": " + std::strerror(err);
}

bool ReadAll(const std::string& path, std::string& bytes) {
    std::ifstream in(path, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad() && in.is_open();
}

// Writes `bytes` to `path` whole: created (never over an existing file) or truncated.
std::string WriteAll(const std::string& path, const std::string& bytes, bool create) {
    const int flags = O_WRONLY | O_CLOEXEC | (create ? O_CREAT | O_EXCL : O_TRUNC);
    Fd fd(open(path.c_str(), flags, 0666));
    if (fd.Get() < 0) return WriteError("cannot write the file", errno, Folder(path));
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = write(fd.Get(), bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return WriteError("cannot write the file", n < 0 ? errno : EIO, Folder(path));
        done += static_cast<std::size_t>(n);
    }
    return "";
}

// Gives the file at `output.temp` the metadata the run asks for: a copy its photo's segments
// rewritten by the choice (unless it keeps them all, as the service copied them), a thumbnail
// the photo's colour profile and Orientation.
std::string Dress(const Photo& photo, bool thumbnail, Output& output,
                  const MetadataChoice& choice) {
    if (!thumbnail && !choice.Rewrites()) return "";
    std::string jpeg;
    if (!ReadAll(output.temp, jpeg)) {
        return std::string("cannot read the file: ") + std::strerror(errno);
    }
    const MetadataOutcome outcome = thumbnail
                                        ? DressThumbnail(jpeg, ReadJpegHead(photo.source), choice)
                                        : RewriteMetadata(jpeg, choice);
    if (!outcome.failure.empty()) return "metadata: " + outcome.failure;
    for (const std::string& lost : outcome.lost) {
        output.reason += (output.reason.empty() ? "could not keep " : "; could not keep ") + lost;
    }
    return WriteAll(output.temp, jpeg, false);
}

// Moves `temp` to `path`. When nothing was at `path` at the start, nothing may be there now;
// a file that was there must still be the one the plan saw.
std::string Rename(const std::string& temp, const std::string& path, const FileId& before) {
    if (!before.exists) {
        if (renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) {
            return "";
        }
        if (errno == EEXIST) return "a file appeared at its name during the run; left as it is";
        if (errno != EINVAL && errno != ENOSYS) {
            return WriteError("cannot rename", errno, Folder(path));
        }
        // A file system without RENAME_NOREPLACE: the check below is the best it allows.
    }
    const FileId now = IdentifyOutput(path);
    if (now.exists != before.exists || (now.exists && !now.SameContent(before))) {
        return "the file at its name changed during the run; left as it is";
    }
    if (rename(temp.c_str(), path.c_str()) == 0) return "";
    return WriteError("cannot rename", errno, Folder(path));
}

}  // namespace

Finisher::Finisher(StateFile& state, const std::string& outDir, const FinishRules& rules)
    : m_state(state), m_outDir(outDir), m_rules(rules) {}

void Finisher::Answered(Photo& photo, bool thumbnail, const ImageResult& result) {
    Output& output = thumbnail ? photo.thumb : photo.copy;
    output.width = result.width;
    output.height = result.height;
    output.hash = m_rules.hash == HashChoice::NONE ? "" : result.hash;
    const std::string guard = output.guarded ? output.reason : "";
    output.reason.clear();
    Status made = Status::CONVERTED;
    std::string problem;
    switch (result.outcome) {
        case ImageResult::MADE:
            break;
        case ImageResult::WARNINGS:
            made = Status::WARNED;
            output.reason = "the JPEG library warned while reading the photo: it may be damaged";
            break;
        case ImageResult::TOO_SMALL:
            made = thumbnail || m_rules.skipSmall ? Status::TOO_SMALL : Status::COPIED;
            break;
        case ImageResult::FAILED: {
            const std::string cause = result.writing ? VisibleCause(Folder(output.path)) : "";
            problem = cause.empty() ? result.reason : cause;
            break;
        }
    }
    if (problem.empty()) {
        // The service tells the size and the hash only of the photos it made without a warning.
        if (made != Status::CONVERTED) {
            ReadJpegSize(photo.source, output.width, output.height);
            if (output.hash.empty()) output.hash = SourceHash(photo.source, m_rules.hash);
        }
        if (made == Status::COPIED) {
            std::string bytes;
            problem = ReadAll(photo.source, bytes)
                          ? WriteAll(output.temp, bytes, true)
                          : std::string("cannot read the photo: ") + std::strerror(errno);
        }
        if (problem.empty() && made != Status::TOO_SMALL) {
            problem = Finish(photo, thumbnail, guard, made);
        }
    }
    if (!problem.empty()) {
        made = Status::FAILED;
        output.reason = problem;
    }
    if (made == Status::FAILED || made == Status::TOO_SMALL) unlink(output.temp.c_str());
    output.status = made;
}

void Finisher::Dropped(Photo& photo, bool thumbnail) {
    Output& output = thumbnail ? photo.thumb : photo.copy;
    unlink(output.temp.c_str());
    output.status = Status::NOT_PROCESSED;
    output.reason.clear();
}

std::string Finisher::Finish(Photo& photo, bool thumbnail, const std::string& guard, Status& made) {
    Output& output = thumbnail ? photo.thumb : photo.copy;
    std::string problem = Dress(photo, thumbnail, output, m_rules.metadata);
    if (!problem.empty()) return problem;
    Record record;
    record.output = fs::path(output.path).lexically_relative(m_outDir).string();
    record.source = photo.source;
    record.sourceSize = photo.file.size;
    record.sourceMtimeNs = photo.file.mtimeNs;
    record.settings = thumbnail ? m_rules.thumbSettings : m_rules.copySettings;
    record.width = output.width;
    record.height = output.height;
    record.hash = output.hash;
    if (output.guarded) {
        // The file in the way stays, and counts as made here, only if it is what this run made.
        std::string ours, theirs;
        if (!ReadAll(output.temp, ours) || ours.size() != output.before.size ||
            !ReadAll(output.path, theirs) || ours != theirs) {
            return InTheWay(guard, made, thumbnail);
        }
        record.file = IdentifyOutput(output.path);
        if (!record.file.SameContent(output.before)) {
            return "the file at its name changed during the run; left as it is";
        }
        if (!m_state.Append(record, problem)) return problem;
        unlink(output.temp.c_str());
        output.bytes = record.file.size;
        made = Status::ADOPTED;
        return "";
    }
    const timespec times[2] = {{0, UTIME_OMIT},
                               {static_cast<time_t>(photo.file.mtimeNs / 1000000000),
                                static_cast<long>(photo.file.mtimeNs % 1000000000)}};
    if (utimensat(AT_FDCWD, output.temp.c_str(), times, 0) != 0) {
        return WriteError("cannot set the modification time", errno, Folder(output.path));
    }
    {
        // On disk before it gets its name, so that not even a power loss leaves it half there.
        Fd fd(open(output.temp.c_str(), O_RDONLY | O_CLOEXEC));
        if (fd.Get() < 0 || fsync(fd.Get()) != 0) {
            return WriteError("cannot write the file", errno, Folder(output.path));
        }
    }
    record.file = IdentifyOutput(output.temp);
    if (!m_state.Append(record, problem)) return problem;
    problem = Rename(output.temp, output.path, output.before);
    if (problem.empty()) output.bytes = record.file.size;
    return problem;
}

}  // namespace Varnelo
