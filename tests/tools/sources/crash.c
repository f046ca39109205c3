/* Shows in its own ways where it is: a traceback and its mappings, and what others find at its faults. */
#include <execinfo.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

static void show_mappings(void)
{
    static char text[65536];
    int fd = open("/proc/self/maps", O_RDONLY);
    ssize_t size = read(fd, text, sizeof(text));
    if (size > 0 && write(STDOUT_FILENO, text, (size_t)size) < 0)
        abort();
    close(fd);
}

static inline __attribute__((always_inline)) int fail(const char *how, volatile int *nowhere)
{
    void *frames[16];
    if (how[0] == 'm')
        show_mappings();
    if (how[0] == 'f')
        *nowhere = 1; /* fault */
    backtrace_symbols_fd(frames, backtrace(frames, 16), STDOUT_FILENO);
    return how[1];
}

__attribute__((noinline)) int middle(const char *how)
{
    int result = fail(how, 0); /* inlined call */
    return result + how[2];
}

int main(int count, char **arguments)
{
    int result = middle(arguments[count - 1]); /* call */
    return result != 0;
}
