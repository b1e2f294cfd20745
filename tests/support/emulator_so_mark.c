/*
 * Preloaded into the test programs only when they run under qemu-arm.
 *
 * qemu's user-mode emulator (7.2, Debian 12's) does not translate the SO_MARK
 * socket option and answers ENOPROTOOPT, where the kernel of the private
 * network namespace the suites run in accepts it (the namespace grants the
 * network-administration privilege). Without this, every call that marks its
 * socket (sign-in, device serial, the _MARK transport members, the download)
 * would fail on armhf for the emulator's sake alone.
 *
 * Every setsockopt goes to the emulator first; only its refusal of an
 * int-sized SO_MARK is turned into the kernel's answer. A later qemu that
 * translates the option makes this a pass-through.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stddef.h>
#include <sys/socket.h>

__attribute__((visibility("default"))) int setsockopt(int fd, int level, int name, const void *value,
                                                      socklen_t length)
{
    static int (*real)(int, int, int, const void *, socklen_t);
    if (real == NULL)
        real = (int (*)(int, int, int, const void *, socklen_t))dlsym(RTLD_NEXT, "setsockopt");
    int result = real(fd, level, name, value, length);
    if (result != 0 && errno == ENOPROTOOPT && level == SOL_SOCKET && name == SO_MARK && value != NULL &&
        length == sizeof(int))
        return 0;
    return result;
}
