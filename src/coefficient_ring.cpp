#include "coefficient_ring.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <utility>

// The library's fault codes, and its macros that raise them.
#include <jerror.h>

#include "jpeg_boundary.h"

namespace Varnelo {

namespace {

// A break injected for tests: role * kInjectStride + row + 2 (row -1: the first request), or
// 0 for none.
const int kInjectStride = 1 << 24;
std::atomic<int> g_injected{0};

// Whether `role` at `row` (-1: its first request) is where a break was injected; takes it.
bool Injected(CoefficientRing::Role role, int row) {
    int expected = role * kInjectStride + row + 2;
    return g_injected.load(std::memory_order_relaxed) == expected &&
           g_injected.compare_exchange_strong(expected, 0);
}

JDIMENSION RoundUp(JDIMENSION value, int multiple) {
    const JDIMENSION m = static_cast<JDIMENSION>(multiple);
    return (value + m - 1) / m * m;
}

}  // namespace

CoefficientRing::CoefficientRing(const jpeg_decompress_struct& info)
    : m_imcuRows(static_cast<int>(info.total_iMCU_rows)) {
    size_t blocks = 0;
    for (int ci = 0; ci < info.num_components; ++ci) {
        const jpeg_component_info& comp = info.comp_info[ci];
        Component c;
        c.blocksPerRow = RoundUp(comp.width_in_blocks, comp.h_samp_factor);
        c.rows = RoundUp(comp.height_in_blocks, comp.v_samp_factor);
        c.rowsPerImcu = static_cast<JDIMENSION>(comp.v_samp_factor);
        blocks += static_cast<size_t>(c.blocksPerRow) * c.rowsPerImcu * (kRingRows + 1);
        m_components.push_back(c);
    }
    m_blocks.reset(new JBLOCK[blocks]());
    JBLOCKROW next = m_blocks.get();
    for (Component& c : m_components) {
        c.ring.resize(static_cast<size_t>(c.rowsPerImcu) * kRingRows);
        c.scratch.resize(c.rowsPerImcu);
        for (JBLOCKROW& row : c.ring) row = std::exchange(next, next + c.blocksPerRow);
        for (JBLOCKROW& row : c.scratch) row = std::exchange(next, next + c.blocksPerRow);
    }
}

void CoefficientRing::Attach(jpeg_decompress_struct& info, Role role) {
    Side& side = m_sides[role];
    side.ring = this;
    side.role = role;
    side.requested = 0;
    side.absorbing = role == READER;
    side.next.assign(m_components.size(), 0);
    info.client_data = &side;
    jpeg_memory_mgr& mem = *info.mem;
    mem.request_virt_barray = Request;
    mem.realize_virt_arrays = [](j_common_ptr) {};
    mem.access_virt_barray = Access;
}

void CoefficientRing::StartReading() {
    Side& reader = m_sides[READER];
    reader.absorbing = false;
    std::fill(reader.next.begin(), reader.next.end(), 0);
}

void CoefficientRing::Complete() { m_written.store(m_imcuRows, std::memory_order_release); }

bool CoefficientRing::AllWritten(const jpeg_decompress_struct& info) const {
    return m_sides[WRITER].ring == this && info.total_iMCU_rows > 0 &&
           static_cast<int>(info.total_iMCU_rows) == m_imcuRows &&
           info.input_iMCU_row >= info.total_iMCU_rows;
}

void CoefficientRing::InjectContractBreakForTesting(Role role, int row) {
    g_injected.store(role * kInjectStride + (row < 0 ? -1 : row) + 2);
}

void CoefficientRing::ClearContractBreakForTesting() { g_injected.store(0); }

void CoefficientRing::Fail() { m_failed.store(true, std::memory_order_release); }

void CoefficientRing::BreakContract() {
    m_contractBroken.store(true, std::memory_order_release);
    Fail();
}

void CoefficientRing::Broken(j_common_ptr cinfo, CoefficientRing& ring) {
    ring.BreakContract();
    RaiseContractFault(cinfo);
}

jvirt_barray_ptr CoefficientRing::Request(j_common_ptr cinfo, int, boolean preZero,
                                          JDIMENSION blocksPerRow, JDIMENSION rows,
                                          JDIMENSION rowsPerAccess) {
    Side& side = *static_cast<Side*>(cinfo->client_data);
    CoefficientRing& ring = *side.ring;
    if (side.requested >= ring.m_components.size() || !preZero ||
        (side.requested == 0 && Injected(side.role, -1))) {
        Broken(cinfo, ring);
    }
    Component& c = ring.m_components[side.requested++];
    if (blocksPerRow != c.blocksPerRow || rows != c.rows || rowsPerAccess != c.rowsPerImcu) {
        Broken(cinfo, ring);
    }
    return reinterpret_cast<jvirt_barray_ptr>(&c);
}

JBLOCKARRAY CoefficientRing::Access(j_common_ptr cinfo, jvirt_barray_ptr array, JDIMENSION startRow,
                                    JDIMENSION rows, boolean writable) {
    Side& side = *static_cast<Side*>(cinfo->client_data);
    CoefficientRing& ring = *side.ring;
    if (ring.ContractBroken() || side.requested != ring.m_components.size()) Broken(cinfo, ring);
    // Only the arrays handed out, reached one whole iMCU row after another.
    Component* const first = ring.m_components.data();
    Component* const c = reinterpret_cast<Component*>(array);
    if (c < first || c >= first + ring.m_components.size()) Broken(cinfo, ring);
    JDIMENSION& next = side.next[static_cast<size_t>(c - first)];
    const bool writer = side.role == WRITER;
    if (rows != c->rowsPerImcu || startRow != next * rows || startRow >= c->rows ||
        (writable != FALSE) != (writer || side.absorbing)) {
        Broken(cinfo, ring);
    }
    ++next;
    if (side.absorbing) return c->scratch.data();
    const int row = static_cast<int>(startRow / rows);
    if (Injected(side.role, row)) Broken(cinfo, ring);
    if (writer ? !ring.WriterAt(row) : !ring.ReaderAt(row)) {
        if (ring.ContractBroken()) RaiseContractFault(cinfo);
        ERREXIT(cinfo, JERR_BAD_VIRTUAL_ACCESS);
    }
    return &c->ring[static_cast<size_t>(row % kRingRows) * rows];
}

bool CoefficientRing::WriterAt(int row) {
    if (row > m_written.load(std::memory_order_relaxed)) {
        m_written.store(row, std::memory_order_release);
    }
    while (row - m_released.load(std::memory_order_acquire) >= kRingRows) {
        if (!Wait()) return false;
    }
    return !m_failed.load(std::memory_order_acquire);
}

bool CoefficientRing::ReaderAt(int row) {
    int released = m_released.load(std::memory_order_relaxed);
    if (row > released) {
        for (; released < row; ++released) {
            for (Component& c : m_components) {
                for (JDIMENSION k = 0; k < c.rowsPerImcu; ++k) {
                    JBLOCKROW blocks =
                        c.ring[static_cast<size_t>(released % kRingRows) * c.rowsPerImcu + k];
                    std::fill_n(&blocks[0][0], static_cast<size_t>(c.blocksPerRow) * DCTSIZE2,
                                JCOEF(0));
                }
            }
        }
        m_released.store(row, std::memory_order_release);
    }
    // A row once written stays good even if the writer faults after it. The writer completes
    // its rows before it gives up, so a reader that finds it given up looks at the rows again:
    // otherwise a fault after the last row could fail the reader at that row, or not, by timing.
    while (m_written.load(std::memory_order_acquire) <= row) {
        if (!Wait()) return m_written.load(std::memory_order_acquire) > row;
    }
    return true;
}

// The waiting side polls rather than be woken, which on virtual machines costs the waking side
// about as much as decoding a few lines; the period is short beside a row of a large photo and
// still keeps the stages of a small one in step.
bool CoefficientRing::Wait() {
    if (m_failed.load(std::memory_order_acquire)) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(50));
    return true;
}

}  // namespace Varnelo
