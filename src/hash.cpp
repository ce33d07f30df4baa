#include "hash.h"

#include <cstdio>
#include <memory>

namespace Varnelo {

namespace {

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};

}  // namespace

Hash::~Hash() = default;

bool Hash::File(const char* path, FilePos pos, int count) {
    if (pos != FROM_BEGIN && pos != FROM_END) return false;
    std::unique_ptr<FILE, FileCloser> file(std::fopen(path, "rb"));
    if (!file) return false;
    // The seek is not checked on purpose: for a file shorter than `count` it fails, the
    // position stays at the start and the whole file is hashed.
    if (pos == FROM_END) std::fseek(file.get(), -static_cast<long>(count), SEEK_END);
    Init();
    unsigned char buffer[1024];
    for (;;) {
        const size_t got = std::fread(buffer, 1, sizeof buffer, file.get());
        if (got == 0) break;
        Update(buffer, got);
    }
    Final();
    return true;
}

void Hash::String(const char* text) {
    Init();
    Update(reinterpret_cast<const unsigned char*>(text), std::char_traits<char>::length(text));
    Final();
}

std::string Hash::GetResultString() const {
    static const char kDigits[] = "0123456789ABCDEF";
    const unsigned char* code = GetResultCode();
    const int length = GetResultLength();
    std::string text;
    text.reserve(static_cast<size_t>(length) * 2);
    for (int i = 0; i < length; ++i) {
        text += kDigits[code[i] >> 4];
        text += kDigits[code[i] & 15];
    }
    return text;
}

}  // namespace Varnelo
