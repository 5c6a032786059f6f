// The process's memory as the C library keeps it.
#pragma once

// Gives the free memory of the C library's heaps back to the system. glibc keeps freed
// memory for later allocations and returns only the top of each heap; what many requests
// took at their peak would stay resident for the rest of the process's life.
void release_free_memory();
