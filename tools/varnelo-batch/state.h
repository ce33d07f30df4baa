#pragma once

// The state of an output folder: which file there was made from which photo under which
// settings, so that a re-run converts only what changed and never takes a file it did not
// make for its own. Kept in OUTDIR/.varnelo-batch.state as one line per file written.
//
// A record is appended (and synced) just before its file is renamed into place, so a run
// killed at any moment leaves a state that still explains every file it made; a record whose
// rename never happened does not match the file on disk and is ignored. Reading resolves
// each output to the newest record that matches the file now at that name (same size and
// modification time: copies get their photo's time, to the nanosecond); a file that matches
// none was not made by varnelo-batch.
//
// The folder is locked for the length of a run, so that two runs never write into it at once.
// One thread uses a StateFile.

#include <map>
#include <string>
#include <vector>

#include "photo.h"
#include "service_client.h"

namespace Varnelo {

struct Record {
    std::string output;  // relative to the output folder
    std::string source;  // absolute
    std::uint64_t sourceSize = 0;
    std::int64_t sourceMtimeNs = 0;
    std::string settings;
    FileId file;  // the output as written (size and modification time)
    int width = -1, height = -1;
    std::string hash;
};

// The file at `path` as lstat(2) sees it: a link is not followed.
FileId IdentifyOutput(const std::string& path);

class StateFile {
  public:
    static const char kName[];

    explicit StateFile(const std::string& outDir) : m_dir(outDir) {}
    StateFile(const StateFile&) = delete;
    StateFile& operator=(const StateFile&) = delete;

    // With `lock`, takes the folder's lock first (held until the object goes away); then
    // reads the state, if there is one. False with `error` set when another run holds the
    // lock or the folder cannot be opened.
    bool Load(bool lock, std::string& error);

    // The newest record for `output` (relative) that matches `onDisk`, or null.
    const Record* Find(const std::string& output, const FileId& onDisk) const;
    // Every record read or appended, by output, oldest first.
    const std::map<std::string, std::vector<Record>>& Records() const { return m_records; }
    // Appends `record` and syncs it to disk. False with `error` set when it cannot.
    bool Append(const Record& record, std::string& error);
    // Rewrites the state with the one record that matches each output's file now on disk.
    bool Compact(std::string& error);

  private:
    std::string m_dir;
    std::map<std::string, std::vector<Record>> m_records;
    Fd m_lock, m_journal;
};

// Temporary names start with this and end in ".jpg"; the next run in a folder removes any.
extern const char kTempPrefix[];
std::string TempName(const std::string& folder, std::size_t number);
// Removes what a killed run left under temporary names in `folder`; returns how many.
std::size_t RemoveLeftovers(const std::string& folder);

}  // namespace Varnelo
