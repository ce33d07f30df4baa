#include "hash.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "crc32.h"
#include "md5.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

struct Known {
    int type;
    std::string text;
    std::string digest;
};

class KnownAnswerTest : public ::testing::TestWithParam<Known> {};

TEST_P(KnownAnswerTest, HashesTextToItsKnownDigest) {
    const Known& k = GetParam();
    std::unique_ptr<Hash> hash = CreateHash(k.type);
    ASSERT_NE(hash, nullptr);
    hash->String(k.text.c_str());
    EXPECT_EQ(hash->GetResultString(), k.digest);
}

const std::string kDigits = "1234567890";

INSTANTIATE_TEST_SUITE_P(Crc32, KnownAnswerTest,
                         ::testing::Values(Known{HASH_CRC32, "", "00000000"},
                                           Known{HASH_CRC32, "abc", "352441C2"},
                                           Known{HASH_CRC32, "123456789", "CBF43926"},
                                           Known{HASH_CRC32,
                                                 "The quick brown fox jumps over the lazy dog",
                                                 "414FA339"}));

// RFC 1321's test suite, and the lengths where the padding needs one block or two.
INSTANTIATE_TEST_SUITE_P(
    Md5, KnownAnswerTest,
    ::testing::Values(
        Known{HASH_MD5, "", "D41D8CD98F00B204E9800998ECF8427E"},
        Known{HASH_MD5, "a", "0CC175B9C0F1B6A831C399E269772661"},
        Known{HASH_MD5, "abc", "900150983CD24FB0D6963F7D28E17F72"},
        Known{HASH_MD5, "message digest", "F96B697D7CB7938D525A2F31AAF161D0"},
        Known{HASH_MD5, "abcdefghijklmnopqrstuvwxyz", "C3FCD3D76192E4007DFB496CCA67E13B"},
        Known{HASH_MD5, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
              "D174AB98D277D9F5A5611C2C9F419D9F"},
        Known{HASH_MD5,
              kDigits + kDigits + kDigits + kDigits + kDigits + kDigits + kDigits + kDigits,
              "57EDF4A22BE3C955AC49DA2E2107B67A"},
        Known{HASH_MD5, std::string(55, 'a'), "EF1772B6DFF9A122358552954AD0DF65"},
        Known{HASH_MD5, std::string(56, 'a'), "3B0C8AC703F828B04C6C197006D17218"},
        Known{HASH_MD5, std::string(64, 'a'), "014842D480B571495A4A0363793F7367"}));

TEST(CRC32Test, TableHoldsTheReflectedPolynomial) {
    EXPECT_EQ(CRC32::m_tab[0], 0u);
    EXPECT_EQ(CRC32::m_tab[1], 0x77073096u);
    EXPECT_EQ(CRC32::m_tab[255], 0x2D02EF8Du);
}

TEST(HashTest, OnlyTheTwoAlgorithmsAreCreated) {
    EXPECT_EQ(CreateHash(HASH_CRC32)->Name(), "CRC32");
    EXPECT_EQ(CreateHash(HASH_MD5)->Name(), "MD5");
    EXPECT_EQ(CreateHash(HASH_NONE), nullptr);
    EXPECT_EQ(CreateHash(7), nullptr);
}

std::vector<unsigned char> RandomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<unsigned char> bytes(n);
    for (unsigned char& b : bytes) b = static_cast<unsigned char>(rng());
    return bytes;
}

std::string Digest(Hash& hash, const unsigned char* data, size_t n) {
    hash.Init();
    hash.Update(data, n);
    hash.Final();
    return hash.GetResultString();
}

class SplitTest : public ::testing::TestWithParam<int> {};

TEST_P(SplitTest, AnySplitOfTheInputGivesTheSameDigest) {
    std::unique_ptr<Hash> hash = CreateHash(GetParam());
    // One byte of slack so the data can start at every alignment.
    const std::vector<unsigned char> buffer = RandomBytes(3001, 11);
    std::mt19937 rng(3);
    for (int offset = 0; offset < 4; ++offset) {
        const unsigned char* data = buffer.data() + offset;
        const size_t n = buffer.size() - 4;
        const std::string whole = Digest(*hash, data, n);
        for (int trial = 0; trial < 50; ++trial) {
            hash->Init();
            size_t pos = 0;
            while (pos < n) {
                const size_t piece = std::min<size_t>(n - pos, rng() % 70);
                hash->Update(data + pos, piece);
                pos += piece;
            }
            hash->Final();
            ASSERT_EQ(hash->GetResultString(), whole) << "offset " << offset;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(BothAlgorithms, SplitTest, ::testing::Values(HASH_CRC32, HASH_MD5));

class FileTailTest : public ::testing::TestWithParam<int> {};

TEST_P(FileTailTest, HashesOnlyTheLast2048BytesOrTheWholeShorterFile) {
    TempDir dir;
    std::unique_ptr<Hash> file = CreateHash(GetParam());
    std::unique_ptr<Hash> direct = CreateHash(GetParam());
    for (size_t size : {0, 100, 2047, 2048, 2049, 5000}) {
        const std::vector<unsigned char> bytes = RandomBytes(size, static_cast<uint32_t>(size));
        const std::string path =
            dir.Write("f" + std::to_string(size), std::string(bytes.begin(), bytes.end()));
        const size_t from = size > 2048 ? size - 2048 : 0;
        ASSERT_TRUE(file->File(path.c_str(), Hash::FROM_END, 2048));
        EXPECT_EQ(file->GetResultString(), Digest(*direct, bytes.data() + from, size - from))
            << size << " bytes";
        ASSERT_TRUE(file->File(path.c_str(), Hash::FROM_BEGIN, 2048));
        EXPECT_EQ(file->GetResultString(), Digest(*direct, bytes.data(), size)) << size << " bytes";
    }
}

TEST_P(FileTailTest, FailsOnAMissingFileOrAnUnknownPosition) {
    TempDir dir;
    std::unique_ptr<Hash> hash = CreateHash(GetParam());
    EXPECT_FALSE(hash->File(dir.Path("missing").c_str(), Hash::FROM_END, 2048));
    const std::string path = dir.Write("present", "data");
    EXPECT_FALSE(hash->File(path.c_str(), static_cast<Hash::FilePos>(2), 2048));
}

INSTANTIATE_TEST_SUITE_P(BothAlgorithms, FileTailTest, ::testing::Values(HASH_CRC32, HASH_MD5));

}  // namespace
}  // namespace Varnelo
