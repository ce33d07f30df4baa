// The reducer's kernels one at a time, on every path, over the tables the reducer builds for a
// 24-megapixel photograph: one call is one line's work. The last argument picks the set: 0 the
// one the reducer runs (hand-written loops where they won), 1 the plain loops alone compiled for
// that path's instruction set. These are the figures in src/resizer_kernels.h.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "resizer_kernels.h"

namespace {

using namespace Varnelo;

// The reducer's horizontal tables for srcWidth -> dstWidth, built as it builds them: footprints
// of 256 * srcWidth - 1 split by an exact division, each a window of weights that ends inside
// the line.
struct Tables {
    ReducerFilterTable table;
    std::vector<uint32_t> divisors;

    Tables(int srcWidth, int dstWidth) {
        const uint64_t step = uint64_t(srcWidth) * 256 - 1;
        std::vector<uint32_t> edge;
        for (int x = 0; x <= dstWidth; ++x)
            edge.push_back(static_cast<uint32_t>(x * step / dstWidth));
        int taps = 1;
        for (int x = 0; x < dstWidth; ++x) {
            taps = std::max<int>(taps, edge[x + 1] / 256 - edge[x] / 256 + 1);
        }
        std::vector<int> first;
        std::vector<uint32_t> weights(size_t(dstWidth) * taps, 0);
        for (int x = 0; x < dstWidth; ++x) {
            const int f = edge[x] / 256, l = edge[x + 1] / 256;
            const int window = std::max(0, std::min(f, srcWidth - taps));
            uint32_t* w = &weights[size_t(x) * taps];
            w[f - window] += 256 - edge[x] % 256;
            for (int k = f + 1; k < l; ++k) w[k - window] += 256;
            w[l - window] += edge[x + 1] % 256;
            first.push_back(window);
            divisors.push_back(edge[x + 1] - edge[x]);
        }
        table.Build(taps, first, weights);
    }
};

std::vector<unsigned char> Noise(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<unsigned char> v(n);
    for (unsigned char& c : v) c = static_cast<unsigned char>(rng());
    return v;
}

const ReducerKernels* Kernels(benchmark::State& state, int arg) {
    const auto path = static_cast<ResizerPath>(state.range(arg));
    const ReducerKernels* kernels =
        state.range(arg + 1) == 0 ? ReducerKernelsFor(path) : PlainKernelsFor(path);
    if (kernels == nullptr) state.SkipWithError("this CPU cannot run that path");
    return kernels;
}

// Args: source width, destination width, path, set. Items are source pixels.
void BM_Filter(benchmark::State& state) {
    const int sw = static_cast<int>(state.range(0)), dw = static_cast<int>(state.range(1));
    const ReducerKernels* kernels = Kernels(state, 2);
    if (kernels == nullptr) return;
    const Tables t(sw, dw);
    const int inside = t.table.ColumnsInside(sw);
    const std::vector<unsigned char> line = Noise(3 * size_t(sw) + 64, 1);
    std::vector<uint32_t> sums(3 * size_t(dw) + 1);
    for (auto _ : state) {
        kernels->filter(t.table, line.data(), 0, 0, inside, sums.data());
        benchmark::DoNotOptimize(sums.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * sw);
}

// A line of sums divided by the footprints: float reciprocals below 32 times, the shared shift
// above. Args as for BM_Filter; items are samples.
void BM_Divide(benchmark::State& state) {
    const int sw = static_cast<int>(state.range(0)), dw = static_cast<int>(state.range(1));
    const ReducerKernels* kernels = Kernels(state, 2);
    if (kernels == nullptr) return;
    const Tables t(sw, dw);
    RowDivider divider;
    divider.Build(t.divisors);
    std::vector<uint32_t> sums(3 * size_t(dw));
    std::mt19937 rng(2);
    for (size_t i = 0; i < sums.size(); ++i) sums[i] = rng() % (255 * t.divisors[i / 3] + 1);
    std::vector<unsigned char> out(sums.size());
    for (auto _ : state) {
        divider.Divide(*kernels, sums.data(), out.data(), dw);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * 3 * dw);
}

// Args: destination width, inner rows, path, set. The footprint spans the inner rows and parts
// of the two around them. Items are samples.
void BM_ColumnMeans(benchmark::State& state) {
    const int dw = static_cast<int>(state.range(0)), innerCount = static_cast<int>(state.range(1));
    const ReducerKernels* kernels = Kernels(state, 2);
    if (kernels == nullptr) return;
    const int n = 3 * dw;
    std::vector<std::vector<unsigned char>> rows;
    for (int k = 0; k < innerCount + 2; ++k) rows.push_back(Noise(n, 3 + k));
    std::vector<const unsigned char*> inner;
    for (int k = 1; k <= innerCount; ++k) inner.push_back(rows[k].data());
    const uint32_t w0 = 100, w1 = 139, len = w0 + 256 * innerCount + w1;
    std::vector<unsigned char> out(n);
    for (auto _ : state) {
        kernels->columnMeans(out.data(), rows.front().data(), inner.data(), innerCount,
                             rows.back().data(), w0, w1, Reciprocal(len), n);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * n);
}

// 6000 pixels to 3000 (three taps), to 1600 (the upload size: windows of five taps, two or three inner rows), to 1024
// (windows of seven, five inner rows) and to 160 (39 taps, the shared shift); columns of 240
// (24 inner rows) are the deepest the float column pass takes.
BENCHMARK(BM_Filter)->ArgsProduct({{6000}, {3000, 1600, 1024, 160}, {0, 1, 2}, {0, 1}});
BENCHMARK(BM_Divide)->ArgsProduct({{6000}, {1600, 160}, {0, 1, 2}, {0, 1}});
BENCHMARK(BM_ColumnMeans)
    ->ArgsProduct({{1600}, {2}, {0, 1, 2}, {0, 1}})
    ->ArgsProduct({{1024}, {5}, {0, 1, 2}, {0, 1}})
    ->ArgsProduct({{240}, {24}, {0, 1, 2}, {0, 1}});

}  // namespace
