#include "md5/md5.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string hex_of(const unsigned char *digest)
{
    char text[64];
    md5_sig_to_string(digest, text, sizeof text);
    return text;
}

std::string md5_hex(const std::string &message)
{
    unsigned char digest[MD5_DIGEST_SIZE];
    MD5Buffer(message.data(), static_cast<uint32_t>(message.size()), digest);
    return hex_of(digest);
}

// The RFC 1321 suite, then lengths around the padding boundary (55 bytes fit one block with
// the length field, 56 need a second) and a whole block.
TEST(Md5, MatchesKnownDigests)
{
    const std::pair<std::string, const char *> cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"1234567890123456789012345678901234567890"
         "1234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
        {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
        {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
    };
    for (const auto &[message, digest] : cases)
        EXPECT_EQ(digest, md5_hex(message)) << message.size() << " bytes: " << message;
}

TEST(Md5, PiecesOfAnySizeGiveTheDigestOfOneCall)
{
    std::string message(300, '\0');
    for (size_t i = 0; i < message.size(); ++i)
        message[i] = static_cast<char>((i * 7 + 3) & 0xff);
    // Byte by byte; whole blocks with empty pieces between; pieces ending on and straddling
    // block boundaries.
    const std::vector<size_t> splits[] = {{1}, {0, 64, 0}, {63, 1, 64, 65, 0, 7}, {10, 54, 128, 3, 55}};
    for (const auto &sizes : splits) {
        MD5Context ctx;
        MD5Init(&ctx);
        for (size_t at = 0, k = 0; at < message.size(); ++k) {
            size_t n = std::min(sizes[k % sizes.size()], message.size() - at);
            MD5Update(&ctx, message.data() + at, static_cast<uint32_t>(n));
            at += n;
        }
        unsigned char digest[MD5_DIGEST_SIZE];
        MD5Final(digest, &ctx);
        EXPECT_EQ("3ea74b65673e1390b90da3e462c02f9f", hex_of(digest)) << "first piece " << sizes[0];
    }
}

TEST(Md5, BitCountCarriesIntoItsHighWordAndFinalWipesTheContext)
{
    MD5Context ctx;
    MD5Init(&ctx);
    ctx.bits[0] = 0xfffffff8u;  // as after 2^29 - 1 bytes
    MD5Update(&ctx, nullptr, 0);  // an empty piece without a buffer, into a partly filled block
    MD5Update(&ctx, "x", 1);
    EXPECT_EQ(0u, ctx.bits[0]);
    EXPECT_EQ(1u, ctx.bits[1]);
    unsigned char digest[MD5_DIGEST_SIZE];
    MD5Final(digest, &ctx);
    const MD5Context zero{};
    EXPECT_EQ(0, memcmp(&zero, &ctx, sizeof ctx));
}

TEST(Md5, TextIsWrittenOnlyAsFarAsWholePairsFit)
{
    unsigned char digest[MD5_DIGEST_SIZE];
    MD5Buffer("abc", 3, digest);
    const std::string hex = "900150983cd24fb0d6963f7d28e17f72";
    const std::pair<int, std::string> cases[] = {  // size, the bytes written
        {64, hex + '\0'}, {33, hex + '\0'}, {32, hex}, {31, hex.substr(0, 30) + '\0'},
        {2, "90"}, {1, std::string(1, '\0')}, {0, ""}, {-1, ""},
    };
    for (const auto &[size, written] : cases) {
        char buf[70];
        memset(buf, '#', sizeof buf);
        md5_sig_to_string(digest, buf, size);
        EXPECT_EQ(written + std::string(sizeof buf - written.size(), '#'), std::string(buf, sizeof buf)) << size;
    }
}

} // namespace
