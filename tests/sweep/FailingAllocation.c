// Fails the Nth allocation of one program. To be put before the C library with LD_PRELOAD.
//   SWEEP_PROGRAM  the name of the program that is meant; others that it starts are left alone
//   SWEEP_FAIL     which allocation fails, from 1 on; none without it
//   SWEEP_COUNT    a file that receives the number of allocations at the end
#include <errno.h>
#include <fcntl.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern char* program_invocation_short_name;
extern void* __libc_malloc(size_t);
extern void* __libc_calloc(size_t, size_t);
extern void* __libc_realloc(void*, size_t);
extern void* __libc_memalign(size_t, size_t);

static atomic_long gCount;
static long gFailing;
static int gCounting;

__attribute__((constructor)) static void begin(void) {
    const char* program = getenv("SWEEP_PROGRAM");
    const char* failing = getenv("SWEEP_FAIL");
    gCounting = program != NULL && strcmp(program, program_invocation_short_name) == 0;
    gFailing = failing == NULL ? 0 : atol(failing);
}

__attribute__((destructor)) static void end(void) {
    const char* file = getenv("SWEEP_COUNT");
    if (!gCounting || file == NULL) {
        return;
    }
    char text[32];
    const int length = snprintf(text, sizeof text, "%ld\n", atomic_load(&gCount));
    const int fd = open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, text, (size_t)length) != length) {
        abort(); // a count that is missing would pass for nothing to do
    }
    close(fd);
}

static int fails(void) {
    if (!gCounting || atomic_fetch_add(&gCount, 1) + 1 != gFailing) {
        return 0;
    }
    errno = ENOMEM;
    return 1;
}

void* malloc(size_t size) {
    return fails() ? NULL : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return fails() ? NULL : __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
    return fails() ? NULL : __libc_realloc(block, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    return fails() ? NULL : __libc_memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) {
    if (fails()) {
        return ENOMEM;
    }
    *block = __libc_memalign(alignment, size);
    return *block == NULL ? ENOMEM : 0;
}
