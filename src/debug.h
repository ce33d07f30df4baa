#pragma once

namespace Varnelo {

// Hand-debugging aids that print to standard output. The service never calls them:
// standard output carries protocol responses while it serves.
namespace Debug {

// Prints "TEXT [n]", the bytes (unprintable ones as "?"), a closing newline if the text
// lacks one, and "END TEXT".
void PrintText(const char* data, int length);

// Prints "DUMP [n]", each byte as "0x%02X " of its signed value, eight a row, and "END DUMP".
void PrintDump(const char* data, int length);

}  // namespace Debug
}  // namespace Varnelo
