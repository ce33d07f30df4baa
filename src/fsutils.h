#pragma once

#include <list>
#include <string>

namespace Varnelo {

// Path, file, folder and text helpers. Paths split at the last slash or backslash;
// DirPlusFile joins with SEPARATE. None of them logs or throws.

extern const std::string SEPARATE;

std::string GetFileName(const std::string& path);
std::string GetFilePath(const std::string& path);
// The text after the last "."; the whole path when it has no dot at all.
std::string GetFileExt(const std::string& path);
std::string DirPlusFile(const std::string& dir, const std::string& file);

bool FileExists(const std::string& path);
bool EraseFile(const std::string& path);
// Creates only the last component; true without a call for a drive root ("C:", "C:\").
bool Create_dir(const std::string& path);
std::string Get_cur_dir();
bool Set_cur_dir(const std::string& path);

// File search is not provided on this platform: it succeeds and finds nothing.
bool FindFiles(const std::string& dir, const std::string& mask, std::list<std::string>& files);
bool FindFilesInAllSubdirs(const std::string& dir, const std::string& mask,
                           std::list<std::string>& files);
bool EraseDir(const std::string& dir, const std::string& mask);

void ToLower(std::string& text);
std::string ToString(int number);
// Reads a leading decimal integer as a string stream does; leaves `number` as it was when
// there is none. Always true.
bool FromString(const std::string& text, int& number);

// Natural order: runs of digits compare by value, other characters case-insensitively.
int strcmpdig(const char* a, const char* b);

struct digit_string_comparer {
    bool operator()(const std::string& a, const std::string& b) const {
        return strcmpdig(a.c_str(), b.c_str()) < 0;
    }
};

}  // namespace Varnelo
