#include "process.h"

#include "converter.h"
#include "fsutils.h"
#include "log.h"

namespace Varnelo {

namespace {

const int kMinDestinationSize = 8;
const int kMaxDestinationSize = 65536;
const char kJpegMask[] = "*.jpg";

// The file to write: `dst` itself when its extension is "jpg" in any case; otherwise `dst`
// is a folder and the file keeps the source's name. ".jpeg" counts as a folder on purpose.
std::string DestinationFile(const std::string& src, const std::string& dst) {
    std::string ext = GetFileExt(dst);
    ToLower(ext);
    return ext == "jpg" ? dst : DirPlusFile(dst, GetFileName(src));
}

}  // namespace

CProcess::CProcess()
    : m_destinationSize(320),
      m_destinationQuality(75),
      m_resizer(RESIZER_REDUCES),
      m_originalWidth(0),
      m_originalHeight(0),
      m_hash(HASH_CRC32),
      m_convertResult(CR_INTERNAL_ERROR),
      m_omitEXIF(false) {}

CProcess::~CProcess() = default;

void CProcess::SetDestinationSize(int size) {
    if (size < kMinDestinationSize) size = kMinDestinationSize;
    if (size > kMaxDestinationSize) size = kMaxDestinationSize;
    m_destinationSize = size;
}

void CProcess::SetDestinationQuality(int quality) {
    if (quality < 0) quality = 0;
    if (quality > 100) quality = 100;
    m_destinationQuality = quality;
}

void CProcess::SetUseResizer(TypeOfResizer resizer) { m_resizer = resizer; }

void CProcess::SetHash(HashType hash) { m_hash = hash; }

void CProcess::SetOmitEXIF(bool omit) { m_omitEXIF = omit; }

CProcess::Paths CProcess::PathsOf(const std::string& src, const std::string& dst) {
    return Paths{src, DestinationFile(src, dst), GetFilePath(dst)};
}

bool CProcess::ProcessAuto(const std::string& src, const std::string& dst) {
    return ProcessAutoWith(src, dst, false);
}

bool CProcess::ProcessThumbnailAuto(const std::string& src, const std::string& dst) {
    return ProcessAutoWith(src, dst, true);
}

bool CProcess::ProcessAutoWith(const std::string& src, const std::string& dst, bool thumbnail) {
    if (FileExists(src)) {
        log.Put("Source file: " + src, 14);
        log.Put("Destination file: " + dst, 14);
        // Usually exists already; only one level is ever created.
        Create_dir(GetFilePath(dst));
        log.Put(thumbnail ? "ConvertFileThumbnail" : "ConvertFile", 14);
        return Convert(src, DestinationFile(src, dst), thumbnail);
    }

    log.Put("Path: " + src, 8);
    std::list<std::string> files;
    ListFolder(src, files);
    if (files.empty()) return false;

    // Only the first file is converted per call, deliberately.
    const std::string& first = files.front();
    Create_dir(DirPlusFile(dst, GetFilePath(first)));
    return Convert(DirPlusFile(src, first), DirPlusFile(dst, first), thumbnail);
}

bool CProcess::ProcessFile(const std::string& src, const std::string& dst) {
    if (!FileExists(src)) return false;
    log.Put("Source file: " + src, 8);
    log.Put("Destination file: " + dst, 8);
    Create_dir(GetFilePath(dst));
    return Convert(src, DestinationFile(src, dst), false);
}

bool CProcess::ProcessFiles(const std::list<std::string>& sources, const std::string& dst) {
    for (const std::string& src : sources) {
        if (!ProcessFile(src, dst)) return false;
    }
    return true;
}

bool CProcess::ProcessDir(const std::string& src, const std::string& dst) {
    log.Put("Path: " + src, 8);
    std::list<std::string> files;
    ListFolder(src, files);
    files.sort(digit_string_comparer());
    log.Put("List files:", 10);
    for (const std::string& name : files) log.Put(name, 10);
    if (files.empty()) return false;

    // Only the first file is converted per call, deliberately.
    const std::string& first = files.front();
    Create_dir(DirPlusFile(dst, GetFilePath(first)));
    const std::string srcFile = DirPlusFile(src, first);
    const std::string dstFile = DirPlusFile(dst, first);
    log.Put(srcFile + " >> " + dstFile, 8);
    return Convert(srcFile, dstFile, false);
}

bool CProcess::Convert(const std::string& src, const std::string& dstFile, bool thumbnail) {
    if (thumbnail) {
        m_convertResult = ConvertFileThumbnail(src, dstFile, m_destinationSize,
                                               m_destinationQuality, m_originalWidth,
                                               m_originalHeight, m_originalHash, m_hash, m_resizer);
    } else {
        m_convertResult =
            ConvertFile(src, dstFile, m_destinationSize, m_destinationQuality, m_originalWidth,
                        m_originalHeight, m_originalHash, m_hash, m_resizer, m_omitEXIF);
    }
    return m_convertResult == CR_OK;
}

void CProcess::ListFolder(const std::string& src, std::list<std::string>& files) {
    // Listed by path, without changing the process's current directory, which other workers'
    // relative paths depend on.
    if (!FindFilesInAllSubdirs(src, kJpegMask, files)) {
        log.Put("Find files in all subdirs failed", 8);
    }
}
}  // namespace Varnelo
