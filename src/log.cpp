#include "log.h"

#include <iostream>

namespace Varnelo {

// Defined in this order so that the logger's mutex outlives the logger.
Mutex log_mutex;
Logger log(log_mutex);

Logger::Logger(Mutex& lock) : m_lock(lock), m_level(0), m_toCerr(false), m_toFile(false) {}

Logger::~Logger() { Close(); }

void Logger::SetLevel(int level) { m_level = level; }

void Logger::EnableFile() { m_toFile = true; }

void Logger::EnableCerr() { m_toCerr = true; }

void Logger::SetFilename(const std::string& path) { m_fileName = path; }

void Logger::Put(const std::string& text, int level) {
    if (!m_toCerr && !m_toFile) return;
    if (m_level == 0) return;
    AutoLock lock(m_lock);
    if (m_level <= level) return;
    if (m_toCerr) {
        std::cerr << text << '\n';
        std::cerr.flush();
    }
    if (m_toFile) {
        if (!m_file.is_open()) {
            m_file.clear();
            m_file.open(m_fileName, std::ios::out | std::ios::trunc);
        }
        if (m_file.is_open()) {
            m_file << text << '\n';
            m_file.flush();
        }
    }
}

void Logger::Close() {
    AutoLock lock(m_lock);
    if (m_toCerr) std::cerr.flush();
    if (m_toFile && m_file.is_open()) {
        m_file.flush();
        m_file.close();
    }
}

}  // namespace Varnelo
