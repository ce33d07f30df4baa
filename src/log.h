#pragma once

#include <fstream>
#include <string>

#include "mutex.h"

namespace Varnelo {

// The process-wide trace. Put(text, level) writes "text\n" when the threshold set with
// SetLevel is greater than the line's level; threshold 0 writes nothing at all.
// Lines go to a file (opened, and truncated, at the first line written) and, when enabled,
// to standard error; never to standard output, which carries protocol responses.
//
// Threads: Put and Close may be called from any thread; the shared mutex keeps every line
// whole. The setters take no lock and are meant for the main thread before workers start.
class Logger {
  public:
    explicit Logger(Mutex& lock);
    virtual ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    void SetLevel(int level);
    void EnableFile();
    void EnableCerr();
    void SetFilename(const std::string& path);

    void Put(const std::string& text, int level);
    // Writes `lines`, each ended by a newline and already chosen by Put's level test (a
    // LogDivert's), as one block that no other line comes between.
    void PutLines(const std::string& lines);
    // Flushes and closes the file; the targets stay on, so a later Put reopens it afresh.
    void Close();

  private:
    // Writes `lines` to the targets. REQUIRES: m_lock held.
    void Write(const std::string& lines);

    Mutex& m_lock;
    int m_level;
    bool m_toCerr;
    bool m_toFile;
    std::string m_fileName;
    std::fstream m_file;
};

// While a LogDivert lives on a thread, the lines that thread puts and the level lets through are
// kept in the divert instead of written, so that they can be written later as one block
// (Logger::PutLines). Diverts nest: an inner one keeps the lines until it goes.
// Threads: made, used and destroyed on one thread.
class LogDivert {
  public:
    LogDivert();
    ~LogDivert();
    LogDivert(const LogDivert&) = delete;
    LogDivert& operator=(const LogDivert&) = delete;

    // The lines kept so far, each ended by a newline; the divert is left empty.
    std::string Take();

  private:
    friend class Logger;
    std::string m_lines;
    LogDivert* m_outer;
};

extern Mutex log_mutex;
extern Logger log;

}  // namespace Varnelo
