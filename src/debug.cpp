#include "debug.h"

#include <cstdio>

namespace Varnelo {
namespace Debug {

void PrintText(const char* data, int length) {
    std::printf("TEXT [%d]\n", length);
    for (int i = 0; i < length; ++i) {
        const signed char c = static_cast<signed char>(data[i]);
        if (c > 31 || c == 10 || c == 9 || c == 13) {
            std::putchar(c);
        } else {
            std::putchar('?');
        }
    }
    if (length <= 0 || data[length - 1] != '\n') std::putchar('\n');
    std::printf("END TEXT\n");
}

void PrintDump(const char* data, int length) {
    std::printf("DUMP [%d]\n", length);
    for (int i = 0; i < length; ++i) {
        // Widening the signed byte is deliberate: bytes above 127 print with six leading Fs.
        std::printf("0x%02X ",
                    static_cast<unsigned>(static_cast<int>(static_cast<signed char>(data[i]))));
        if (i % 8 == 7) std::putchar('\n');
    }
    if ((length - 1) % 8 != 7) std::putchar('\n');
    std::printf("END DUMP\n");
}

}  // namespace Debug
}  // namespace Varnelo
