#include "actions/reboot_action.h"

#include "common/log.h"
#include "common/syscmd.h"

#include <cstdlib>
#include <unistd.h>

namespace {

// Time for the flushed data to settle on the storage before the power goes.
constexpr unsigned kFlushPauseSeconds = 8;
// Time for the first reboot request to take effect before the shell is asked again.
constexpr unsigned kRebootRetrySeconds = 3;

// sleep() ends early on a signal; the pauses above must be whole.
void pause_seconds(unsigned seconds)
{
    while (seconds > 0)
        seconds = sleep(seconds);
}

} // namespace

int actionSetDeviceReboot(const char * /*in_json*/, char **out_json)
{
    if (out_json)
        *out_json = nullptr;
    HTTP_SYSTEM_CMD("sync");
    pause_seconds(kFlushPauseSeconds);
    // contract: exact bytes (the whole banner)
    HTTP_PRINT("\n");
    HTTP_PRINT("_________________________________________________________________\n");
    HTTP_PRINT("|                Device Start Restart <system>                  |\n");
    HTTP_PRINT("|_______________________________________________________________|\n");
    HTTP_SYSTEM_CMD("reboot");
    pause_seconds(kRebootRetrySeconds);
    // Through the shell as a last resort, should the direct run have found no program.
    if (system("reboot") != 0)
        HTTP_ERROR("system cmd:<reboot> fail!\n");
    return 0;
}
