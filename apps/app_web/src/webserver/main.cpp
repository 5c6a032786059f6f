// Process entry: prepares the process, reads the command line, starts the web server thread
// and then supervises its port for the rest of the process's life.
#include "actions/port_actions.h"
#include "c2json/port_json.h"
#include "common/log.h"
#include "common/text_field.h"
#include "webserver/nn_owners.h"
#include "webserver/routing_table.h"
#include "webserver/service.h"
#include "webs/webs_limits.h"

#include <csignal>
#include <malloc.h>
#include <nanomsg/pair.h>
#include <sys/prctl.h>
#include <unistd.h>

void show_help()
{
    // contract: exact bytes (the whole help text)
    HTTP_PRINT("---------------------------------------------\n");
    HTTP_PRINT("./webserver \t\t\t:  using function  ==> eth0   80 \n");
    HTTP_PRINT("./webserver 88\t\t\t:  using function  ==> eth0   88 (Custom port) \n");
    HTTP_PRINT("./webserver 88\tlo\t\t:  using function  ==> lo\t  88  127.0.0.1  88(Custom port) \n");
    HTTP_PRINT("---------------------------------------------\n");
}

int main(int argc, char **argv)
{
    prctl(PR_SET_NAME, "webserver", 0, 0, 0);
    // Writes to a closed connection must fail with EPIPE, not end the process.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);
#ifdef __GLIBC__
    // Each connection's memory (kConnectionMemory) gets pages of its own, which go back to
    // the system when the connection closes; from the C library's heap they would stay with
    // the process, 16 KiB for every connection that was ever open at the same time.
    mallopt(M_MMAP_THRESHOLD, static_cast<int>(webs_limits::kConnectionMemory));
#endif

    WebParams web_params = {WEB_PORT_DEFAULT, WEB_HTTPS_PORT_DEFAULT, "*", "eth0"};
    int args = argc - 1;
    if (args == 1 && argv[1][0] == 'h') {
        show_help();
        return 0;
    }
    if (args >= 1) {
        web_params.http_port = http_port_from_text(argv[1]);
        HTTP_PRINT("http_port %d\r\n", web_params.http_port);
    }
    if (args >= 2) {
        copy_field(web_params.interfaces_name, sizeof web_params.interfaces_name, argv[2]);
        HTTP_PRINT("interfaces_name %s\r\n", web_params.interfaces_name);
    }
    if (args >= 3) {
        show_help();
        return 0;
    }

    if (http_read_config_command() != 0) {
        HTTP_ERROR("http read comfig fail\n");  // contract: exact bytes
        return 0;
    }
    // nanomsg starts its worker thread with the first open socket and joins it when the last
    // one closes. Each relay opens and closes its own socket, so an idle socket held for the
    // process's life spares every relay a thread start and join.
    NnSocket messaging_kept_up(nn_socket(AF_SP, NN_PAIR));
    // The stored port wins over the command line; a stored "no port" leaves it.
    int stored_port = WEB_PORT_NONE;
    if (web_stored_port(&stored_port) == 0 && stored_port != WEB_PORT_NONE) {
        web_params.http_port = stored_port;
        HTTP_PRINT("web init port %d \n", stored_port);  // contract: exact bytes
    }

    HTTP_WEB_PORT = web_params.http_port;
    web_service_start(&web_params);
    for (;;) {
        supervise_once(&web_params);
        sleep(kSuperviseIntervalSeconds);
    }
}
