#pragma once

#include <string>

namespace Varnelo {

// Tells whether the desktop photo organiser Picasa is installed and where its folder is.
// It cannot be installed on this platform, so the answer is always "no".
class InstallInfo {
  public:
    InstallInfo() {}

    // True when installed, with the folder written to `folder`; otherwise false and
    // `folder` is left untouched.
    bool GetPicasaFolderLocation(std::string& folder);
};

}  // namespace Varnelo
