#include "common/log.h"
#include "testsupport.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

TEST(Log, ErrorLineNamesTheModuleFolderLineAndFunction)
{
    ts::Capture err(2);
    int line = __LINE__ + 1;
    HTTP_ERROR("Invalid URL\n");
    EXPECT_EQ("\033[1;31m<ERROR! tests/unit:" + std::to_string(line) + ", TestBody>: Invalid URL\n\033[0m",
              err.text());
}

TEST(Log, DebugTraceAndPlainLinesGoToStdout)
{
    ts::Capture out(1);
    int line = __LINE__ + 1;
    HTTP_DEBUG("actionName=%s\n", "login");
    HTTP_PRINT("http_port %d\r\n", 88);
    EXPECT_EQ("<DEBUG file tests/unit, line " + std::to_string(line) + ">: actionName=login\nhttp_port 88\r\n",
              out.text());
}

TEST(Log, LongLinesAreWrittenWhole)
{
    std::string big(100000, 'z');
    ts::Capture out(1);
    HTTP_PRINT("<%s>\n", big.c_str());
    EXPECT_EQ("<" + big + ">\n", out.text());
}

TEST(Log, LinesOfTwoThreadsNeverInterleave)
{
    ts::Capture err(2);
    std::vector<std::thread> threads;
    for (char c : {'a', 'b', 'c', 'd'})
        threads.emplace_back([c] {
            std::string text(3000, c);
            for (int i = 0; i < 200; ++i)
                HTTP_ERROR("%s\n", text.c_str());
        });
    for (auto &t : threads)
        t.join();
    std::string all = err.text();
    size_t lines = 0, pos = 0;
    while ((pos = all.find("\033[1;31m<ERROR! ", pos)) != std::string::npos) {
        size_t body = all.find(">: ", pos) + 3;
        char c = all[body];
        EXPECT_EQ(std::string(3000, c) + "\n\033[0m", all.substr(body, 3005));
        ++lines;
        pos = body;
    }
    EXPECT_EQ(800u, lines);
}

} // namespace
