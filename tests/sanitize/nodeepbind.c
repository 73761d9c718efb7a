/* Preloaded ahead of the sanitizer runtime when the extension is tested
 * under AddressSanitizer: Debian's PHP opens extensions with RTLD_DEEPBIND,
 * which the sanitizer runtime can't work with. Dropping the flag changes
 * only which copy of a symbol an extension binds to first. */
#define _GNU_SOURCE
#include <dlfcn.h>

void* dlopen(const char* file, int mode)
{
    static void* (*next)(const char*, int);
    if (!next)
        next = (void* (*)(const char*, int))dlsym(RTLD_NEXT, "dlopen");
    return next(file, mode & ~RTLD_DEEPBIND);
}
