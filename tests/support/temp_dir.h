#pragma once

// Files for tests: a private temporary folder, whole-file reads, and a capture of the log.

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "log.h"

namespace Varnelo {

// A fresh folder under the system's temporary directory, removed with its contents when the
// object goes away.
class TempDir {
  public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "varnelo-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string Path(const std::string& name) const { return m_path + "/" + name; }
    // Writes `bytes` to the named file inside the folder; returns its path.
    std::string Write(const std::string& name, const std::string& bytes) const {
        std::ofstream(Path(name), std::ios::binary) << bytes;
        return Path(name);
    }

  private:
    std::string m_path;
};

// The whole content of a file; empty when it cannot be read.
inline std::string ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Points the global logger at a private file with the given threshold for the lifetime of the
// object, then back to threshold 0. GoogleTest runs one test at a time, so captures never mix.
class LogCapture {
  public:
    explicit LogCapture(int level) {
        log.Close();
        log.SetFilename(m_dir.Path("log"));
        log.EnableFile();
        log.SetLevel(level);
    }
    ~LogCapture() {
        log.SetLevel(0);
        log.Close();
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string Text() const { return ReadFileBytes(m_dir.Path("log")); }
    // How many lines equal `line` exactly.
    int Count(const std::string& line) const {
        const std::string text = "\n" + Text();
        int count = 0;
        for (std::size_t at = 0; (at = text.find("\n" + line + "\n", at)) != std::string::npos;) {
            ++count;
            at += line.size() + 1;
        }
        return count;
    }

  private:
    TempDir m_dir;
};

// What this process writes on its standard error (the JPEG library's messages among it) for the
// lifetime of the object, kept in a private file instead.
class StderrCapture {
  public:
    StderrCapture() : m_saved(dup(2)) {
        std::fflush(stderr);
        std::FILE* file = std::fopen(m_dir.Path("stderr").c_str(), "w");
        dup2(fileno(file), 2);
        std::fclose(file);
    }
    ~StderrCapture() { Restore(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    // Ends the capture and returns what was written.
    std::string Text() {
        Restore();
        return ReadFileBytes(m_dir.Path("stderr"));
    }

  private:
    void Restore() {
        if (m_saved < 0) return;
        std::fflush(stderr);
        dup2(m_saved, 2);
        close(m_saved);
        m_saved = -1;
    }
    TempDir m_dir;
    int m_saved;
};

}  // namespace Varnelo
