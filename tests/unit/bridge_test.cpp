// The routing file reader and exchanges with real nanomsg peers (the test's own, or the device
// simulator). The request message itself is checked where an application receives it (relay test).
#include "common/event_loop.h"
#include "common/owners.h"
#include "testsupport.h"
#include "webserver/device_message.h"
#include "webserver/msg_exchange.h"
#include "webserver/nn_owners.h"
#include "webserver/routing_table.h"

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <optional>
#include <nanomsg/nn.h>
#include <nanomsg/pair.h>
#include <nanomsg/reqrep.h>
#include <thread>

namespace {

auto &table = http_protocol_command;

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// Writes the routing file and reads it; what the reader wrote on stderr goes to *err.
int load(const std::string &text, std::string *err = nullptr)
{
    ts::write_file(HTTP_COMMAND_FILE, text);
    ts::Capture out(1), capture(2);
    int rc = http_read_config_command();
    if (err)
        *err = capture.text();
    return rc;
}

bool table_is_empty()
{
    static const http_protocol_receiver kZero[HTTP_PROTOCOL_MAX] = {};
    return memcmp(table, kZero, sizeof kZero) == 0;
}

// A reply message {"Command", "Response"} with its terminating zero, as applications send it.
std::string msg(const std::string &command, const std::string &response)
{
    return R"({"Command":")" + command + R"(","Response":)" + response + "}" + std::string(1, '\0');
}

std::string progress(int value, const std::string &command = "StartUpgrade")
{
    return msg(command, R"({"Result":"OK","Parameters":{"UpgradeProgressValue":)" + std::to_string(value) + "}}");
}

// A device application bound at url: the i-th request is answered with the messages of
// answers[i]; later requests get no answer.
class Peer {
public:
    Peer(const std::string &url, int protocol, std::vector<std::vector<std::string>> answers)
        : sock_(nn_socket(AF_SP, protocol)), answers_(std::move(answers))
    {
        int poll_ms = 20;  // how often the peer looks whether the test is done with it
        nn_setsockopt(sock_, NN_SOL_SOCKET, NN_RCVTIMEO, &poll_ms, sizeof poll_ms);
        EXPECT_GE(nn_bind(sock_, url.c_str()), 0) << url << ": " << nn_strerror(nn_errno());
        thread_ = std::thread([this] {
            for (char *buf = nullptr; !stop_;) {
                int got = nn_recv(sock_, &buf, NN_MSG, 0);
                if (got < 0)
                    continue;
                std::lock_guard<std::mutex> lock(mutex_);
                requests_.emplace_back(buf, static_cast<size_t>(got));
                nn_freemsg(buf);
                for (const std::string &reply : requests_.size() <= answers_.size() ? answers_[requests_.size() - 1]
                                                                                    : std::vector<std::string>{})
                    nn_send(sock_, reply.data(), reply.size(), 0);
            }
        });
    }
    ~Peer()
    {
        stop_ = true;
        thread_.join();
        nn_close(sock_);
    }
    std::vector<std::string> requests()  // as received, terminating zero included
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return requests_;
    }

private:
    int sock_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<std::string> requests_;
    std::vector<std::vector<std::string>> answers_;
    std::thread thread_;
};

// A relay as the dispatcher makes it (route lookup, exchange, the route's end), started on
// the calling thread's loop; ended once its result is in.
struct Relay {
    Relay(const std::string &command, const std::string &payload)
    {
        http_protocol_matching(command.c_str(), payload.c_str(), WebsHold(), [this, command, payload](Route route) {
            if (!route) {
                ended = true;  // no route: code stays -1
                return;
            }
            auto open = std::make_shared<Route>(std::move(route));
            http_send_and_recv_app_codec(command.c_str(), payload.c_str(), *open, [this, open](ExchangeResult &r) {
                open->reset();
                code = r.code;
                reply = r.reply ? r.reply.get() : "";
                reason = r.reason;
                ended = true;
                ended_ms = ts::now_ms();
            });
        });
    }
    bool ended = false;
    int code = -1;
    std::string reply, reason;
    long long ended_ms = 0;
};

// Runs the loop until every relay has ended.
void run_until_ended(EventLoop &loop, std::initializer_list<const Relay *> relays)
{
    auto all_ended = [&] {
        for (const Relay *r : relays)
            if (!r->ended)
                return false;
        return true;
    };
    while (!all_ended())
        loop.run_once(100);
}

// One relay on a loop of its own: the exchange's result, or -1 when there is no route.
int relay(const std::string &command, const std::string &payload, std::string *reply, std::string *reason = nullptr)
{
    EventLoop loop;
    EventLoop::Scope scope(loop);
    Relay r(command, payload);
    run_until_ended(loop, {&r});
    *reply = r.reply;
    if (reason)
        *reason = r.reason;
    return r.code;
}

TEST(RoutingTable, FilesWithoutARouteGiveAnEmptyTable)
{
    for (const char *text : {"", "# a b c\n#x y ipc://z\n", "ab\n\n\nx\n"})
        EXPECT_TRUE(load(text) == 0 && table_is_empty()) << text;
}

TEST(RoutingTable, OtherSpacingCrLfAndCommentsReadLikeTheCanonicalFile)
{
    ASSERT_EQ(0, load("Get app_a ipc:///tmp/a.ipc\nSet app_a ipc:///tmp/a.ipc\nCap device_cap /c.json\n"));
    EXPECT_STREQ("Set", table[0].command[1]);
    EXPECT_STREQ("/c.json", table[1].cap_path[0]);
    EXPECT_STREQ("", table[1].ipc_url);
    http_protocol_receiver expected[HTTP_PROTOCOL_MAX];
    memcpy(expected, table, sizeof expected);
    for (const char *variant :
         {"Get   app_a  ipc:///tmp/a.ipc\n   Set app_a ipc:///tmp/a.ipc   \nCap device_cap /c.json",
          "Get app_a ipc:///tmp/a.ipc\r\nSet app_a ipc:///tmp/a.ipc\r\nCap device_cap /c.json\r\n",
          "Get app_a ipc:///tmp/a.ipc four\n#Get app_b x\nSet app_a ipc:///tmp/a.ipc\n\nCap device_cap /c.json"})
        EXPECT_TRUE(load(variant) == 0 && memcmp(expected, table, sizeof expected) == 0) << variant;
}

TEST(RoutingTable, OnlySpacesSeparateWords)
{
    ASSERT_EQ(0, load("Get\tStatus app_a ipc:///tmp/a.ipc\n"));
    EXPECT_STREQ("Get\tStatus", table[0].command[0]);
}

TEST(RoutingTable, AHashMakesACommentOnlyInTheFirstColumn)
{
    ASSERT_EQ(0, load("Get app_a ipc:///tmp/a.ipc\n #Set app_a\n"));
    EXPECT_STREQ("#Set", table[0].command[1]);
}

// Blocks A B A give three entries.
TEST(RoutingTable, EachBlockOfLinesForAReceiverIsAnEntry)
{
    ASSERT_EQ(0, load("One app_a ipc:///a1\nTwo app_a ipc:///a2\nThree app_b ipc:///b\nFour app_a ipc:///a3\n"));
    EXPECT_STREQ("One", table[0].command[0]);
    EXPECT_STREQ("app_b", table[1].receiver_name);
    EXPECT_STREQ("Four", table[2].command[0]);
    EXPECT_STREQ("ipc:///a3", table[2].ipc_url);
}

TEST(RoutingTable, TheLastAddressOfABlockWins)
{
    ASSERT_EQ(0, load("One app_a ipc:///a1\nTwo app_a ipc:///a2\n"));
    EXPECT_STREQ("ipc:///a2", table[0].ipc_url);
}

TEST(RoutingTable, AMissingFileEmptiesTheTable)
{
    ASSERT_EQ(0, load("Get app_a ipc:///tmp/a.ipc\n"));
    unlink(HTTP_COMMAND_FILE);
    ts::Capture quiet(2);
    EXPECT_EQ(-7, http_read_config_command());
    EXPECT_TRUE(table_is_empty());
}

TEST(RoutingTable, OneReceiverOrCommandTooManyOrAnOverlongWordRefusesTheWholeFile)
{
    auto lines = [](int count, const std::string &before, const std::string &after) {
        std::string text;
        for (int i = 0; i < count; ++i)
            text += before + std::to_string(i) + after + "\n";
        return text;
    };
    std::string err;
    EXPECT_EQ(0, load(lines(16, "Cmd app_", " ipc:///tmp/x.ipc")));
    EXPECT_STREQ("app_15", table[15].receiver_name);
    EXPECT_EQ(0, load(lines(64, "Cmd", " app /c")));
    EXPECT_STREQ("/c", table[0].cap_path[63]);
    EXPECT_EQ(-1, load(lines(65, "Cmd", " app /c")));
    EXPECT_EQ(-1, load(lines(17, "Cmd app_", " ipc:///tmp/x.ipc"), &err));
    EXPECT_TRUE(ts::has_error(err, "max protocol num 16 \n"));
    EXPECT_TRUE(table_is_empty()) << "a refused file leaves no half table behind";
    const std::string ok = "Get app ipc:///tmp/a.ipc\n";
    const std::pair<std::string, int> words[] = {
        {std::string(63, 'c') + " app ipc:///x", 0},  {std::string(64, 'c') + " app ipc:///x", -1},
        {"Get " + std::string(31, 'r') + " /c", 0},   {"Get " + std::string(32, 'r') + " /c", -1},
        {"Get app /" + std::string(126, 'p'), 0},     {"Get app /" + std::string(127, 'p'), -1},
        {"Get app ipc://" + std::string(241, 'u'), 0}, {"Get app ipc://" + std::string(242, 'u'), -1},
    };
    for (const auto &[line, rc] : words) {
        EXPECT_EQ(rc, load(ok + line + "\n" + ok, &err)) << line.size();
        EXPECT_TRUE(rc == 0 || (has(err, std::string(HTTP_COMMAND_FILE) + " line 2") && table_is_empty())) << err;
    }
}

TEST(MsgExchange, EachReplyGetsTheCodeOfItsFirstFault)
{
    const std::string bad_format = "The server returned an incorrect format parameter",
                      failed = "Failed to request server";
    const struct {
        std::string reply;
        int code;
        std::string reason_or_answer;  // the reason of a fault, the answer of an accepted reply
    } cases[] = {
        {"not json", 508, bad_format}, {R"({"Response":{}})", 550, failed}, {msg("", "{}"), 550, failed},
        {R"({"Command":7,"Response":{}})", 550, failed}, {R"({"command":"GetStatus","Response":{}})", 550, failed},
        {msg("getstatus", "{}"), 550, failed}, {msg("GetStatus", "\"OK\""), 508, bad_format},
        {msg("GetStatus", "[]"), 508, bad_format}, {R"({"Command":"GetStatus"})", 508, bad_format},
        {R"({"Command":"GetStatus","response":{}})", 0, "{\n}"},
        // The zero byte is not needed, and ends the text when present.
        {R"({"Command":"GetStatus","Response":{"a":1}})", 0, "{\n\t\"a\":\t1\n}"},
        {msg("GetStatus", "{}") + "garbage", 0, "{\n}"},
    };
    ASSERT_EQ(0, load("GetStatus app_a ipc:///tmp/a.ipc\n"));
    std::vector<std::vector<std::string>> answers;
    for (const auto &c : cases)
        answers.push_back({c.reply});
    Peer peer("ipc:///tmp/a.ipc", NN_REP, answers);
    for (const auto &c : cases) {
        std::string reply, reason;
        ts::Capture err(2);
        EXPECT_EQ(c.code, relay("GetStatus", "{}", &reply, &reason)) << c.reply;
        EXPECT_EQ(c.reason_or_answer, c.code ? reason : reply) << c.reply;
        EXPECT_EQ(c.code != 0, has(err.text(), "http send recv fail des=" + std::to_string(c.code) + "\n"));
    }
}

// cJSON allocations made and still held; the one numbered fail_at fails.
int cjson_calls = 0, cjson_live = 0, cjson_fail_at = 0;

TEST(MsgExchange, RequestMessageLeavesNothingBehindWhicheverAllocationFails)
{
    cJSON_Hooks counting = {.malloc_fn = [](size_t n) -> void * {
                                return ++cjson_calls == cjson_fail_at ? nullptr : (++cjson_live, malloc(n));
                            },
                            .free_fn = [](void *p) {
                                cjson_live -= p != nullptr;
                                free(p);
                            }};
    for (cjson_fail_at = 1; cjson_calls >= cjson_fail_at - 1; ++cjson_fail_at) {
        cjson_calls = cjson_live = 0;
        cJSON_InitHooks(&counting);
        cJSON_free(http_set_command_response("GetStatus", "app_a", R"({"a":[1,{"b":"c"}]})"));
        cJSON_InitHooks(nullptr);
        EXPECT_EQ(0, cjson_live) << "allocation " << cjson_fail_at;
    }
}

TEST(MsgExchange, SlowCommandsWaitLonger)
{
    const std::tuple<const char *, bool, int> cases[] = {
        {"StartUpgrade", true, 180000},             {"StartUpgrade", false, 3000},
        {"GetScanWIFIHotspot", false, 180000},      {"GetNetworkWIFIParameters", false, 5000},
        {"SetNetworkWIFIParameters", true, 5000},   {"VerifyPassword", true, 3000},
        {"getscanwifihotspot", false, 3000},
    };
    for (const auto &[command, upgrade, ms] : cases)
        EXPECT_EQ(ms, http_msg_recv_timeout(command, upgrade)) << command << (upgrade ? " on" : " off") << " the upgrade socket";
}

// Three exchanges at once on one loop: app_a (the simulator) stays silent, nothing listens
// at b.ipc (the connection is made in the background and only the exchange fails), app_c
// answers. What they gave is kept for the tests below.
struct Ended {
    int code = -2;
    std::string reason;
    long long ms = -1;  // from the start of the three
};

class Unanswered : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(0, load("GetStatus app_a ipc:///tmp/a.ipc\n"));
        ts::Process sim = ts::start_sim(R"({"GetStatus": {"silent": true}})");
        ASSERT_EQ(0, load("GetStatus app_a ipc:///tmp/a.ipc\nGetStatus2 app_b ipc:///tmp/b.ipc\n"
                          "GetOther app_c ipc:///tmp/c.ipc\n"));
        Peer c("ipc:///tmp/c.ipc", NN_REP, {{msg("GetOther", "{}")}});
        EventLoop loop;
        EventLoop::Scope scope(loop);
        long long start = ts::now_ms();
        Relay silent_relay("GetStatus", "{}"), missing_relay("GetStatus2", "{}"), other_relay("GetOther", "{}");
        run_until_ended(loop, {&silent_relay, &missing_relay, &other_relay});
        for (auto [relay, seen] : {std::pair{&silent_relay, &silent}, {&missing_relay, &missing}, {&other_relay, &other}})
            *seen = {relay->code, relay->reason, relay->ended_ms - start};
        sim_log = sim.log();
    }

    static inline Ended silent, missing, other;
    static inline std::string sim_log;
};

TEST_F(Unanswered, ASilentApplicationTimesOut)
{
    EXPECT_EQ(504, silent.code);
    EXPECT_EQ("Connection service timed out", silent.reason);
    EXPECT_TRUE(silent.ms >= 2990 && silent.ms < 3500) << silent.ms;
    EXPECT_TRUE(has(sim_log, "devicesim: app_a stays silent to GetStatus\n")) << sim_log;
}

TEST_F(Unanswered, AMissingApplicationTimesOut)
{
    EXPECT_EQ(504, missing.code);
    EXPECT_TRUE(missing.ms >= 2990 && missing.ms < 3500) << missing.ms;
}

TEST_F(Unanswered, AnAnsweringApplicationWaitsForNoOther)
{
    EXPECT_EQ(0, other.code);
    EXPECT_LT(other.ms, 1000);
}

// One application's exchanges happen one at a time, in arrival order, each on its own socket.
TEST(MsgExchange, ExchangesWithOneApplicationTakeTurnsInArrivalOrder)
{
    ASSERT_EQ(0, load("Get app_a ipc:///tmp/a.ipc\n"));
    Peer a("ipc:///tmp/a.ipc", NN_REP, {{msg("Get", R"({"n":1})")}, {msg("Get", R"({"n":2})")}, {msg("Get", R"({"n":3})")}});
    EventLoop loop;
    EventLoop::Scope scope(loop);
    Relay first("Get", R"({"i":1})"), second("Get", R"({"i":2})"), third("Get", R"({"i":3})");
    run_until_ended(loop, {&first, &second, &third});
    EXPECT_EQ("{\n\t\"n\":\t1\n}", first.reply);
    EXPECT_EQ("{\n\t\"n\":\t2\n}", second.reply);
    EXPECT_EQ("{\n\t\"n\":\t3\n}", third.reply);
    ASSERT_EQ(3u, a.requests().size());
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(has(a.requests()[i], "\"i\":\t" + std::to_string(i + 1))) << a.requests()[i];
}

// A command listed for two receivers, relayed once.
class TwoReceivers : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(0, load("GetStatus app_a ipc:///tmp/a.ipc\nGetStatus app_b ipc:///tmp/b.ipc\n"));
        a = std::make_unique<Peer>("ipc:///tmp/a.ipc", NN_REP, Answers{{msg("GetStatus", R"({"From":"a"})")}});
        b = std::make_unique<Peer>("ipc:///tmp/b.ipc", NN_REP,
                                   Answers{{msg("GetStatus", R"({"Result":"OK","Parameters":{"Speed":1.5}})")}});
        ts::Capture out(1), err(2);
        code = relay("GetStatus", R"({"To":"all"})", &reply);
    }

    using Answers = std::vector<std::vector<std::string>>;
    std::unique_ptr<Peer> a, b;
    int code = -2;
    std::string reply;
};

TEST_F(TwoReceivers, TheCommandReachesBoth)
{
    ASSERT_EQ(1u, a->requests().size());
    EXPECT_TRUE(has(a->requests()[0], "\"Receiver\":\t\"app_a\"") && has(a->requests()[0], "\"To\":\t\"all\""));
    ASSERT_EQ(1u, b->requests().size());
    EXPECT_TRUE(has(b->requests()[0], "\"Receiver\":\t\"app_b\""));
    EXPECT_EQ('\0', b->requests()[0].back()) << "the terminating zero travels with the request";
}

TEST_F(TwoReceivers, TheLastOneAnswers)
{
    EXPECT_EQ(0, code);
    EXPECT_EQ("{\n\t\"Result\":\t\"OK\",\n\t\"Parameters\":\t{\n\t\t\"Speed\":\t1.5\n\t}\n}", reply);
}

TEST_F(TwoReceivers, BothSocketsAreClosed)
{
    EXPECT_EQ(-1, table[0].msg_fd) << "the earlier receiver's socket is closed at once";
    EXPECT_EQ(-1, nn_send(table[1].msg_fd, "x", 1, NN_DONTWAIT));
    EXPECT_EQ(EBADF, nn_errno()) << "the last one's by http_msg_socket_uninit";
}

TEST(MsgExchange, UpgradeProgressIsFollowedOnlyOnTheUpgradeApplicationsSocket)
{
    ASSERT_EQ(0, load("StartUpgrade app_update ipc:///tmp/up.ipc\nStartUpgrade2 app_other ipc:///tmp/o.ipc\n"));
    Peer update("ipc:///tmp/up.ipc", NN_PAIR, {{progress(40), progress(-5), progress(100)}});
    Peer other("ipc:///tmp/o.ipc", NN_REP, {{progress(40, "StartUpgrade2")}});
    std::string reply;
    ts::Capture out(1), err(2);  // every progress reply is traced
    EXPECT_EQ(0, relay("StartUpgrade", "{}", &reply));
    EXPECT_TRUE(has(reply, "\"UpgradeProgressValue\":\t100")) << reply;
    UpgradeStatus status = http_upgrade_status();
    EXPECT_FALSE(status.running);
    EXPECT_EQ(100, status.value);
    EXPECT_EQ(0, relay("StartUpgrade2", "{}", &reply));
    EXPECT_TRUE(has(reply, "\"UpgradeProgressValue\":\t40")) << "another application ends at once";
}

// A bound pair socket refuses a second connection and drops what was written into it; the
// request goes out again on the connection made once the one holding the application left.
TEST(MsgExchange, AnUpgradeRequestRefusedWhileThePairIsHeldIsSentAgainOnceItIsFree)
{
    ASSERT_EQ(0, load("GetUpgradeState app_update ipc:///tmp/up.ipc\n"));
    Peer update("ipc:///tmp/up.ipc", NN_PAIR, {{"held"}, {msg("GetUpgradeState", R"({"Result":"OK"})")}});
    // The holder's connection is the application's once a message went both ways on it.
    NnSocket holder(nn_socket(AF_SP, NN_PAIR));
    int wait_ms = 5000;
    ASSERT_EQ(0, nn_setsockopt(holder.get(), NN_SOL_SOCKET, NN_RCVTIMEO, &wait_ms, sizeof wait_ms));
    ASSERT_GE(nn_connect(holder.get(), "ipc:///tmp/up.ipc"), 0);
    ASSERT_EQ(5, nn_send(holder.get(), "hold", 5, 0));
    char answer[8] = "";
    ASSERT_EQ(4, nn_recv(holder.get(), answer, sizeof answer, 0));

    EventLoop loop;
    EventLoop::Scope scope(loop);
    std::optional<Relay> r;
    bool refused = false, ended_while_held = false;
    size_t delivered_while_held = 0;
    {
        ts::Capture out(1), err(2);  // the exchange's lines; the failures below are not caught
        r.emplace("GetUpgradeState", "{}");
        // Until the server's connection has been refused at least twice.
        long long give_up = ts::now_ms() + 5000;
        while (!refused && ts::now_ms() < give_up) {
            loop.run_once(10);
            refused = table[0].msg_fd >= 0 && nn_get_statistic(table[0].msg_fd, NN_STAT_BROKEN_CONNECTIONS) >= 2;
        }
        ended_while_held = r->ended;
        delivered_while_held = update.requests().size();
        holder.reset();
        if (refused)
            run_until_ended(loop, {&*r});
    }
    ASSERT_TRUE(refused);
    EXPECT_FALSE(ended_while_held);
    EXPECT_EQ(1u, delivered_while_held) << "the holder's message alone";
    EXPECT_EQ(0, r->code) << r->reason;
    ASSERT_EQ(2u, update.requests().size()) << "delivered once";
    EXPECT_TRUE(has(update.requests()[1], "GetUpgradeState"));
}

} // namespace
