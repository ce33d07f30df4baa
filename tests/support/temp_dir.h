#pragma once

#include <string>

namespace Varnelo {

// A fresh folder under the system's temporary directory, removed with its contents
// when the object goes away.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string Path(const std::string& name) const { return m_path + "/" + name; }
    // Writes `bytes` to the named file inside the folder; returns its path.
    std::string Write(const std::string& name, const std::string& bytes) const;

  private:
    std::string m_path;
};

// The whole content of a file; empty when it cannot be read.
std::string ReadFileBytes(const std::string& path);

}  // namespace Varnelo
