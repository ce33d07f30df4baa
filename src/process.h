#pragma once

#include <list>
#include <string>

#include "hash.h"
#include "resizer.h"

namespace Varnelo {

// One conversion job: the settings of an image request (size, quality, resizer, hash, EXIF),
// the choice of the file to write from the source and destination paths, and what the
// conversion reported (source size, source hash, result code) for the caller to read.
//
// Destination rule: a destination whose extension is "jpg" in any case is the file to write;
// anything else, ".jpeg" included, is a folder that receives the source's file name. Only
// the destination's parent folder is created, one level, and a failure to create it shows as
// the conversion's CR_CREATE_DEST_ERROR.
//
// Lifecycle: configure with the setters, run one job operation, read the getters. A second
// job on the same object reuses the settings; the outputs change only when a conversion runs.
// A fresh job's result is CR_INTERNAL_ERROR. Nothing is thrown or logged as a failure, except
// "Find files in all subdirs failed".
//
// Threads: one job per request on one worker; jobs share nothing, and none changes the
// process's current directory.
class CProcess {
  public:
    CProcess();
    virtual ~CProcess();
    CProcess(const CProcess&) = delete;
    CProcess& operator=(const CProcess&) = delete;

    // Clamped to 8..65536.
    void SetDestinationSize(int size);
    // Clamped to 0..100.
    void SetDestinationQuality(int quality);
    void SetUseResizer(TypeOfResizer resizer);
    void SetHash(HashType hash);
    void SetOmitEXIF(bool omit);

    int GetOriginalWidth() const { return m_originalWidth; }
    int GetOriginalHeight() const { return m_originalHeight; }
    std::string GetOriginalHash() const { return m_originalHash; }
    int GetConvertResult() const { return m_convertResult; }

    // What ProcessAuto and ProcessThumbnailAuto of `src` and `dst` touch when `src` is a file:
    // the file read, the file written (by the destination rule) and the folder they create.
    struct Paths {
        std::string source, destination, folder;
    };
    static Paths PathsOf(const std::string& src, const std::string& dst);

    // Converts the file `src` (ConvertFile), or, when `src` is not an existing file, the first
    // "*.jpg" found under the folder `src`. True exactly when the result is CR_OK.
    bool ProcessAuto(const std::string& src, const std::string& dst);
    // As ProcessAuto, with ConvertFileThumbnail for a source file.
    bool ProcessThumbnailAuto(const std::string& src, const std::string& dst);
    // Converts the file `src`; false, with the result untouched, when it does not exist.
    bool ProcessFile(const std::string& src, const std::string& dst);
    // ProcessFile for each source in order, stopping at the first failure.
    bool ProcessFiles(const std::list<std::string>& sources, const std::string& dst);
    // Converts the first "*.jpg" (in natural order) found under the folder `src` into the
    // folder `dst`.
    bool ProcessDir(const std::string& src, const std::string& dst);

  private:
    bool ProcessAutoWith(const std::string& src, const std::string& dst, bool thumbnail);
    // Runs the conversion into the file `dstFile` and keeps its outputs.
    bool Convert(const std::string& src, const std::string& dstFile, bool thumbnail);
    // Lists "*.jpg" below the folder `src`, relative to it.
    static void ListFolder(const std::string& src, std::list<std::string>& files);

    int m_destinationSize;
    int m_destinationQuality;
    TypeOfResizer m_resizer;
    int m_originalWidth;
    int m_originalHeight;
    std::string m_originalHash;
    HashType m_hash;
    int m_convertResult;
    bool m_omitEXIF;
};

}  // namespace Varnelo
