#include "md5.h"

namespace Varnelo {

namespace {

const unsigned char PADDING[64] = {0x80};

inline uint32_t RotateLeft(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

inline uint32_t F(uint32_t x, uint32_t y, uint32_t z) { return (x & y) | (~x & z); }
inline uint32_t G(uint32_t x, uint32_t y, uint32_t z) { return (x & z) | (y & ~z); }
inline uint32_t H(uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; }
inline uint32_t I(uint32_t x, uint32_t y, uint32_t z) { return y ^ (x | ~z); }

template <uint32_t (*Fn)(uint32_t, uint32_t, uint32_t)>
inline void Step(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t x, int s, uint32_t t) {
    a = b + RotateLeft(a + Fn(b, c, d) + x + t, s);
}

inline uint32_t DecodeWord(const unsigned char* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

}  // namespace

MD5::MD5() : m_count{0, 0}, m_state{0, 0, 0, 0}, m_buffer{}, m_result{} { Init(); }

void MD5::Init() {
    m_count[0] = 0;
    m_count[1] = 0;
    m_state[0] = 0x67452301u;
    m_state[1] = 0xEFCDAB89u;
    m_state[2] = 0x98BADCFEu;
    m_state[3] = 0x10325476u;
}

void MD5::TransformBuffer() {
    uint32_t block[16];
    for (int j = 0; j < 16; ++j) block[j] = DecodeWord(m_buffer + 4 * j);
    Transform(block);
}

void MD5::Update(const unsigned char* data, unsigned long length) {
    unsigned index = (m_count[0] >> 3) & 63;
    const uint32_t bits = static_cast<uint32_t>(length << 3);
    m_count[0] += bits;
    if (m_count[0] < bits) ++m_count[1];
    m_count[1] += static_cast<uint32_t>(length >> 29);
    for (unsigned long i = 0; i < length; ++i) {
        m_buffer[index++] = data[i];
        if (index == 64) {
            TransformBuffer();
            index = 0;
        }
    }
}

void MD5::Final() {
    const uint32_t count[2] = {m_count[0], m_count[1]};
    const unsigned index = (m_count[0] >> 3) & 63;
    const unsigned padLength = index < 56 ? 56 - index : 120 - index;
    Update(PADDING, padLength);
    uint32_t block[16];
    for (int j = 0; j < 14; ++j) block[j] = DecodeWord(m_buffer + 4 * j);
    block[14] = count[0];
    block[15] = count[1];
    Transform(block);
    for (int i = 0; i < 4; ++i) {
        for (int k = 0; k < 4; ++k)
            m_result[4 * i + k] = static_cast<unsigned char>(m_state[i] >> (8 * k));
    }
}

void MD5::Transform(const uint32_t* x) {
    uint32_t a = m_state[0], b = m_state[1], c = m_state[2], d = m_state[3];

    Step<F>(a, b, c, d, x[0], 7, 0xd76aa478);
    Step<F>(d, a, b, c, x[1], 12, 0xe8c7b756);
    Step<F>(c, d, a, b, x[2], 17, 0x242070db);
    Step<F>(b, c, d, a, x[3], 22, 0xc1bdceee);
    Step<F>(a, b, c, d, x[4], 7, 0xf57c0faf);
    Step<F>(d, a, b, c, x[5], 12, 0x4787c62a);
    Step<F>(c, d, a, b, x[6], 17, 0xa8304613);
    Step<F>(b, c, d, a, x[7], 22, 0xfd469501);
    Step<F>(a, b, c, d, x[8], 7, 0x698098d8);
    Step<F>(d, a, b, c, x[9], 12, 0x8b44f7af);
    Step<F>(c, d, a, b, x[10], 17, 0xffff5bb1);
    Step<F>(b, c, d, a, x[11], 22, 0x895cd7be);
    Step<F>(a, b, c, d, x[12], 7, 0x6b901122);
    Step<F>(d, a, b, c, x[13], 12, 0xfd987193);
    Step<F>(c, d, a, b, x[14], 17, 0xa679438e);
    Step<F>(b, c, d, a, x[15], 22, 0x49b40821);

    Step<G>(a, b, c, d, x[1], 5, 0xf61e2562);
    Step<G>(d, a, b, c, x[6], 9, 0xc040b340);
    Step<G>(c, d, a, b, x[11], 14, 0x265e5a51);
    Step<G>(b, c, d, a, x[0], 20, 0xe9b6c7aa);
    Step<G>(a, b, c, d, x[5], 5, 0xd62f105d);
    Step<G>(d, a, b, c, x[10], 9, 0x02441453);
    Step<G>(c, d, a, b, x[15], 14, 0xd8a1e681);
    Step<G>(b, c, d, a, x[4], 20, 0xe7d3fbc8);
    Step<G>(a, b, c, d, x[9], 5, 0x21e1cde6);
    Step<G>(d, a, b, c, x[14], 9, 0xc33707d6);
    Step<G>(c, d, a, b, x[3], 14, 0xf4d50d87);
    Step<G>(b, c, d, a, x[8], 20, 0x455a14ed);
    Step<G>(a, b, c, d, x[13], 5, 0xa9e3e905);
    Step<G>(d, a, b, c, x[2], 9, 0xfcefa3f8);
    Step<G>(c, d, a, b, x[7], 14, 0x676f02d9);
    Step<G>(b, c, d, a, x[12], 20, 0x8d2a4c8a);

    Step<H>(a, b, c, d, x[5], 4, 0xfffa3942);
    Step<H>(d, a, b, c, x[8], 11, 0x8771f681);
    Step<H>(c, d, a, b, x[11], 16, 0x6d9d6122);
    Step<H>(b, c, d, a, x[14], 23, 0xfde5380c);
    Step<H>(a, b, c, d, x[1], 4, 0xa4beea44);
    Step<H>(d, a, b, c, x[4], 11, 0x4bdecfa9);
    Step<H>(c, d, a, b, x[7], 16, 0xf6bb4b60);
    Step<H>(b, c, d, a, x[10], 23, 0xbebfbc70);
    Step<H>(a, b, c, d, x[13], 4, 0x289b7ec6);
    Step<H>(d, a, b, c, x[0], 11, 0xeaa127fa);
    Step<H>(c, d, a, b, x[3], 16, 0xd4ef3085);
    Step<H>(b, c, d, a, x[6], 23, 0x04881d05);
    Step<H>(a, b, c, d, x[9], 4, 0xd9d4d039);
    Step<H>(d, a, b, c, x[12], 11, 0xe6db99e5);
    Step<H>(c, d, a, b, x[15], 16, 0x1fa27cf8);
    Step<H>(b, c, d, a, x[2], 23, 0xc4ac5665);

    Step<I>(a, b, c, d, x[0], 6, 0xf4292244);
    Step<I>(d, a, b, c, x[7], 10, 0x432aff97);
    Step<I>(c, d, a, b, x[14], 15, 0xab9423a7);
    Step<I>(b, c, d, a, x[5], 21, 0xfc93a039);
    Step<I>(a, b, c, d, x[12], 6, 0x655b59c3);
    Step<I>(d, a, b, c, x[3], 10, 0x8f0ccc92);
    Step<I>(c, d, a, b, x[10], 15, 0xffeff47d);
    Step<I>(b, c, d, a, x[1], 21, 0x85845dd1);
    Step<I>(a, b, c, d, x[8], 6, 0x6fa87e4f);
    Step<I>(d, a, b, c, x[15], 10, 0xfe2ce6e0);
    Step<I>(c, d, a, b, x[6], 15, 0xa3014314);
    Step<I>(b, c, d, a, x[13], 21, 0x4e0811a1);
    Step<I>(a, b, c, d, x[4], 6, 0xf7537e82);
    Step<I>(d, a, b, c, x[11], 10, 0xbd3af235);
    Step<I>(c, d, a, b, x[2], 15, 0x2ad7d2bb);
    Step<I>(b, c, d, a, x[9], 21, 0xeb86d391);

    m_state[0] += a;
    m_state[1] += b;
    m_state[2] += c;
    m_state[3] += d;
}

}  // namespace Varnelo
