// The two text buffers every log line, reply and listing passes through: the stack-or-heap
// formatter and the growing heap block, at the edges where they change their storage.
#include "common/formatted_text.h"
#include "common/growing_buffer.h"
#include "common/owners.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

// Parts that end just before, at and just after the end of the stack buffer, and parts that
// start on the heap.
TEST(FormattedText, TextsAcrossTheStackBufferEndAreWhole)
{
    for (size_t first : {0, 10, 1000}) {
        for (size_t second = 1018; second <= 1030; ++second) {
            std::string a(first, 'a'), b(second, 'b');
            FormattedText text;
            text.append("%s", a.c_str());
            text.append("<%s>", b.c_str());
            text.append("%d", 7);
            std::string expected = a + "<" + b + ">7";
            ASSERT_EQ(expected, text.view()) << first << "+" << second;
            ASSERT_EQ(expected.size(), strlen(text.c_str())) << first << "+" << second;
            EXPECT_TRUE(text.ends_with('7'));
            EXPECT_FALSE(text.failed());
        }
    }
}

TEST(GrowingBuffer, BytesSurviveEveryDoublingAndStayTerminated)
{
    GrowingBuffer buffer(3);
    std::string expected;
    for (size_t n = 0; n < 300; ++n) {
        std::string piece(n % 17, static_cast<char>('a' + n % 26));
        if (n % 2) {
            ASSERT_TRUE(buffer.append(piece.data(), piece.size()));
        } else {
            ASSERT_TRUE(buffer.reserve_more(piece.size()));
            memcpy(buffer.end(), piece.data(), piece.size());
            buffer.grow_used(piece.size());
        }
        expected += piece;
        ASSERT_EQ(expected, std::string(buffer.data(), buffer.size()));
        ASSERT_EQ('\0', buffer.data()[buffer.size()]);
    }
    buffer.shrink_to_fit();
    HeapText text(buffer.release());
    EXPECT_EQ(expected, text.get());
    EXPECT_EQ(0u, buffer.size());
}

} // namespace
