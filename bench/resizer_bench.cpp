// Throughput of the resamplers on a photograph-sized stream, driven through PumpLines exactly as
// the conversion drives them; decoding and encoding are left out. Items are source pixels.

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "resizer.h"

namespace {

using Varnelo::CPixel;

// A handful of noise lines, handed out in turn so no two neighbouring lines are equal.
class LineSource {
  public:
    explicit LineSource(int width) : m_width(width) {
        std::mt19937 rng(1);
        for (auto& line : m_lines) {
            line.resize(width);
            for (CPixel& p : line) p = CPixel(rng(), rng(), rng());
        }
    }
    void Fill(CPixel* row) {
        std::memcpy(row, m_lines[m_next].data(), sizeof(CPixel) * m_width);
        m_next = (m_next + 1) % kLines;
    }

  private:
    static const int kLines = 7;
    int m_width;
    int m_next = 0;
    std::vector<CPixel> m_lines[kLines];
};

void ResizeImage(benchmark::State& state, int type) {
    const int sw = static_cast<int>(state.range(0)), sh = static_cast<int>(state.range(1));
    const int dw = static_cast<int>(state.range(2)), dh = static_cast<int>(state.range(3));
    const auto path = static_cast<Varnelo::ResizerPath>(state.range(4));
    if (!Varnelo::ResizerPathAvailable(path)) {
        state.SkipWithError("this CPU cannot run that path");
        return;
    }
    LineSource source(sw);
    std::vector<CPixel> srcRow(sw + 2), black(dw);
    for (auto _ : state) {
        std::unique_ptr<Varnelo::CResizer> resizer =
            Varnelo::CreateResizer(type, sw, sh, dw, dh, path);
        unsigned checksum = 0;
        Varnelo::PumpLines(
            *resizer, sw, sh, dh, srcRow.data(), black.data(),
            [&](CPixel* row) {
                source.Fill(row);
                return true;
            },
            [&](const CPixel* row) {
                checksum += row[0].g;
                return true;
            },
            [] {});
        benchmark::DoNotOptimize(checksum);
    }
    state.SetItemsProcessed(state.iterations() * int64_t(sw) * sh);
}

void BM_Reduces(benchmark::State& state) { ResizeImage(state, Varnelo::RESIZER_REDUCES); }
void BM_Tidy(benchmark::State& state) { ResizeImage(state, Varnelo::RESIZER_TIDY); }
void BM_Dirty(benchmark::State& state) { ResizeImage(state, Varnelo::RESIZER_DIRTY); }

// A 24-megapixel photograph to the usual upload size, to half its size and to a thumbnail; the
// last argument is the ResizerPath (0 plain, 1 SSE2, 2 AVX2), which only the reducer uses.
BENCHMARK(BM_Reduces)
    ->ArgsProduct({{6000}, {4000}, {1600}, {1067}, {0, 1, 2}})
    ->ArgsProduct({{6000}, {4000}, {3000}, {2000}, {0, 1, 2}})
    ->ArgsProduct({{6000}, {4000}, {240}, {160}, {0, 1, 2}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Tidy)->Args({6000, 4000, 1600, 1067, 0})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Dirty)->Args({6000, 4000, 1600, 1067, 0})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
