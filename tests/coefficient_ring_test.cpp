#include "coefficient_ring.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "jpeg_boundary.h"
#include "support/jpeg_fixtures.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

// Two decoders on one 4:2:0 photo of 8 iMCU rows (twice the ring's depth), a ring between them
// as a coefficient controller would use it: the writer's and the reader's block arrays asked for,
// and accesses made the way the library makes them, through guarded calls.
class RingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_file.reset(std::fopen(m_tmp.Write("p.jpg", EncodeJpeg({64, 128})).c_str(), "rb"));
        for (JpegReader* side : {&m_writer, &m_reader}) {
            int header = 0;
            ASSERT_TRUE(side->CreateBuffered(JCOPYOPT_NONE, fileno(m_file.get())));
            ASSERT_TRUE(side->ReadHeader(header));
        }
        m_ring = std::make_unique<CoefficientRing>(m_writer.Info());
        m_ring->Attach(m_writer.Info(), CoefficientRing::WRITER);
        m_ring->Attach(m_reader.Info(), CoefficientRing::READER);
    }

    // Asks for one array per component, shaped as the library's controller asks.
    static bool RequestAll(JpegReader& side, std::vector<jvirt_barray_ptr>& arrays,
                           JDIMENSION extraWidth = 0) {
        jpeg_decompress_struct& info = side.Info();
        return Guarded(side.Errors(), [&] {
            for (int ci = 0; ci < info.num_components; ++ci) {
                const jpeg_component_info& c = info.comp_info[ci];
                const JDIMENSION h = c.h_samp_factor, v = c.v_samp_factor;
                arrays.push_back(info.mem->request_virt_barray(
                    reinterpret_cast<j_common_ptr>(&info), JPOOL_IMAGE, TRUE,
                    (c.width_in_blocks + h - 1) / h * h + extraWidth,
                    (c.height_in_blocks + v - 1) / v * v, v));
            }
        });
    }

    // Component ci's blocks of iMCU row `row`, or null when the side faulted.
    static JBLOCKARRAY Access(JpegReader& side, const std::vector<jvirt_barray_ptr>& arrays, int ci,
                              int row, bool writable) {
        jpeg_decompress_struct& info = side.Info();
        const JDIMENSION v = info.comp_info[ci].v_samp_factor;
        JBLOCKARRAY blocks = nullptr;
        const bool ok = Guarded(side.Errors(), [&] {
            blocks = info.mem->access_virt_barray(reinterpret_cast<j_common_ptr>(&info), arrays[ci],
                                                  row * v, v, writable);
        });
        return ok ? blocks : nullptr;
    }
    JBLOCKARRAY Write(int ci, int row) { return Access(m_writer, m_writerArrays, ci, row, true); }
    JBLOCKARRAY Read(int ci, int row) { return Access(m_reader, m_readerArrays, ci, row, false); }

    // Both sides ask for their arrays, and the reader takes in its own scan, as it does before
    // reading.
    void Absorb() {
        ASSERT_TRUE(RequestAll(m_writer, m_writerArrays));
        ASSERT_TRUE(RequestAll(m_reader, m_readerArrays));
        for (int row = 0; row < Rows(); ++row) {
            for (int ci = 0; ci < 3; ++ci) {
                ASSERT_NE(Access(m_reader, m_readerArrays, ci, row, true), nullptr);
            }
        }
        m_ring->StartReading();
    }
    int Rows() { return static_cast<int>(m_writer.Info().total_iMCU_rows); }
    // Writes row `row` of every component: its first coefficient says which row it is.
    void WriteRow(int row) {
        for (int ci = 0; ci < 3; ++ci) {
            JBLOCKARRAY blocks = Write(ci, row);
            ASSERT_NE(blocks, nullptr);
            blocks[0][0][0] = static_cast<JCOEF>(row + 1);
        }
    }

    TempDir m_tmp;
    File m_file;
    JpegReader m_writer, m_reader;
    std::unique_ptr<CoefficientRing> m_ring;
    std::vector<jvirt_barray_ptr> m_writerArrays, m_readerArrays;
};

// The writer runs ahead, waiting whenever it is a ring's depth in front; every row reaches the
// reader with what was written and zeros elsewhere, though each slot is reused.
TEST_F(RingTest, HandsEveryRowOverInOrderAndZeroesEachSlotForReuse) {
    ASSERT_EQ(Rows(), 8);
    Absorb();
    std::thread writer([&] {
        for (int row = 0; row < Rows(); ++row) WriteRow(row);
        m_ring->Complete();
    });
    for (int row = 0; row < Rows(); ++row) {
        for (int ci = 0; ci < 3; ++ci) {
            JBLOCKARRAY blocks = Read(ci, row);
            ASSERT_NE(blocks, nullptr);
            const int v = m_reader.Info().comp_info[ci].v_samp_factor;
            const int width = static_cast<int>(m_reader.Info().comp_info[ci].width_in_blocks);
            for (int r = 0; r < v; ++r) {
                for (int b = 0; b < width; ++b) {
                    for (int k = 0; k < DCTSIZE2; ++k) {
                        const JCOEF expected = r == 0 && b == 0 && k == 0 ? row + 1 : 0;
                        ASSERT_EQ(blocks[r][b][k], expected) << "row " << row << " ci " << ci;
                    }
                }
            }
        }
    }
    writer.join();
    EXPECT_FALSE(m_ring->ContractBroken());
}

// Accesses the controller never makes, after the reader has read row 1 of component 0 (rows 0
// to 2 written): each breaks the contract on the side that made it, and then on the other side
// too, so that neither goes on with rows that may be wrong.
struct StrayAccess {
    const char* name;
    int row;
    bool writable;
};

class RingStrayAccessTest : public RingTest, public ::testing::WithParamInterface<StrayAccess> {};

TEST_P(RingStrayAccessTest, BreaksTheContractForBothSides) {
    Absorb();
    for (int row = 0; row < 3; ++row) WriteRow(row);
    ASSERT_NE(Read(0, 0), nullptr);
    ASSERT_NE(Read(0, 1), nullptr);
    EXPECT_EQ(Access(m_reader, m_readerArrays, 0, GetParam().row, GetParam().writable), nullptr);
    EXPECT_TRUE(m_reader.Errors().contractFault);
    EXPECT_TRUE(m_ring->ContractBroken());
    EXPECT_EQ(Write(0, 3), nullptr);
    EXPECT_TRUE(m_writer.Errors().contractFault);
}

INSTANTIATE_TEST_SUITE_P(Accesses, RingStrayAccessTest,
                         ::testing::Values(StrayAccess{"RowSkipped", 3, false},
                                           StrayAccess{"ReleasedRowAgain", 0, false},
                                           StrayAccess{"SameRowTwice", 1, false},
                                           StrayAccess{"WritableWhenReading", 2, true}),
                         [](const auto& p) { return std::string(p.param.name); });

TEST_F(RingTest, ArraysOfAnotherShapeBreakTheContract) {
    EXPECT_FALSE(RequestAll(m_reader, m_readerArrays, 1));
    EXPECT_TRUE(m_reader.Errors().contractFault);
    EXPECT_TRUE(m_ring->ContractBroken());
}

// A writer that gives up on bad data makes the reader fault as the library faults, not as a
// broken contract: the photo's fault is reported, not decoded again.
TEST_F(RingTest, AWriterThatGivesUpFaultsTheReaderWithoutBreakingTheContract) {
    Absorb();
    WriteRow(0);
    WriteRow(1);  // so row 0 is done; row 1 never is
    m_ring->Fail();
    for (int ci = 0; ci < 3; ++ci) EXPECT_NE(Read(ci, 0), nullptr);
    EXPECT_EQ(Read(0, 1), nullptr);
    EXPECT_FALSE(m_reader.Errors().contractFault);
    EXPECT_FALSE(m_ring->ContractBroken());
}

}  // namespace
}  // namespace Varnelo
