// Defences seen from outside, through the real binary and the simulator: password guessing
// is throttled per address without locking the owner out, a page that rebinds its DNS name
// to the device or posts from another site is refused, and requests whose end is in doubt
// are refused with their connection.
#include "testsupport.h"

#include <gtest/gtest.h>
#include <memory>

namespace {

using ts::coded;
using ts::fail;

constexpr char kThrottled[] = "Too many failed attempts, try again later";

class Security : public ::testing::Test {
protected:
    static void SetUpTestSuite() { dev = std::make_unique<ts::Device>(); }
    static void TearDownTestSuite() { dev.reset(); }

    static ts::HttpReply login_from(const std::string &source, const std::string &password)
    {
        return ts::http({.method = "POST",
                         .url = ts::local_url(8080, "/action/device/login"),
                         .body = R"({"username":"admin","password":")" + password + R"(","timeout":60})",
                         .source = source});
    }
    static size_t password_checks() { return ts::occurrences(dev->sim().log(), "\"Command\":\"VerifyPassword\""); }

    static inline std::unique_ptr<ts::Device> dev;
};

TEST_F(Security, TheSixthWrongPasswordFromOneAddressNeverReachesTheApplication)
{
    const std::string wrong(32, '0');
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(fail("Invalid username or password"), login_from("127.0.0.2", wrong).body) << i;
    size_t asked = password_checks();
    EXPECT_EQ(fail(kThrottled), login_from("127.0.0.2", wrong).body);
    EXPECT_EQ(fail(kThrottled), login_from("127.0.0.2", ts::kAdminDigest).body) << "the right one waits too";
    // Credentials in a query are the same check.
    EXPECT_EQ(fail(kThrottled),
              ts::http({.url = ts::local_url(8080, "/action/device/get_user_param?username=admin&password=" + wrong),
                        .source = "127.0.0.2"})
                  .body);
    EXPECT_EQ(asked, password_checks()) << "a refused check is never sent";
    // The owner at another address is not locked out.
    ts::HttpReply owner = login_from("127.0.0.3", ts::kAdminDigest);
    EXPECT_NE(std::string::npos, owner.body.find("user login successfully")) << owner.body;
}

std::string status_of(const std::string &request) { return ts::status_line(ts::raw_http(8080, request, 2000)); }

// A page whose DNS name was rebound to the device.
TEST_F(Security, AnotherHostNameGets421)
{
    EXPECT_EQ("HTTP/1.1 421 Misdirected Request",
              status_of("GET /login.html HTTP/1.1\r\nHost: attacker.example\r\nConnection: close\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 421 Misdirected Request",
              status_of("GET /action/device/get_Language_Format HTTP/1.1\r\nHost: attacker.example:8080\r\n\r\n"));
    EXPECT_EQ("HTTP/1.1 200 OK",
              status_of("GET /login.html HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nConnection: close\r\n\r\n"));
}

TEST_F(Security, ACrossSitePostGets403BeforeItChangesAnything)
{
    const std::string language = "POST /action/device/set_Language_Format HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n"
                                 "Content-Type: text/plain\r\nConnection: close\r\nContent-Length: 33\r\n";
    const std::string body = R"({"language":"english","mode":0})" "\r\n";
    EXPECT_EQ("HTTP/1.1 403 Forbidden", status_of(language + "Origin: http://attacker.example\r\n\r\n" + body));
    EXPECT_EQ("HTTP/1.1 403 Forbidden", status_of(language + "Origin: null\r\n\r\n" + body));
    EXPECT_NE(std::string::npos, dev->call("get_Language_Format").body.find("chinese")) << "nothing was changed";
    EXPECT_EQ("HTTP/1.1 200 OK", status_of(language + "Origin: http://127.0.0.1:8080\r\n\r\n" + body));
    EXPECT_NE(std::string::npos, dev->call("get_Language_Format").body.find("english"));
}

// Requests whose end is in doubt, each hiding a second request.
std::vector<std::string> doubtful_requests()
{
    const std::string hidden = "GET /login.html HTTP/1.1\r\nHost: localhost\r\n\r\n";
    const std::string head = "POST /action/device/get_Language_Format HTTP/1.1\r\nHost: localhost\r\n";
    return {
        head + "Content-Length: 0\r\nContent-Length: " + std::to_string(hidden.size()) + "\r\n\r\n" + hidden,
        head + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + hidden,
        head + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n" + hidden,
        head + "X-Folded: a\r\n b c\r\n\r\n" + hidden,
    };
}

TEST_F(Security, ARequestWhoseEndIsInDoubtGets400)
{
    for (const std::string &request : doubtful_requests())
        EXPECT_EQ("HTTP/1.1 400 Bad Request", ts::status_line(ts::raw_http(8080, request, 2000))) << request;
}

// The connection is closed with the 400.
TEST_F(Security, TheRequestHiddenBehindItIsNeverAnswered)
{
    for (const std::string &request : doubtful_requests()) {
        std::string reply = ts::raw_http(8080, request, 2000);
        EXPECT_EQ(1u, ts::occurrences(reply, "HTTP/1.1 ")) << request << "\n" << reply;
    }
}

} // namespace
