#include "support/log_capture.h"

#include <algorithm>

#include "log.h"
#include "support/service_process.h"

namespace Varnelo {

LogCapture::LogCapture(int level) {
    log.Close();
    log.SetFilename(m_dir.Path("log"));
    log.EnableFile();
    log.SetLevel(level);
}

LogCapture::~LogCapture() {
    log.SetLevel(0);
    log.Close();
}

std::string LogCapture::Text() const { return ReadFileBytes(m_dir.Path("log")); }

std::vector<std::string> LogCapture::Lines() const { return Varnelo::Lines(Text()); }

int LogCapture::Count(const std::string& line) const {
    const std::vector<std::string> lines = Lines();
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

}  // namespace Varnelo
