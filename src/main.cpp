// Entry point: reads the switches, starts the server in standard-input mode, waits for the
// listener to end and shuts everything down in order.

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fsutils.h"
#include "log.h"
#include "server.h"
#include "thread.h"

using Varnelo::log;

static std::string progname;
bool use_stdio = true;

[[noreturn]] static void usage() {
    std::fprintf(stderr, "usage: %s [switches]\n", progname.c_str());
    std::fprintf(stderr, "Switches:\n");
    std::fprintf(stderr, "  -l    set debug level\n");
    std::fprintf(stderr, "  -h    print this help\n");
    std::exit(1);
}

static int parse_switches(int argc, char** argv) {
    static const char kUnknown[] = "error in switches ";
    int last = 1;
    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (arg == nullptr || arg[0] != '-' || std::strlen(arg) != 2) continue;
        switch (arg[1]) {
            case 'h':
                usage();
            case 'l':
                if (i < argc - 1 && argv[i + 1] != nullptr) {
                    ++i;
                    log.SetLevel(std::atoi(argv[i]));
                    log.Put(std::string("Debug level=") + argv[i], 8);
                    last = i;
                }
                break;
            default: {
                // The message is the literal with its first i characters cut off; this odd
                // text is what the log has always shown, so it is kept.
                const std::size_t skip = static_cast<std::size_t>(i);
                log.Put(skip < sizeof(kUnknown) - 1 ? kUnknown + skip : "", 8);
                last = i;
                break;
            }
        }
    }
    return last;
}

// Runs the executable at `path` with no arguments and waits for it: its exit status, or -1.
// Kept as a utility; the service does not call it.
[[maybe_unused]] static int my_system(const char* path) {
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        char* const argv[] = {nullptr};
        execv(path, argv);
        std::exit(-1);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) < 0) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int main(int argc, char** argv) {
    // A client that closes its end of the pipe must not kill the service mid-write.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        progname = argc > 0 && argv[0] != nullptr ? argv[0] : "";
        log.SetLevel(0);
        const std::string logPath = Varnelo::DirPlusFile(Varnelo::GetFilePath(progname), "log");
        log.SetFilename(logPath);
        // Logged before the file target is on, so this line never reaches the file.
        log.Put("Log filepath: " + logPath, 10);
        log.EnableFile();
        parse_switches(argc, argv);
        log.Put("Num of physical cores=" + Varnelo::ToString(Varnelo::GetNumOfCores()), 8);
        log.Put("Starting client application...", 4);
        log.Put("Starting the XML-RPC server...", 2);

        Varnelo::CServer* server = Varnelo::CServer::Instance();
        server->SetUseStdio(use_stdio);
        const unsigned int started = static_cast<unsigned int>(server->Start());
        switch (started) {
            case 0:
                break;
            case 2:
                log.Put("Start server: create thread", 0);
                std::exit(1);
            case 4:
                log.Put("Start server: create socket", 0);
                std::exit(1);
            case 5:
                log.Put("Start server: accept socket", 0);
                std::exit(1);
            case 7:
                // Deliberately not fatal.
                log.Put("Start server: bind socket", 0);
                break;
            default:
                log.Put("Start server: unexpected error", 0);
                std::exit(1);
        }
        log.Put("Starting the XML-RPC server is ok", 2);
        if (use_stdio) log.Put("working with stdin/stdout", 5);

        log.Put("CServer::Join", 6);
        server->Join();
        log.Put("CServer::Stop", 6);
        server->Stop();
        log.Put("CServer::Delete", 6);
        Varnelo::CServer::Delete();
        log.Put("\nBye.\n", 8);
        log.Close();
    } catch (...) {
        log.Put("Unexpected exception", 4);
        std::exit(1);
    }
    std::exit(0);
}
