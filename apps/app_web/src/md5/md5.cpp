#include "md5/md5.h"

#include <cstring>

namespace {

constexpr uint32_t kInitialState[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};

// Additive constants: the integer part of 2^32 * |sin(i + 1)|, i = 0 .. 63.
constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// Left-rotation amounts, four per round, repeated over the round's sixteen steps.
constexpr unsigned kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

constexpr uint32_t rotl(uint32_t x, unsigned n) { return (x << n) | (x >> (32 - n)); }

uint32_t load_le32(const unsigned char *p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

void store_le32(unsigned char *p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

} // namespace

void MD5Transform(uint32_t state[4], const unsigned char block[MD5_BLOCK_SIZE])
{
    uint32_t x[16];
    for (int i = 0; i < 16; ++i)
        x[i] = load_le32(block + 4 * i);

    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    // Fully unrolled, so that each step's function, message word and shift are constants.
#pragma GCC unroll 64
    for (int i = 0; i < 64; ++i) {
        int round = i / 16;
        uint32_t f;
        int word;
        switch (round) {
        case 0:
            f = (b & c) | (~b & d);
            word = i;
            break;
        case 1:
            f = (b & d) | (c & ~d);
            word = (5 * i + 1) % 16;
            break;
        case 2:
            f = b ^ c ^ d;
            word = (3 * i + 5) % 16;
            break;
        default:
            f = c ^ (b | ~d);
            word = (7 * i) % 16;
            break;
        }
        uint32_t next = b + rotl(a + f + x[word] + kSine[i], kShift[round][i % 4]);
        a = d;
        d = c;
        c = b;
        b = next;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

void MD5Init(MD5Context *ctx)
{
    memcpy(ctx->state, kInitialState, sizeof ctx->state);
    ctx->bits[0] = 0;
    ctx->bits[1] = 0;
}

void MD5Update(MD5Context *ctx, const void *data, uint32_t len)
{
    if (len == 0)  // an empty piece may come without a buffer
        return;
    const unsigned char *in = static_cast<const unsigned char *>(data);
    uint32_t used = (ctx->bits[0] >> 3) & (MD5_BLOCK_SIZE - 1);

    // The bit count is 64 bits wide; len * 8 may carry out of the low word.
    uint32_t low = ctx->bits[0] + (len << 3);
    if (low < ctx->bits[0])
        ++ctx->bits[1];
    ctx->bits[0] = low;
    ctx->bits[1] += len >> 29;

    if (used > 0) {
        uint32_t room = MD5_BLOCK_SIZE - used;
        if (len < room) {
            memcpy(ctx->block + used, in, len);
            return;
        }
        memcpy(ctx->block + used, in, room);
        MD5Transform(ctx->state, ctx->block);
        in += room;
        len -= room;
    }
    for (; len >= MD5_BLOCK_SIZE; in += MD5_BLOCK_SIZE, len -= MD5_BLOCK_SIZE)
        MD5Transform(ctx->state, in);
    if (len > 0)
        memcpy(ctx->block, in, len);
}

void MD5Final(unsigned char digest[MD5_DIGEST_SIZE], MD5Context *ctx)
{
    constexpr uint32_t kLengthAt = MD5_BLOCK_SIZE - 8;  // the bit count fills the last 8 bytes
    uint32_t n = (ctx->bits[0] >> 3) & (MD5_BLOCK_SIZE - 1);
    ctx->block[n++] = 0x80;
    if (n > kLengthAt) {
        memset(ctx->block + n, 0, MD5_BLOCK_SIZE - n);
        MD5Transform(ctx->state, ctx->block);
        n = 0;
    }
    memset(ctx->block + n, 0, kLengthAt - n);
    store_le32(ctx->block + kLengthAt, ctx->bits[0]);
    store_le32(ctx->block + kLengthAt + 4, ctx->bits[1]);
    MD5Transform(ctx->state, ctx->block);

    for (int i = 0; i < 4; ++i)
        store_le32(digest + 4 * i, ctx->state[i]);
    // The context held the message's tail; leave nothing of it behind.
    memset(ctx, 0, sizeof *ctx);
}

void MD5Buffer(const void *data, uint32_t len, unsigned char digest[MD5_DIGEST_SIZE])
{
    MD5Context ctx;
    MD5Init(&ctx);
    MD5Update(&ctx, data, len);
    MD5Final(digest, &ctx);
}

void md5_sig_to_string(const void *digest, char *text, int size)
{
    static constexpr char kHex[] = "0123456789abcdef";
    const unsigned char *sig = static_cast<const unsigned char *>(digest);
    int pos = 0;
    for (int i = 0; i < MD5_DIGEST_SIZE && pos + 1 < size; ++i) {
        text[pos++] = kHex[sig[i] >> 4];
        text[pos++] = kHex[sig[i] & 0x0f];
    }
    if (pos < size)
        text[pos] = '\0';
}
