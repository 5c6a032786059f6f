// A device application that never answers stalls nothing but its own exchanges, and requests
// queued behind it whose clients went away are dropped: through the real binary and the
// simulator.
#include "testsupport.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>
#include <thread>

namespace {

using ts::coded;

// app_storage never answers "GetStorageStatus" (3 s time-out); app_media answers at once.
constexpr char kScenario[] = R"({"GetStorageStatus": {"silent": true}, "SetVideoEncodeParameters": {"delay_ms": 200}})";

class Stall : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dev = std::make_unique<ts::Device>(kScenario);
        sid = dev->login();
    }
    static void TearDownTestSuite() { dev.reset(); }

    // Starts a "GetStorageStatus" that app_storage leaves unanswered, and waits until the
    // application has it.
    static std::thread hang_storage(ts::HttpReply *reply)
    {
        size_t before = ts::occurrences(dev->sim().log(), "stays silent to GetStorageStatus");
        std::thread t([reply] { *reply = dev->call("GetStorageStatus", "sessionid=" + sid); });
        EXPECT_TRUE(ts::eventually(
            [before] { return ts::occurrences(dev->sim().log(), "stays silent to GetStorageStatus") > before; }));
        return t;
    }

    // The median time of five calls, in milliseconds.
    static long long median_ms(const std::function<void()> &call)
    {
        std::vector<long long> times;
        for (int i = 0; i < 5; ++i) {
            long long start = ts::now_ms();
            call();
            times.push_back(ts::now_ms() - start);
        }
        std::sort(times.begin(), times.end());
        return times[2];
    }

    static inline std::unique_ptr<ts::Device> dev;
    static inline std::string sid;
};

TEST_F(Stall, ASilentApplicationHoldsUpOnlyItsOwnExchanges)
{
    ts::HttpReply hung;
    std::thread t = hang_storage(&hung);
    const std::string session = "sessionid=" + sid;
    EXPECT_LT(median_ms([&] {
        EXPECT_NE(std::string::npos, dev->call("get_device_localtime", session).body.find("local_time"));
    }), 50) << "a local action";
    EXPECT_LT(median_ms([&] { EXPECT_EQ(ts::plain_ok(), dev->call("detection_sessionid", session).body); }), 10)
        << "the session probe";
    EXPECT_LT(median_ms([&] {
        EXPECT_NE(std::string::npos, dev->call("GetVideoEncodeParameters", session).body.find("\"Result\""));
    }), 50) << "a command to another application";
    EXPECT_LT(median_ms([&] { EXPECT_EQ(coded(-16, "Session ID is empty"), dev->call("get_user_param").body); }), 50)
        << "a request without a session";
    t.join();
    EXPECT_EQ(coded(504, "Connection service timed out"), hung.body);
}

TEST_F(Stall, CommandsToOneApplicationAreServedInArrivalOrder)
{
    std::vector<ts::HttpReply> replies(3);
    std::vector<std::thread> clients;
    const std::string asked = "actionName=SetVideoEncodeParameters\n";
    for (int i = 0; i < 3; ++i) {
        size_t before = ts::occurrences(dev->server().log(), asked);
        clients.emplace_back([&replies, i] {
            replies[i] = dev->call("SetVideoEncodeParameters", "sessionid=" + sid,
                                   R"({"Order":)" + std::to_string(i) + "}");
        });
        // The next one leaves once the server has this one.
        ASSERT_TRUE(ts::eventually([&] { return ts::occurrences(dev->server().log(), asked) > before; }));
    }
    for (auto &c : clients)
        c.join();
    for (const ts::HttpReply &r : replies)
        EXPECT_NE(std::string::npos, r.body.find("\"Result\":\t\"OK\"")) << r.body;
    std::string log = dev->sim().log();
    size_t first = log.find(R"("Order":0)"), second = log.find(R"("Order":1)"), third = log.find(R"("Order":2)");
    EXPECT_TRUE(first < second && second < third && third != std::string::npos) << log;
}

// A request queued behind a silent application whose client goes away is never sent, and
// its connection does not linger half-closed.
TEST_F(Stall, WorkForAClientThatWentAwayIsDropped)
{
    const std::string sent = "app_storage request: {\"Command\":\"GetStorageStatus\"";
    size_t sent_before = ts::occurrences(dev->sim().log(), sent);
    size_t asked_before = ts::occurrences(dev->server().log(), "actionName=GetStorageStatus\n");
    ts::HttpReply hung;
    std::thread t = hang_storage(&hung);
    {
        UniqueFd fd = ts::connect_from("127.0.0.1", 8080);
        std::string request = "GET /action/device/GetStorageStatus?sessionid=" + sid + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
        ASSERT_EQ(static_cast<ssize_t>(request.size()), send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL));
        ASSERT_TRUE(ts::eventually([asked_before] {
            return ts::occurrences(dev->server().log(), "actionName=GetStorageStatus\n") == asked_before + 2;
        }));
    }
    // Within a second the server has closed its end too: no connection waits in CLOSE-WAIT.
    EXPECT_TRUE(ts::eventually([] {
        std::string out;
        ts::run({"/bin/ss", "-Htn", "state", "close-wait", "sport", "= :8080"}, &out);
        return out.empty();
    }, 1000));
    t.join();
    EXPECT_EQ(coded(504, "Connection service timed out"), hung.body);
    // The application takes its requests in order: had the dropped one been sent, it would
    // have come before the next one.
    EXPECT_NE(std::string::npos, dev->call("FormatStorage", "sessionid=" + sid).body.find("\"Result\""));
    EXPECT_EQ(sent_before + 1, ts::occurrences(dev->sim().log(), sent))
        << "the dropped request must never reach the application";
}

} // namespace
