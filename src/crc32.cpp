#include "crc32.h"

namespace Varnelo {

namespace {

constexpr std::array<uint32_t, 256> MakeTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[i] = c;
    }
    return table;
}

constexpr std::array<uint32_t, 256> kTable = MakeTable();
static_assert(kTable[1] == 0x77073096u && kTable[255] == 0x2D02EF8Du, "CRC-32 table");

}  // namespace

const std::array<uint32_t, 256> CRC32::m_tab = kTable;

CRC32::CRC32() : m_crc(0xFFFFFFFFu), m_result{0, 0, 0, 0} {}

void CRC32::Init() { m_crc = 0xFFFFFFFFu; }

void CRC32::Update(const unsigned char* data, unsigned long length) {
    uint32_t crc = m_crc;
    // Single bytes up to a 4-byte boundary, then whole little-endian words, then the tail;
    // every phase gives the same register as the byte-at-a-time rule.
    while (length > 0 && reinterpret_cast<uintptr_t>(data) % 4 != 0) {
        crc = m_tab[CRC32_INDEX(crc) ^ *data++] ^ CRC32_SHIFTED(crc);
        --length;
    }
    while (length >= 4) {
        crc ^= uint32_t(data[0]) | uint32_t(data[1]) << 8 | uint32_t(data[2]) << 16 |
               uint32_t(data[3]) << 24;
        crc = m_tab[CRC32_INDEX(crc)] ^ CRC32_SHIFTED(crc);
        crc = m_tab[CRC32_INDEX(crc)] ^ CRC32_SHIFTED(crc);
        crc = m_tab[CRC32_INDEX(crc)] ^ CRC32_SHIFTED(crc);
        crc = m_tab[CRC32_INDEX(crc)] ^ CRC32_SHIFTED(crc);
        data += 4;
        length -= 4;
    }
    while (length > 0) {
        crc = m_tab[CRC32_INDEX(crc) ^ *data++] ^ CRC32_SHIFTED(crc);
        --length;
    }
    m_crc = crc;
}

void CRC32::Final() {
    m_crc = ~m_crc;
    for (int i = 0; i < 4; ++i) m_result[i] = GetCrcByte(3 - i);
}

}  // namespace Varnelo
