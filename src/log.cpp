#include "log.h"

#include <iostream>

namespace Varnelo {

// Defined in this order so that the logger's mutex outlives the logger.
Mutex log_mutex;
Logger log(log_mutex);

namespace {

// The divert of the calling thread, if any.
thread_local LogDivert* t_divert = nullptr;

}  // namespace

LogDivert::LogDivert() : m_outer(t_divert) { t_divert = this; }

LogDivert::~LogDivert() { t_divert = m_outer; }

std::string LogDivert::Take() {
    std::string lines;
    lines.swap(m_lines);
    return lines;
}

Logger::Logger(Mutex& lock) : m_lock(lock), m_level(0), m_toCerr(false), m_toFile(false) {}

Logger::~Logger() { Close(); }

void Logger::SetLevel(int level) { m_level = level; }

void Logger::EnableFile() { m_toFile = true; }

void Logger::EnableCerr() { m_toCerr = true; }

void Logger::SetFilename(const std::string& path) { m_fileName = path; }

void Logger::Put(const std::string& text, int level) {
    if (!m_toCerr && !m_toFile) return;
    if (m_level == 0) return;
    if (t_divert != nullptr) {
        if (m_level > level) t_divert->m_lines.append(text).push_back('\n');
        return;
    }
    AutoLock lock(m_lock);
    if (m_level <= level) return;
    Write(text + '\n');
}

void Logger::PutLines(const std::string& lines) {
    if (lines.empty() || (!m_toCerr && !m_toFile)) return;
    AutoLock lock(m_lock);
    Write(lines);
}

void Logger::Write(const std::string& lines) {
    if (m_toCerr) {
        std::cerr << lines;
        std::cerr.flush();
    }
    if (m_toFile) {
        if (!m_file.is_open()) {
            m_file.clear();
            m_file.open(m_fileName, std::ios::out | std::ios::trunc);
        }
        if (m_file.is_open()) {
            m_file << lines;
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
