// The small profiles' handler of an uncaught exception. The C++ library's own handler
// prints the exception's type and so links in a demangler of about 27 KB; linked statically,
// this definition takes its place and that code stays out.
#include <cstdlib>
#include <unistd.h>

namespace __gnu_cxx {

void __verbose_terminate_handler()
{
    static const char kLine[] = "webserver: terminate called after an uncaught exception\n";
    ssize_t n = write(STDERR_FILENO, kLine, sizeof kLine - 1);
    (void)n;
    abort();
}

}  // namespace __gnu_cxx
