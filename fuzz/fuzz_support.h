#pragma once

// What every fuzz target shares: running one input on a thread with a small stack, a scratch
// folder that holds every file an input may touch, and the replay of saved inputs.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>

namespace Varnelo {
namespace Fuzz {

// An eighth of the 8 MiB stack a service thread gets, so that recursion which grows with the
// input shows up long before it could exhaust a service thread.
const std::size_t kStackBytes = 1u << 20;

// Enough for any parse the service admits, many times over.
const std::size_t kLargeStackBytes = 64u << 20;

// Runs `body` on a new thread with a stack of `bytes` and waits for it.
void RunOnStack(std::size_t bytes, const std::function<void()>& body);
// Runs `body` on a new thread with a kStackBytes stack and waits for it.
void RunOnSmallStack(const std::function<void()>& body);

// A fresh folder under the system's temporary folder that becomes the current directory. While
// a Confinement exists, every fopen, unlink, mkdir and chdir of the service's code outside this
// folder fails with EACCES: paths must be relative without "..", or absolute below the folder.
// One per process; not thread-safe.
class Scratch {
  public:
    static Scratch& Get();

    const std::string& Path() const { return m_path; }
    // Empties the folder and writes `files` into it, each as name and content.
    void Reset(const std::initializer_list<std::pair<std::string, std::string>>& files);

  private:
    Scratch();
    ~Scratch();
    std::string m_path;
};

class Confinement {
  public:
    Confinement();
    ~Confinement();
    Confinement(const Confinement&) = delete;
    Confinement& operator=(const Confinement&) = delete;
};

}  // namespace Fuzz
}  // namespace Varnelo

// The libFuzzer entry point each target defines.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
