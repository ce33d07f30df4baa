#pragma once

// What a run knows about each photo: where it was found, the files it is to get (a copy and
// perhaps a thumbnail), and what became of each. Discovery fills in the source (and the images
// of other formats it passes over), the plan the outputs, the finisher the results; the report
// reads them all. Plain data, one thread.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "sniff.h"

namespace Varnelo {

// What became of one output file (and so of its photo), or of a file the run found.
enum class Status {
    PENDING,        // still to be made
    CONVERTED,      // made in this run
    WARNED,         // made in this run, but the JPEG library warned: the photo may be damaged
    COPIED,         // the photo as it is, since it is not larger than the size asked
    ADOPTED,        // the file at its name was already byte for byte what this run made
    UP_TO_DATE,     // made by an earlier run from the same photo and settings
    TOO_SMALL,      // not larger than the size asked, and no copy wanted (--skip-small)
    FAILED,         // with a reason
    NOT_PROCESSED,  // the run ended first
    DUPLICATE,      // the photo is the same file as an earlier path
    NOT_JPEG,       // an image of another format found in a folder: passed over
    STALE,          // a file an earlier run made that this run would not make
    PRUNED,         // such a file, removed (--prune)
};
const int kStatusCount = static_cast<int>(Status::PRUNED) + 1;

// Whether the output's file is at its name and carries this run's settings.
inline bool IsMade(Status status) {
    return status == Status::CONVERTED || status == Status::WARNED || status == Status::COPIED ||
           status == Status::ADOPTED || status == Status::UP_TO_DATE;
}

// A file as found on disk; two files are the same when their device and inode are.
struct FileId {
    dev_t dev = 0;
    ino_t ino = 0;
    std::uint64_t size = 0;
    std::int64_t mtimeNs = 0;
    bool exists = false;

    bool SameFile(const FileId& o) const {
        return exists && o.exists && dev == o.dev && ino == o.ino;
    }
    // The same content as far as size and modification time tell; a copy of the file that
    // kept its time (cp -a, rsync -t) still counts.
    bool SameContent(const FileId& o) const {
        return exists && o.exists && size == o.size && mtimeNs == o.mtimeNs;
    }

    // The identity a stat call gave (a file that exists).
    static FileId Of(const struct stat& st) {
        FileId id;
        id.exists = true;
        id.dev = st.st_dev;
        id.ino = st.st_ino;
        id.size = static_cast<std::uint64_t>(st.st_size);
        id.mtimeNs = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
        return id;
    }
};

// One file the run makes: a copy or a thumbnail.
struct Output {
    std::string path;   // absolute; empty when the photo gets none
    std::string shown;  // under the output folder as the user named it
    std::string temp;   // written by the service there, renamed to `path` when complete
    FileId before;      // the file at `path` when the run was planned (exists false: none)
    // The file at `path` was not made by varnelo-batch from this photo and may not be
    // replaced: the new file is kept only when it is byte for byte that one.
    bool guarded = false;
    Status status = Status::PENDING;
    std::string reason;           // why it FAILED, or what else to know about the file
    int width = -1, height = -1;  // of the source, when the service said
    std::string hash;
    std::uint64_t bytes = 0;  // of the finished file
};

struct Photo {
    std::string source;    // absolute, as sent to the service (links are not resolved)
    std::string shown;     // as the user named it
    std::string relative;  // its place below the folder it was found in
    FileId file;
    std::string sameAs;              // for a DUPLICATE: the earlier path of the same file
    std::string problem;             // set when the input cannot be read: the photo fails with it
    FileKind kind = FileKind::JPEG;  // what the file's first bytes say it is
    Output copy, thumb;              // thumb.path is empty without --thumbnails

    // The photo's own status: its copy's, unless discovery settled it.
    Status Overall() const;
    // The reason of a failure of the photo, of its copy or of its thumbnail; empty if none.
    std::string Failure() const;
};

inline Status Photo::Overall() const {
    if (!sameAs.empty()) return Status::DUPLICATE;
    if (!problem.empty()) return Status::FAILED;
    if (kind != FileKind::JPEG) return Status::NOT_JPEG;
    return copy.status;
}

inline std::string Photo::Failure() const {
    if (!problem.empty()) return problem;
    if (!sameAs.empty()) return "";
    if (copy.status == Status::FAILED) return copy.reason;
    if (thumb.status == Status::FAILED) return "thumbnail: " + thumb.reason;
    return "";
}

}  // namespace Varnelo
