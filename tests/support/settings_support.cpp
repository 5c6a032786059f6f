#include "settings_support.h"

#include "testsupport.h"

#include <cstdlib>

namespace ts {

HandlerRun call_handler(const std::function<int(char **)> &handler)
{
    HandlerRun run;
    char *text = nullptr;
    {
        Capture err(2), out(1);
        run.rc = handler(&text);
        run.out = out.text();
        run.err = err.text();
    }
    run.reply = text ? text : "<null>";
    free(text);
    return run;
}

std::string fail_reply(const std::string &reason)
{
    return "{\n\t\"Result\":\t\"Fail\",\n\t\"Reason\":\t\"" + reason + "\"\n}";
}

std::string ok_reply(const std::string &reason)
{
    return "{\n\t\"Result\":\t\"OK\",\n\t\"Reason\":\t\"" + reason + "\"\n}";
}

std::string params_reply(const std::string &reason, const std::string &params)
{
    return "{\n\t\"Result\":\t\"OK\",\n\t\"Reason\":\t\"" + reason + "\",\n\t\"Parameters\":\t" + params + "\n}";
}

std::string error_line(const std::string &func, const std::string &message)
{
    return ", " + func + ">: " + message + "\033[0m";
}

} // namespace ts
