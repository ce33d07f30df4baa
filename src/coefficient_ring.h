#pragma once

// The coefficient rows handed from one decoder that entropy-decodes a photo (the writer) to
// another that reconstructs its lines (the reader), a few iMCU rows deep.
//
// Each decoder's memory manager asks the ring for the whole-image block arrays (one per
// component) that its coefficient controller would otherwise keep, and gets the ring instead:
// access to iMCU row r of the writer waits until the reader has left row r - kRingRows, and of
// the reader until the writer has moved past row r. So neither decoder holds more than a few
// rows of coefficients, whatever the photo's size.
//
// What the ring relies on in the library (libjpeg-turbo 2.1's single-scan coefficient
// controller), each checked where it can be:
// - Requests: one block array per component, in component order, pre-zeroed, each
//   round_up(width_in_blocks, h_samp) blocks wide and round_up(height_in_blocks, v_samp) rows
//   high, accessed v_samp rows at a time.
// - Accesses: each side reaches the rows of each component in order, one iMCU row at a time
//   (v_samp block rows at a multiple of v_samp), each once: the writer writable, the reader
//   read-only. Rows only go forward.
// - Zeroed blocks: the entropy decoder writes only the coefficients that are not zero into
//   blocks it expects zeroed, so the reader zeroes every row it leaves before the writer reuses
//   it.
// - The reader first takes in a scan of its own that holds only an end-of-image marker, writing
//   every row of it (into scratch rows that are thrown away), and only then reads.
// A request or access outside this contract raises a contract fault (RaiseContractFault) on the
// side that made it, and every later access of either side raises one too, so that the owner
// can decode the photo again on one thread. A side that gives up for any other reason (bad
// data, a stop) makes the other side fault as the library faults (ERREXIT).
//
// Ownership: the ring owns the blocks; the decoders hold only pointers into them, valid while
// the ring lives.
// Threads: one writer thread and one reader thread, each inside its own decoder's calls;
// Complete, Fail and the queries may come from either.

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

#include <cstdio>

namespace Varnelo {

class CoefficientRing {
  public:
    enum Role { WRITER, READER };

    // iMCU rows in the ring: enough that the entropy decoder never waits for the
    // reconstruction, which takes less than half its time.
    static constexpr int kRingRows = 4;

    // Shaped after the header `info` has read; throws std::bad_alloc.
    explicit CoefficientRing(const jpeg_decompress_struct& info);
    CoefficientRing(const CoefficientRing&) = delete;
    CoefficientRing& operator=(const CoefficientRing&) = delete;

    // Makes the ring the block store of `info`'s memory manager, in `role`. The reader starts
    // out absorbing its own scan.
    // REQUIRES: each role attached once; `info` outlives its use of the ring.
    void Attach(jpeg_decompress_struct& info, Role role);
    // The reader has taken in its scan and now reads the writer's rows.
    void StartReading();
    // The writer has written every row.
    void Complete();
    // Whether the decoder `info`, the writer, has decoded every row: a fault it meets after
    // them, in what follows the scan, leaves the rows good.
    bool AllWritten(const jpeg_decompress_struct& info) const;
    // A side gives up: the other one faults at its next wait.
    void Fail();
    // The library used the ring outside its contract (on either side), or the owner says so.
    void BreakContract();
    bool ContractBroken() const { return m_contractBroken.load(std::memory_order_acquire); }

    // Makes the `role` side of the next ring that reaches the point break the contract there, as
    // a library that used the ring otherwise would: at its first request (row < 0) or at its
    // access of iMCU row `row` once absorbing is over. For tests; one break per call.
    static void InjectContractBreakForTesting(Role role, int row);
    static void ClearContractBreakForTesting();

  private:
    struct Component {
        JDIMENSION blocksPerRow = 0, rows = 0, rowsPerImcu = 0;
        std::vector<JBLOCKROW> ring;     // kRingRows iMCU rows of rowsPerImcu block rows
        std::vector<JBLOCKROW> scratch;  // one iMCU row, for the reader's own scan
    };
    struct Side {
        CoefficientRing* ring = nullptr;
        Role role = WRITER;
        size_t requested = 0;  // arrays asked for so far, one per component in order
        bool absorbing = false;
        std::vector<JDIMENSION> next;  // per component, the iMCU row its next access must reach
    };

    static jvirt_barray_ptr Request(j_common_ptr cinfo, int pool, boolean preZero,
                                    JDIMENSION blocksPerRow, JDIMENSION rows,
                                    JDIMENSION rowsPerAccess);
    static JBLOCKARRAY Access(j_common_ptr cinfo, jvirt_barray_ptr array, JDIMENSION startRow,
                              JDIMENSION rows, boolean writable);
    [[noreturn]] static void Broken(j_common_ptr cinfo, CoefficientRing& ring);

    // The writer is at `row`, so every row before it is written; waits until the row is free.
    bool WriterAt(int row);
    // The reader is at `row`, so it is done with every row before it: those are zeroed for the
    // writer's next use of them. Waits until `row` is written.
    bool ReaderAt(int row);
    // Polls; false once a side has given up.
    bool Wait();

    const int m_imcuRows;
    std::vector<Component> m_components;
    std::unique_ptr<JBLOCK[]> m_blocks;
    Side m_sides[2];
    std::atomic<int> m_written{0};   // iMCU rows the writer has finished
    std::atomic<int> m_released{0};  // iMCU rows the reader has finished, zeroed again
    std::atomic<bool> m_failed{false};
    std::atomic<bool> m_contractBroken{false};
};

}  // namespace Varnelo
