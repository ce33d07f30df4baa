#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Varnelo {

// A child process started with pipes on its standard input and output, as the client
// starts the service. Standard error goes to a file that Stderr() reads back.
// The destructor kills a child that is still running and reaps it.
class ServiceProcess {
  public:
    explicit ServiceProcess(const std::string& binary, const std::vector<std::string>& args = {});
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    pid_t pid() const { return m_pid; }

    // Writes all of `text` to the child's standard input.
    void Send(const std::string& text);
    void CloseInput();

    // Reads standard output until `count` responses (each ended by a line "*") have come,
    // the output ends, or `timeoutMs` passes. Returns the responses read so far, each
    // without its separator.
    std::vector<std::string> ReadResponses(std::size_t count, int timeoutMs = 20000);
    // Reads standard output until it ends or `timeoutMs` passes; returns everything
    // not yet returned by ReadResponses.
    std::string ReadRest(int timeoutMs = 20000);

    // Waits for the child to end: its exit status, 128 + signal, or -1 after `timeoutMs`.
    int Wait(int timeoutMs = 20000);
    std::string Stderr() const;

  private:
    // Reads what is available within `timeoutMs`; false once the output has ended.
    bool ReadSome(int timeoutMs);

    pid_t m_pid;
    int m_stdin;
    int m_stdout;
    bool m_exited;
    int m_status;
    std::string m_output;
    std::string m_stderrPath;
};

// A response split into its lines, for matching members in order.
std::vector<std::string> Lines(const std::string& text);

}  // namespace Varnelo
