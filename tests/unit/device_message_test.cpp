#include "bridge_support.h"
#include "common/owners.h"
#include "webserver/device_message.h"

#include <ctime>
#include <gtest/gtest.h>
#include <nanomsg/reqrep.h>

namespace {

std::string request(const char *payload)
{
    HeapText text(http_set_command_response("GetStatus", "app_a", payload));
    return text ? text.get() : "(none)";
}

TEST(DeviceMessage, RequestListsItsMembersInOrderWithAnIntegerTimestamp)
{
    long before = time(nullptr);
    std::string text = request(R"({"a": [1, "x"]})");
    long after = time(nullptr);
    size_t at = text.find("\"Timestamp\":\t");
    ASSERT_NE(std::string::npos, at) << text;
    long stamp = std::stol(text.substr(at + 13));
    EXPECT_TRUE(stamp >= before && stamp <= after) << stamp;
    EXPECT_EQ("{\n\t\"Command\":\t\"GetStatus\",\n\t\"Sender\":\t\"web_server\",\n\t\"Receiver\":\t\"app_a\",\n"
              "\t\"Timestamp\":\t" + std::to_string(stamp) + ",\n\t\"Parameters\":\t{\n\t\t\"a\":\t[1, \"x\"]\n\t}\n}",
              text);
}

TEST(DeviceMessage, PayloadIsInsertedAsAValueAndLeftOutWhenItIsNotJson)
{
    for (const char *payload : {static_cast<const char *>(nullptr), "", "not json", "{\"a\":"})
        EXPECT_EQ(std::string::npos, request(payload).find("Parameters")) << (payload ? payload : "(null)");
    EXPECT_NE(std::string::npos, request("\"text\"").find("\"Parameters\":\t\"text\"\n}"));
    EXPECT_NE(std::string::npos, request("[]").find("\"Parameters\":\t[]\n}"));
}

TEST(DeviceMessage, RepliesAreCheckedInOrderAndFaultsGiveTheirCodes)
{
    const std::string kBadFormat = "The server returned an incorrect format parameter";
    const std::string kFailed = "Failed to request server";
    struct Case {
        std::string reply;
        int code;
        std::string reason_or_answer;  // the reason of a fault, the answer of an accepted reply
        std::string line;
    } cases[] = {
        {"not json", 508, kBadFormat, "http recv format fail! :" + kBadFormat},
        {R"({"Response":{}})", 550, kFailed, "http recv command fail! :" + kFailed},
        {bs::msg("", "{}"), 550, kFailed, "http recv command fail! :" + kFailed},
        {R"({"Command":7,"Response":{}})", 550, kFailed, "http recv command fail! :" + kFailed},
        {R"({"command":"GetStatus","Response":{}})", 550, kFailed, "http recv command fail! :" + kFailed},
        {bs::msg("getstatus", "{}"), 550, kFailed, "http recv command strcmp fail getstatus\n"},
        {bs::msg("GetStatus", "\"OK\""), 508, kBadFormat, "http recv format fail!! :" + kBadFormat},
        {bs::msg("GetStatus", "[]"), 508, kBadFormat, "http recv format fail!! :" + kBadFormat},
        {R"({"Command":"GetStatus"})", 508, kBadFormat, "http recv format fail!! :" + kBadFormat},
        {R"({"Command":"GetStatus","response":{}})", 0, "{\n}", "http recv buf="},
        // The zero byte is not needed, and ends the text when present.
        {R"({"Command":"GetStatus","Response":{"a":1}})", 0, "{\n\t\"a\":\t1\n}", "http recv buf="},
        {bs::msg("GetStatus", "{}") + "garbage", 0, "{\n}", "http recv buf="},
    };
    ASSERT_EQ(0, bs::load_routes("GetStatus app_a ipc:///tmp/a.ipc\n"));
    std::vector<std::vector<std::string>> answers;
    for (const Case &c : cases)
        answers.push_back({c.reply});
    bs::Peer peer("ipc:///tmp/a.ipc", NN_REP, answers);
    for (const Case &c : cases) {
        std::string reply, reason;
        ts::Capture err(2);
        EXPECT_EQ(c.code, bs::relay("GetStatus", "{}", &reply, &reason)) << c.reply;
        EXPECT_EQ(c.reason_or_answer, c.code ? reason : reply) << c.reply;
        std::string lines = err.text();
        EXPECT_NE(std::string::npos, lines.find(">: " + c.line)) << c.reply << "\n" << lines;
        EXPECT_EQ(c.code != 0, lines.find("http send recv fail des=" + std::to_string(c.code) + "\n") != std::string::npos);
    }
}

} // namespace
