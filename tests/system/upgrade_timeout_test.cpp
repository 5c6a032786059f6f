// An upgrade application that stops answering: the server gives up three minutes after the
// last progress reply. A binary of its own, so that its long wait runs beside the others.
#include "device_support.h"

#include <gtest/gtest.h>

namespace {

TEST(UpgradeTimeout, SilenceAfterAProgressReplyAnswers504AfterThreeMinutes)
{
#ifdef __SANITIZE_ADDRESS__
    // The server only waits here; the time-out path itself runs under the sanitizers in the
    // exchange's own tests, in seconds.
    GTEST_SKIP() << "three idle minutes add nothing under the sanitizers";
#endif
    // Progress 40 at once, then nothing until long after the server's time-out.
    ts::Device dev(8080, R"({"StartUpgrade": {"replies": [
        {"Response": {"Result": "OK", "Parameters": {"UpgradeProgressValue": 40}}},
        {"delay_ms": 240000, "Response": {"Result": "OK", "Parameters": {"UpgradeProgressValue": 100}}}]}})");
    std::string sid = dev.login();
    ts::HttpRequest req;
    req.method = "POST";
    req.url = ts::local_url(dev.port(), "/action/device/StartUpgrade?sessionid=" + sid);
    req.body = "image";
    req.timeout_ms = 200000;
    long long start = ts::now_ms();
    ts::HttpReply r = ts::http(req);
    long long waited = ts::now_ms() - start;

    EXPECT_EQ(ts::coded_failure(504, "Connection service timed out"), r.body) << r.error;
    EXPECT_GE(waited, 180000);
    EXPECT_LT(waited, 190000);
    EXPECT_EQ("image", ts::read_file("/tmp/upgrade"));
    EXPECT_NE(std::string::npos, dev.server_log().find("http recv ProgressValue->valueint 40\n"));
}

} // namespace
