#include "state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace Varnelo {

const char StateFile::kName[] = ".varnelo-batch.state";
const char kTempPrefix[] = ".varnelo-batch-tmp-";

namespace {

const char kHeader[] = "# varnelo-batch state 1";

// Fields are separated by tabs; the bytes that would break a line or a field are escaped.
std::string Escape(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else {
            out += c;
        }
    }
    return out;
}

std::string Unescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        out += c == 't' ? '\t' : c == 'n' ? '\n' : c == 'r' ? '\r' : c;
    }
    return out;
}

std::string Line(const Record& r) {
    std::ostringstream out;
    out << Escape(r.output) << '\t' << Escape(r.source) << '\t' << r.sourceSize << '\t'
        << r.sourceMtimeNs << '\t' << Escape(r.settings) << '\t' << r.file.size << '\t'
        << r.file.mtimeNs << '\t' << r.width << '\t' << r.height << '\t' << Escape(r.hash) << '\n';
    return out.str();
}

bool Parse(const std::string& line, Record& r) {
    std::vector<std::string> f;
    std::size_t start = 0;
    for (std::size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
        f.push_back(line.substr(start, tab - start));
    }
    f.push_back(line.substr(start));
    if (f.size() != 10) return false;
    auto number = [](const std::string& text) { return std::strtoll(text.c_str(), nullptr, 10); };
    r.output = Unescape(f[0]);
    r.source = Unescape(f[1]);
    r.sourceSize = static_cast<std::uint64_t>(number(f[2]));
    r.sourceMtimeNs = number(f[3]);
    r.settings = Unescape(f[4]);
    r.file.exists = true;
    r.file.size = static_cast<std::uint64_t>(number(f[5]));
    r.file.mtimeNs = number(f[6]);
    r.width = static_cast<int>(number(f[7]));
    r.height = static_cast<int>(number(f[8]));
    r.hash = Unescape(f[9]);
    return !r.output.empty() && !r.source.empty();
}

bool WriteAll(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

}  // namespace

FileId IdentifyOutput(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return FileId();
    FileId id = FileId::Of(st);
    if (!S_ISREG(st.st_mode)) id.size = ~0ull;  // never the same content as a file
    return id;
}

bool StateFile::Load(bool lock, std::string& error) {
    if (lock) {
        m_lock = Fd(open(m_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (m_lock.Get() < 0) {
            error = "cannot open the output folder '" + m_dir + "': " + std::strerror(errno);
            return false;
        }
        if (flock(m_lock.Get(), LOCK_EX | LOCK_NB) != 0) {
            error = "another varnelo-batch is writing into '" + m_dir + "'; try again when it ends";
            return false;
        }
    }
    std::ifstream in(fs::path(m_dir) / kName, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A line without its newline was cut by a kill: its file was never renamed into place.
    std::size_t start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        Record record;
        if (Parse(text.substr(start, end - start), record)) {
            m_records[record.output].push_back(record);
        }
    }
    return true;
}

const Record* StateFile::Find(const std::string& output, const FileId& onDisk) const {
    const auto it = m_records.find(output);
    if (it == m_records.end() || !onDisk.exists) return nullptr;
    for (auto record = it->second.rbegin(); record != it->second.rend(); ++record) {
        if (record->file.SameContent(onDisk)) return &*record;
    }
    return nullptr;
}

bool StateFile::Append(const Record& record, std::string& error) {
    if (m_journal.Get() < 0) {
        m_journal = Fd(open((fs::path(m_dir) / kName).c_str(),
                            O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    }
    if (m_journal.Get() < 0 || !WriteAll(m_journal.Get(), Line(record)) ||
        fdatasync(m_journal.Get()) != 0) {
        error = std::string("cannot write ") + kName + ": " + std::strerror(errno);
        return false;
    }
    m_records[record.output].push_back(record);
    return true;
}

bool StateFile::Compact(std::string& error) {
    std::string text = std::string(kHeader) + "\n";
    for (auto it = m_records.begin(); it != m_records.end();) {
        const Record* kept =
            Find(it->first, IdentifyOutput((fs::path(m_dir) / it->first).string()));
        if (kept == nullptr) {
            it = m_records.erase(it);
            continue;
        }
        text += Line(*kept);
        it->second = {*kept};
        ++it;
    }
    const std::string path = (fs::path(m_dir) / kName).string();
    const std::string temp = path + ".tmp";
    Fd fd(open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    const bool ok = fd.Get() >= 0 && WriteAll(fd.Get(), text) && fsync(fd.Get()) == 0 &&
                    rename(temp.c_str(), path.c_str()) == 0;
    if (!ok) {
        error = std::string("cannot write ") + kName + ": " + std::strerror(errno);
        unlink(temp.c_str());
        return false;
    }
    m_journal.Reset();  // it appended to the file just replaced
    return true;
}

std::string TempName(const std::string& folder, std::size_t number) {
    return (fs::path(folder) / (std::string(kTempPrefix) + std::to_string(getpid()) + "-" +
                                std::to_string(number) + ".jpg"))
        .string();
}

std::size_t RemoveLeftovers(const std::string& folder) {
    std::size_t removed = 0;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        std::error_code typeError;
        if (name.rfind(kTempPrefix, 0) == 0 && name.size() > 4 &&
            name.compare(name.size() - 4, 4, ".jpg") == 0 && it->is_regular_file(typeError) &&
            !it->is_symlink(typeError) && unlink(it->path().c_str()) == 0) {
            ++removed;
        }
    }
    return removed;
}

}  // namespace Varnelo
