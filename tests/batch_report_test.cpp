// varnelo-batch's report encoding of file names.

#include <gtest/gtest.h>

#include "varnelo-batch/report.h"

namespace Varnelo {
namespace {

TEST(BatchReportTest, WritesEveryNameAsValidJsonAndKeepsItsBytes) {
    const struct {
        std::string name, json;
        bool valid;
    } cases[] = {
        {"plain.jpg", "\"plain.jpg\"", true},
        {"caf\xC3\xA9 \xF0\x9F\x93\xB7.jpg", "\"caf\xC3\xA9 \xF0\x9F\x93\xB7.jpg\"", true},
        {"q\"b\\\t\x7F.jpg", "\"q\\\"b\\\\\\u0009\\u007f.jpg\"", true},
        {"caf\xE9.jpg", "\"caf\xEF\xBF\xBD.jpg\"", false},                    // Latin-1
        {"\xC0\xAF.jpg", "\"\xEF\xBF\xBD\xEF\xBF\xBD.jpg\"", false},          // overlong '/'
        {"\xED\xA0\x80", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"", false},  // a surrogate
        {"\xF0\x9F\x93", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\"", false},  // cut short
        {"", "null", true}};
    for (const auto& c : cases) {
        bool valid = false;
        EXPECT_EQ(JsonString(c.name, valid), c.json) << c.name;
        EXPECT_EQ(valid, c.valid) << c.name;
    }
    EXPECT_EQ(Hex("caf\xE9"), "636166e9");
}

}  // namespace
}  // namespace Varnelo
