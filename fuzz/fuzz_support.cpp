#include "fuzz_support.h"

#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

// The service's code reaches files only through these calls; the link wraps them (see
// fuzz/CMakeLists.txt) so that a fuzzed request cannot touch anything outside the scratch folder.
extern "C" {
FILE* __real_fopen(const char* path, const char* mode);
int __real_unlink(const char* path);
int __real_mkdir(const char* path, mode_t mode);
int __real_chdir(const char* path);
}

namespace Varnelo {
namespace Fuzz {

namespace {

bool g_confined = false;

// Whether `path` names something inside the scratch folder (the current directory).
bool Inside(const char* path) {
    if (path == nullptr || *path == '\0') return false;
    std::string rest = path;
    const std::string& root = Scratch::Get().Path();
    if (rest[0] == '/') {
        if (rest.compare(0, root.size() + 1, root + "/") != 0) return false;
        rest.erase(0, root.size() + 1);
    }
    for (const auto& part : std::filesystem::path(rest)) {
        if (part == "..") return false;
    }
    return true;
}

bool Refused(const char* path) {
    if (!g_confined || Inside(path)) return false;
    errno = EACCES;
    return true;
}

void* RunBody(void* body) {
    (*static_cast<const std::function<void()>*>(body))();
    return nullptr;
}

}  // namespace

void RunOnSmallStack(const std::function<void()>& body) { RunOnStack(kStackBytes, body); }

void RunOnStack(std::size_t bytes, const std::function<void()>& body) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, bytes);
    pthread_t thread;
    if (pthread_create(&thread, &attributes, RunBody, const_cast<std::function<void()>*>(&body)) !=
        0) {
        abort();
    }
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

Scratch& Scratch::Get() {
    static Scratch scratch;
    return scratch;
}

Scratch::Scratch() {
    std::string pattern = (std::filesystem::temp_directory_path() / "varnelo-fuzz-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr || __real_chdir(pattern.c_str()) != 0) {
        throw std::runtime_error("cannot make a scratch folder");
    }
    m_path = pattern;
}

Scratch::~Scratch() {
    std::error_code ignored;
    __real_chdir("/");
    std::filesystem::remove_all(m_path, ignored);
}

void Scratch::Reset(const std::initializer_list<std::pair<std::string, std::string>>& files) {
    for (const auto& entry : std::filesystem::directory_iterator(m_path)) {
        std::filesystem::remove_all(entry.path());
    }
    for (const auto& [name, content] : files) {
        std::ofstream(m_path + "/" + name, std::ios::binary) << content;
    }
}

Confinement::Confinement() { g_confined = true; }
Confinement::~Confinement() { g_confined = false; }

}  // namespace Fuzz
}  // namespace Varnelo

extern "C" {
FILE* __wrap_fopen(const char* path, const char* mode) {
    return Varnelo::Fuzz::Refused(path) ? nullptr : __real_fopen(path, mode);
}
int __wrap_unlink(const char* path) {
    return Varnelo::Fuzz::Refused(path) ? -1 : __real_unlink(path);
}
int __wrap_mkdir(const char* path, mode_t mode) {
    return Varnelo::Fuzz::Refused(path) ? -1 : __real_mkdir(path, mode);
}
int __wrap_chdir(const char* path) {
    return Varnelo::Fuzz::Refused(path) ? -1 : __real_chdir(path);
}
}
