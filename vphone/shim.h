/* What the interposed calls share (shim.c, shim_clock.c): the export mark, the next
 * definition of a call in the lookup order, and a failure the C library's way. */
#ifndef VPHONE_SHIM_H
#define VPHONE_SHIM_H

#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

#define VPHONE_EXPORT __attribute__((visibility("default")))

static inline void *next_symbol(const char *name) {
    void *symbol = dlsym(RTLD_NEXT, name);
    if (symbol == NULL) {
        static const char message[] = "vphone: C library function not found\n";
        (void)!write(2, message, sizeof message - 1);
        abort();
    }
    return symbol;
}

#define NEXT(type, name)     \
    static type real_##name; \
    if (real_##name == NULL) real_##name = (type)next_symbol(#name)

static inline int fail_with(int error) {
    errno = error;
    return -1;
}

#endif
