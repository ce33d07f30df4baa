#include "installinfo.h"

namespace Varnelo {

bool InstallInfo::GetPicasaFolderLocation(std::string&) { return false; }

}  // namespace Varnelo
