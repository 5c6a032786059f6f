#include "common/memory.h"

#include <cstdlib>  // defines __GLIBC__ with the C library's other headers
#ifdef __GLIBC__
#include <malloc.h>
#endif

void release_free_memory()
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}
