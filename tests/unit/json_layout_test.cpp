// The JSON layout module against its oracle, cJSON's own formatted printer: every text the
// server writes without a cJSON tree must be the text cJSON prints for the same document.
#include "c2json/json_layout.h"
#include "c2json/reply_text.h"
#include "common/owners.h"

#include <cjson/cJSON.h>
#include <climits>
#include <cstdio>
#include <gtest/gtest.h>
#include <random>
#include <string>

namespace {

// Writes a cJSON tree through the layout module, the way the server writes its documents.
void write(JsonLayout &out, const cJSON *item)
{
    if (cJSON_IsObject(item)) {
        out.begin_object();
        for (const cJSON *member = item->child; member; member = member->next) {
            out.key(member->string);
            write(out, member);
        }
        out.end_object();
    } else if (cJSON_IsArray(item)) {
        out.begin_array();
        for (const cJSON *value = item->child; value; value = value->next) {
            out.element();
            write(out, value);
        }
        out.end_array();
    } else if (cJSON_IsString(item)) {
        out.string(item->valuestring);
    } else {
        out.number(item->valuedouble);
    }
}

std::string laid_out(const cJSON *tree)
{
    JsonLayout out(16);
    write(out, tree);
    HeapText text(out.release());
    return text ? text.get() : "<failed>";
}

std::string printed(const cJSON *tree)
{
    HeapText text(cJSON_Print(tree));
    return text ? text.get() : "<failed>";
}

// Texts of every byte but NUL, so each of cJSON's escapes and every byte it passes through
// shows up; keys get them too.
std::string random_text(std::mt19937 &random)
{
    std::string text(random() % 12, ' ');
    for (char &c : text)
        c = static_cast<char>(1 + random() % 255);
    return text;
}

double random_number(std::mt19937 &random)
{
    static const double kNumbers[] = {0, -0.0, 1, -1, 42, INT_MAX, INT_MIN, 2147483648.0, -2147483649.0,
                                      5368709120.0, 9007199254740993.0, 1e300, -1e-300, 0.5, 0.1, 1.0 / 3};
    return kNumbers[random() % (sizeof kNumbers / sizeof kNumbers[0])];
}

// A random document: objects and arrays (empty ones too) nested up to depth levels deep.
cJSON *random_value(std::mt19937 &random, int depth)
{
    switch (depth > 0 ? random() % 4 : 2 + random() % 2) {
    case 0: {
        cJSON *object = cJSON_CreateObject();
        for (int n = random() % 4; n > 0; --n)
            cJSON_AddItemToObject(object, random_text(random).c_str(), random_value(random, depth - 1));
        return object;
    }
    case 1: {
        cJSON *array = cJSON_CreateArray();
        for (int n = random() % 4; n > 0; --n)
            cJSON_AddItemToArray(array, random_value(random, depth - 1));
        return array;
    }
    case 2:
        return cJSON_CreateString(random_text(random).c_str());
    default:
        return cJSON_CreateNumber(random_number(random));
    }
}

TEST(JsonLayout, DocumentsAreLaidOutAsCJsonPrintsThem)
{
    std::mt19937 random(17);
    for (int i = 0; i < 2000; ++i) {
        CJsonPtr tree(random_value(random, 5));
        ASSERT_EQ(printed(tree.get()), laid_out(tree.get())) << "document " << i;
    }
}

TEST(JsonLayout, FixedRepliesAreCJsonsPrintOfTheirObjects)
{
    CJsonPtr ok(cJSON_CreateObject());
    cJSON_AddStringToObject(ok.get(), "Result", "OK");
    EXPECT_EQ(printed(ok.get()), JSON_LAYOUT_OK);
    for (int code : {-16, 0, 550, INT_MIN}) {
        CJsonPtr failure(cJSON_CreateObject());
        cJSON_AddStringToObject(failure.get(), "Result", "Fail");
        cJSON_AddNumberToObject(failure.get(), "ErrorNo", code);
        cJSON_AddStringToObject(failure.get(), "Reason", "");
        char text[sizeof JSON_LAYOUT_CODED_FAILURE + 16];
        snprintf(text, sizeof text, JSON_LAYOUT_CODED_FAILURE, code);
        EXPECT_EQ(printed(failure.get()), text) << code;
    }
}

// The payload goes in as it stands, as cJSON prints a raw member: a nested payload keeps its
// own indentation.
TEST(JsonLayout, APrintedPayloadBecomesTheLastMemberAsARawMemberWouldPrint)
{
    const std::string payloads[] = {"[]", "{\n\t\"a\":\t[1, 2]\n}", "\"" + std::string(1 << 20, 'x') + "\""};
    for (const std::string &payload : payloads) {
        CJsonPtr expected(reply_envelope("OK", "tab\t\"quote\""));
        cJSON_AddRawToObject(expected.get(), "Parameters", payload.c_str());
        CJsonPtr envelope(reply_envelope("OK", "tab\t\"quote\""));
        HeapText text(json_print_with_raw(envelope.get(), "Parameters", strdup(payload.c_str())));
        ASSERT_TRUE(text);
        EXPECT_EQ(printed(expected.get()), text.get()) << payload.substr(0, 20);
    }
}

} // namespace
