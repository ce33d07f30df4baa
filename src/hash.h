#pragma once

#include <string>

namespace Varnelo {

// Which hash a conversion computes. Values travel as plain ints; any value other than
// HASH_CRC32 and HASH_MD5 means no hash.
enum HashType { HASH_CRC32 = 0, HASH_MD5 = 1, HASH_NONE = 2 };

// A hash algorithm: Init, Update any number of times, Final, then read the result. The shared
// helpers feed it from a file or a string and print the result as upper-case hexadecimal.
// A hash object belongs to one computation on one thread; algorithms share constant tables only.
class Hash {
  public:
    enum FilePos { FROM_BEGIN = 0, FROM_END = 1 };

    virtual ~Hash();

    virtual void Init() = 0;
    virtual void Update(const unsigned char* data, unsigned long length) = 0;
    virtual void Final() = 0;
    // The result bytes; valid after Final.
    virtual const unsigned char* GetResultCode() const = 0;
    virtual int GetResultLength() const = 0;
    virtual std::string Name() const = 0;

    // Hashes the file at `path`: the whole of it (FROM_BEGIN), or only its last `count` bytes
    // (FROM_END), the whole file when it is shorter. False, without a message, when the file
    // cannot be opened or `pos` is neither; a read error ends the data like end of file.
    bool File(const char* path, FilePos pos, int count);
    // Hashes the bytes of `text` up to its terminating NUL.
    void String(const char* text);
    // The result bytes in order as upper-case hexadecimal, two digits each, no separators.
    std::string GetResultString() const;
};

}  // namespace Varnelo
