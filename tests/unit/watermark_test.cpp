// The watermark upload's name and type checks. The whole upload, through the real binary, is
// in tests/system/uploads_test.cpp.
#include "webserver/upload_image.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string stored_name(const std::string &encoded, int expect_rc = 0)
{
    char name[WATERMARK_NAME_MAX + 1];
    int rc = watermark_name(encoded.c_str(), name, sizeof name);
    EXPECT_EQ(expect_rc, rc) << encoded;
    return rc == 0 ? name : "";
}

TEST(WatermarkName, IsPercentDecodedByteForByte)
{
    EXPECT_EQ("a b.png", stored_name("a%20b.png"));
    EXPECT_EQ("\xc3\xa9.jpg", stored_name("%C3%a9.jpg"));
    EXPECT_EQ("+.jpg", stored_name("+.jpg"));  // no form decoding
    // Any two characters after a "%" make a byte; one that is no hexadecimal digit counts as
    // -1, the byte taken modulo 256: "%g1" is 0xf1, "%.j" 0xef.
    EXPECT_EQ("\xf1.jpg", stored_name("%g1.jpg"));
    EXPECT_EQ("\xff.jpg", stored_name("%0g.jpg"));
    EXPECT_EQ("100\xefpg", stored_name("100%.jpg"));
    EXPECT_EQ("a.jpg%", stored_name("a.jpg%"));  // too short to be an escape: kept
    EXPECT_EQ("a.jpg%4", stored_name("a.jpg%4"));
    std::string longest(250, 'n');
    EXPECT_EQ(longest + ".jpg", stored_name(longest + ".jpg"));
}

TEST(WatermarkName, LongNamesAreRefused)
{
    stored_name(std::string(251, 'n') + ".jpg", -1);
    std::string escaped;
    for (int i = 0; i < 85; ++i)
        escaped += "%41";
    stored_name(escaped, -1);  // 255 characters as sent, though 85 once decoded
    char small[4];
    EXPECT_EQ(-2, watermark_name("abcd", small, sizeof small)) << "a name that does not fit is refused";
}

TEST(WatermarkName, NamesOutsideTheDirectoryAreRefused)
{
    for (const char *name : {"", "%2e", "%2E%2e", "..", ".", "a/b.png", "a%2fb.png", "%2F", "..%2fx.png", "a%00.png",
                             "%00", "%g0%00"})
        stored_name(name, -2);
    EXPECT_EQ("..png", stored_name("..png"));
    EXPECT_EQ("...", stored_name("..."));
}

const unsigned char kJpeg[] = {0xff, 0xd8, 0xff}, kBmp[] = {'B', 'M', 0}, kPng[] = {0x89, 'P', 'N'};

struct TypeCase {
    const char *name, *type;
    const unsigned char *head;
    size_t len;
    bool fits;
};

void expect_fits(std::initializer_list<TypeCase> cases)
{
    for (const TypeCase &c : cases)
        EXPECT_EQ(c.fits, watermark_type_fits(c.name, c.type, c.head, c.len)) << c.name << " " << (c.type ? c.type : "-");
}

// Pages and scripts named as such are refused whatever the type says.
TEST(WatermarkType, TheNameMustEndInAnExtensionOfTheType)
{
    expect_fits({
        {"a.jpg", "image/jpeg", kJpeg, 3, true},
        {"A.JPEG", "image/jpeg", kJpeg, 3, true},
        {"a.JpG", "image/jpeg", kJpeg, 3, true},
        {"a.png", "image/png", kPng, 3, true},
        {"a.bmp", "image/bmp", kBmp, 3, true},
        {"x.html", "image/jpeg", kJpeg, 3, false},
        {"x.svg", "image/jpeg", kJpeg, 3, false},
        {"x.jpg.html", "image/jpeg", kJpeg, 3, false},
        {"x.jpg ", "image/jpeg", kJpeg, 3, false},
        {"jpg", "image/jpeg", kJpeg, 3, false},
        {"x.png", "image/jpeg", kJpeg, 3, false},
        {"x.jpg", "image/png", kPng, 3, false},
        {"x.jpeg", "image/bmp", kBmp, 3, false},
    });
}

TEST(WatermarkType, TheContentMustStartLikeTheType)
{
    expect_fits({
        {"a.Bmp", "image/bmp", kBmp, 2, true},
        {"a.PNG", "image/png", kJpeg, 3, true},  // a PNG's signature is checked with its size
        {"x.jpg", "image/jpeg", kPng, 3, false},
        {"x.jpg", "image/jpeg", kJpeg, 2, false},
        {"x.bmp", "image/bmp", kJpeg, 3, false},
        {"x.bmp", "image/bmp", kBmp, 1, false},
    });
    EXPECT_TRUE(watermark_type_fits("a.png", "image/png", nullptr, 0));
}

TEST(WatermarkType, OnlyStoredPictureTypesFit)
{
    expect_fits({
        {"x.gif", "image/gif", kJpeg, 3, false},
        {"x.svg", "image/svg+xml", kJpeg, 3, false},
        {"x.jpg", "IMAGE/JPEG", kJpeg, 3, false},
        {"x.jpg", "", kJpeg, 3, false},
        {"x.jpg", nullptr, kJpeg, 3, false},
    });
}

} // namespace
