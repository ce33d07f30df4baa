#pragma once

#include <cstdint>
#include <string>

#include "hash.h"

namespace Varnelo {

// The MD5 message digest of RFC 1321. The result is the 16-byte digest in RFC order, printed by
// GetResultString as 32 upper-case hexadecimal digits. Input is buffered a byte at a time into
// 64-byte blocks, so it needs no alignment and may be split over Update calls anywhere.
// One object per computation and thread.
class MD5 : public Hash {
  public:
    MD5();

    void Init() override;
    void Update(const unsigned char* data, unsigned long length) override;
    void Final() override;
    const unsigned char* GetResultCode() const override { return m_result; }
    int GetResultLength() const override { return 16; }
    std::string Name() const override { return "MD5"; }

  private:
    // The RFC 1321 compression function on m_state with one block of 16 little-endian words.
    void Transform(const uint32_t* block);
    void TransformBuffer();

    uint32_t m_count[2];  // bits absorbed, low word first, modulo 2^64
    uint32_t m_state[4];  // chaining words A, B, C, D
    unsigned char m_buffer[64];
    unsigned char m_result[16];
};

}  // namespace Varnelo
