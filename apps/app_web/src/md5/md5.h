// MD5 message digest (RFC 1321) and its hexadecimal text form. Passwords are stored and
// compared only as the 32-digit text of their digest.
#pragma once

#include <cstdint>

constexpr int MD5_DIGEST_SIZE = 16;  // bytes of a digest
constexpr int MD5_BLOCK_SIZE = 64;   // bytes the compression function takes at once

// The running state of one digest.
struct MD5Context {
    uint32_t state[4];                    // A, B, C, D
    uint32_t bits[2];                     // message length in bits, low word first
    unsigned char block[MD5_BLOCK_SIZE];  // tail not yet transformed: (bits[0] / 8) % 64 bytes
};

void MD5Init(MD5Context *ctx);
void MD5Update(MD5Context *ctx, const void *data, uint32_t len);
// Pads the message, stores the 16-byte digest and wipes the whole context.
void MD5Final(unsigned char digest[MD5_DIGEST_SIZE], MD5Context *ctx);
// One compression step: the 64-byte block, read as sixteen little-endian words, is mixed
// into the four state words.
void MD5Transform(uint32_t state[4], const unsigned char block[MD5_BLOCK_SIZE]);

// Digest of len bytes in one call.
void MD5Buffer(const void *data, uint32_t len, unsigned char digest[MD5_DIGEST_SIZE]);

// Writes the digest as lowercase hex, high nibble first, into a buffer of size bytes. A
// pair of digits is written only when both fit (position p + 1 < size); a terminator
// follows when there is room. So 33 bytes or more get 32 digits and a terminator, 32 get
// 32 digits and none, 31 get 30 digits and a terminator, size <= 0 gets nothing.
void md5_sig_to_string(const void *digest, char *text, int size);
