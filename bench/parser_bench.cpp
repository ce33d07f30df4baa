// The request parser's memory: the stack it takes per level of nesting, which the parse threads'
// stacks are sized by (XMLRPC::kParserStackBytesPerLevel), and what stays resident once deep
// requests have been refused. Each runs once; a figure past its bound fails the benchmark.

#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "xmlrpc.h"

namespace {

using Varnelo::XMLRPC;

std::string Repeat(const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

// The deepest stack `body` reaches: it runs on a thread whose stack is filled with a pattern
// beforehand, and the bytes no longer holding the pattern are counted.
std::size_t StackHighWater(const std::function<void()>& body) {
    const std::size_t bytes = 64u << 20;
    void* stack = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (stack == MAP_FAILED) return 0;
    unsigned char* const bottom = static_cast<unsigned char*>(stack);
    std::fill(bottom, bottom + bytes, 0xA5);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, stack, bytes);
    pthread_t thread;
    const auto run = [](void* call) -> void* {
        (*static_cast<const std::function<void()>*>(call))();
        return nullptr;
    };
    if (pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&body)) == 0) {
        pthread_join(thread, nullptr);
    }
    pthread_attr_destroy(&attributes);
    std::size_t untouched = 0;
    while (untouched < bytes && bottom[untouched] == 0xA5) ++untouched;
    munmap(stack, bytes);
    return bytes - untouched;
}

// The parser's stack per level in every shape that nests: the slope between two depths, for
// parsing and destroying the tree.
void BM_ParserStackPerLevel(benchmark::State& state) {
    const std::vector<std::pair<std::string, std::string>> shapes = {
        {"<a>", "</a>"},
        {"<element attribute=\"value\" other='1'>", "</element>"},
        {"<a>", ""},                  // never closed
        {"<a>text<!--c--><b/>", ""},  // siblings at every level
        {"<a>&#</a>#1;", ""},         // an end tag inside a character reference
    };
    std::size_t worst = 0;
    for (auto _ : state) {
        for (const auto& [open, close] : shapes) {
            std::size_t used[2];
            const int depths[2] = {1000, 5000};
            for (int k = 0; k < 2; ++k) {
                const std::string text = Repeat(open, depths[k]) + Repeat(close, depths[k]);
                used[k] = StackHighWater([&text] {
                    TiXmlDocument document;
                    document.Parse(text.c_str());
                });
            }
            worst = std::max(worst, (used[1] - used[0]) / (depths[1] - depths[0]));
        }
    }
    state.counters["stack_bytes_per_level"] = static_cast<double>(worst);
    if (worst > XMLRPC::kParserStackBytesPerLevel) {
        state.SkipWithError("the parser needs more stack per level than the parse threads get");
    }
}

// The resident memory of this process, in KiB.
long ResidentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "VmRSS:") == 0) return std::stol(line.substr(6));
    }
    return -1;
}

// A hundred deep requests parsed on threads of their own and refused: neither the threads'
// stacks nor the trees stay resident. (Sanitizers keep freed memory on purpose.)
void BM_RefusedDeepRequestsResidentGrowth(benchmark::State& state) {
    const std::vector<std::string> deep = {
        Repeat("<a>&#</a>#1;", 3000),
        Repeat("<a x='1'>", 2500),
        Repeat("<a>", 2000) + "<b/>" + Repeat("</a>", 2000),
    };
    long growth = 0;
    for (auto _ : state) {
        XMLRPC().Parse(deep[0]);  // the first thread and tree set up what the allocator keeps
        const long before = ResidentKiB();
        for (int i = 0; i < 100; ++i) {
            XMLRPC rpc;
            rpc.Parse(deep[i % deep.size()]);
            if (!rpc.Refused()) state.SkipWithError("a deep request was not refused");
        }
        growth = ResidentKiB() - before;
    }
    state.counters["resident_kib_growth"] = static_cast<double>(growth);
    if (growth >= 4 * 1024) state.SkipWithError("refused requests left memory resident");
}

BENCHMARK(BM_ParserStackPerLevel)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RefusedDeepRequestsResidentGrowth)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
