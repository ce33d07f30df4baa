#include "hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <tuple>

#include "crc32.h"
#include "md5.h"
#include "support/temp_dir.h"

namespace Varnelo {
namespace {

std::unique_ptr<Hash> CreateHash(int type) {
    if (type == HASH_CRC32) return std::make_unique<CRC32>();
    return std::make_unique<MD5>();
}

TEST(HashTest, GivesTheKnownDigests) {
    const std::string digits = "1234567890";
    const std::tuple<int, std::string, std::string> known[] = {
        {HASH_CRC32, "", "00000000"},
        {HASH_CRC32, "123456789", "CBF43926"},
        // From RFC 1321's suite, then the lengths at which the padding takes one block or two.
        {HASH_MD5, "", "D41D8CD98F00B204E9800998ECF8427E"},
        {HASH_MD5, "abc", "900150983CD24FB0D6963F7D28E17F72"},
        {HASH_MD5, digits + digits + digits + digits + digits + digits + digits + digits,
         "57EDF4A22BE3C955AC49DA2E2107B67A"},
        {HASH_MD5, std::string(55, 'a'), "EF1772B6DFF9A122358552954AD0DF65"},
        {HASH_MD5, std::string(56, 'a'), "3B0C8AC703F828B04C6C197006D17218"}};
    for (const auto& [type, text, digest] : known) {
        std::unique_ptr<Hash> hash = CreateHash(type);
        hash->String(text.c_str());
        EXPECT_EQ(hash->GetResultString(), digest) << hash->Name() << " of \"" << text << "\"";
    }
}

TEST(HashTest, AnySplitOfTheInputAndAFileTailGiveTheDigestOfTheirBytes) {
    TempDir dir;
    std::mt19937 rng(3);
    std::string bytes(5000, '\0');
    for (char& b : bytes) b = static_cast<char>(rng());
    for (int type : {HASH_CRC32, HASH_MD5}) {
        std::unique_ptr<Hash> hash = CreateHash(type), whole = CreateHash(type);
        auto digest = [&](const std::string& part) {
            whole->Init();
            whole->Update(reinterpret_cast<const unsigned char*>(part.data()), part.size());
            whole->Final();
            return whole->GetResultString();
        };
        for (size_t offset = 0; offset < 4; ++offset) {  // pieces of 0 to 69 bytes at any alignment
            hash->Init();
            for (size_t pos = 0, piece = 0; pos < 3000; pos += piece) {
                piece = std::min<size_t>(3000 - pos, rng() % 70);
                hash->Update(reinterpret_cast<const unsigned char*>(&bytes[offset + pos]), piece);
            }
            hash->Final();
            EXPECT_EQ(hash->GetResultString(), digest(bytes.substr(offset, 3000)))
                << hash->Name() << " from offset " << offset;
        }
        // The last 2048 bytes of a file, or the whole of a shorter one.
        for (size_t size : {0, 100, 2047, 2048, 2049, 5000}) {
            const std::string path = dir.Write("file", bytes.substr(0, size));
            ASSERT_TRUE(hash->File(path.c_str(), Hash::FROM_END, 2048));
            const size_t from = size > 2048 ? size - 2048 : 0;
            EXPECT_EQ(hash->GetResultString(), digest(bytes.substr(from, size - from)))
                << hash->Name() << ", " << size << " bytes";
        }
        EXPECT_FALSE(hash->File(dir.Path("missing").c_str(), Hash::FROM_END, 2048));
    }
}

}  // namespace
}  // namespace Varnelo
