#include "fsutils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <sstream>

namespace Varnelo {

const std::string SEPARATE = "/";

namespace {

const char kSeparators[] = "/\\";

// Bytes from 128 to 255 come from clients' paths; <cctype> is defined for them only as
// unsigned char values.
struct to_lower {
    char operator()(char c) const {
        return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

std::string GetFileName(const std::string& path) {
    const std::string::size_type pos = path.find_last_of(kSeparators);
    return pos == std::string::npos ? path : path.substr(pos + 1);
}

std::string GetFilePath(const std::string& path) {
    const std::string::size_type pos = path.find_last_of(kSeparators);
    return pos == std::string::npos ? std::string() : path.substr(0, pos);
}

std::string GetFileExt(const std::string& path) {
    const std::string::size_type pos = path.rfind('.');
    return pos == std::string::npos ? path : path.substr(pos + 1);
}

std::string DirPlusFile(const std::string& dir, const std::string& file) {
    if (dir.empty()) return file;
    const char last = dir.back();
    if (last == '\\' || last == '/') return dir + file;
    return dir + SEPARATE + file;
}

bool FileExists(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "r");
    if (f == nullptr) return false;
    std::fclose(f);
    return true;
}

bool EraseFile(const std::string& path) {
    if (path.empty()) return false;
    return unlink(path.c_str()) == 0;
}

bool Create_dir(const std::string& path) {
    if (path.empty()) return false;
    const std::string::size_type n = path.size();
    if (path[n - 1] == ':') return true;
    if (n >= 2 && path[n - 1] == '\\' && path[n - 2] == ':') return true;
    return mkdir(path.c_str(), 0777) == 0;
}

std::string Get_cur_dir() {
    char buffer[1024];
    if (getcwd(buffer, sizeof(buffer)) == nullptr) return std::string();
    return buffer;
}

bool Set_cur_dir(const std::string& path) {
    if (path.empty()) return true;
    return chdir(path.c_str()) == 0;
}

bool FindFiles(const std::string&, const std::string&, std::list<std::string>&) { return true; }

bool FindFilesInAllSubdirs(const std::string& dir, const std::string& mask,
                           std::list<std::string>& files) {
    return FindFiles(dir, mask, files);
}

bool EraseDir(const std::string& dir, const std::string& mask) {
    std::list<std::string> files;
    FindFilesInAllSubdirs(dir, mask, files);
    for (const std::string& file : files) {
        if (!EraseFile(file)) return false;
    }
    return true;
}

void ToLower(std::string& text) {
    std::transform(text.begin(), text.end(), text.begin(), to_lower());
}

std::string ToString(int number) {
    std::ostringstream out;
    out << number;
    return out.str();
}

bool FromString(const std::string& text, int& number) {
    std::istringstream in(text);
    int value = 0;
    in >> value;
    // A failed read leaves 0 for "no number" and the type's limit for an overflowing one;
    // only the former keeps the caller's value.
    if (!in.fail() || value != 0) number = value;
    return true;
}

int strcmpdig(const char* a, const char* b) {
    for (;;) {
        if (*a == '\0' && *b == '\0') return 0;
        if (IsDigit(*a) && IsDigit(*b)) {
            unsigned int va = 0;
            unsigned int vb = 0;
            while (IsDigit(*a)) va = va * 10u + static_cast<unsigned>(*a++ - '0');
            while (IsDigit(*b)) vb = vb * 10u + static_cast<unsigned>(*b++ - '0');
            if (va < vb) return -1;
            if (va > vb) return 1;
            continue;
        }
        const signed char ca =
            static_cast<signed char>(std::tolower(static_cast<unsigned char>(*a)));
        const signed char cb =
            static_cast<signed char>(std::tolower(static_cast<unsigned char>(*b)));
        if (ca < cb) return -1;
        if (ca > cb) return 1;
        ++a;
        ++b;
    }
}

}  // namespace Varnelo
