# 64-bit file offsets everywhere, and 64-bit time where the C library offers it on a 32-bit
# target: recordings pass 2 GiB (a 32-bit off_t makes stat fail with EOVERFLOW and a
# document of that size unservable), and a 32-bit time_t ends in 2038, within a device's
# life. On 64-bit targets both are already 64 bits wide and the definitions change nothing.
include(CheckCSourceCompiles)
set(CMAKE_REQUIRED_DEFINITIONS -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64)
check_c_source_compiles("
#include <sys/types.h>
#include <time.h>
typedef char wide_off_t[sizeof(off_t) == 8 ? 1 : -1];
typedef char wide_time_t[sizeof(time_t) == 8 ? 1 : -1];
int main(void) { return 0; }" WEB_HAVE_TIME_BITS_64)
unset(CMAKE_REQUIRED_DEFINITIONS)

add_compile_definitions(_FILE_OFFSET_BITS=64)
if(WEB_HAVE_TIME_BITS_64)
  add_compile_definitions(_TIME_BITS=64)
else()
  message(STATUS "The C library has no 64-bit time_t here: dates after 2038 cannot be set")
endif()
