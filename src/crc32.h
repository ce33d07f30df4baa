#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "hash.h"

namespace Varnelo {

// CRC-32 of IEEE 802.3 and zlib: reflected polynomial 0xEDB88320, register preset to all ones,
// final complement. The result is the 4-byte CRC, most significant byte first, so
// GetResultString prints the usual 8 digits ("CBF43926" for "123456789").
// One object per computation and thread; the table is constant data shared by all.
class CRC32 : public Hash {
  public:
    CRC32();

    void Init() override;
    void Update(const unsigned char* data, unsigned long length) override;
    void Final() override;
    const unsigned char* GetResultCode() const override { return m_result; }
    int GetResultLength() const override { return 4; }
    std::string Name() const override { return "CRC32"; }

    // Entry i is the reflected CRC of the byte i; built at compile time.
    static const std::array<uint32_t, 256> m_tab;

  private:
    static uint32_t CRC32_INDEX(uint32_t x) { return x & 0xFF; }
    static uint32_t CRC32_SHIFTED(uint32_t x) { return x >> 8; }
    unsigned char GetCrcByte(int i) const { return static_cast<unsigned char>(m_crc >> (8 * i)); }

    uint32_t m_crc;
    unsigned char m_result[4];
};

}  // namespace Varnelo
