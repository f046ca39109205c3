// SPDX-License-Identifier: Apache-2.0
//
// process IN OUT COMMAND...: runs a program with files for its streams, and prints what the whole process took: time, and
// the most memory that it ever had. Small itself: what a process was before it became another counts for its peak.
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

static long long now()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1'000'000'000LL + t.tv_nsec;
}

int main(int argc, char **argv)
{
    if (argc < 4)
        return 64;
    const int in = open(argv[1], O_RDONLY | O_CLOEXEC);
    const int out = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const long long start = now();
    const pid_t child = fork();
    if (child == 0) {
        if (dup2(in, STDIN_FILENO) == STDIN_FILENO && dup2(out, STDOUT_FILENO) == STDOUT_FILENO)
            execvp(argv[3], argv + 3);
        _exit(127);
    }
    int status = 0;
    rusage used = {};
    if (in < 0 || out < 0 || child < 0 || wait4(child, &status, 0, &used) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) > 1) { // 1: some addresses have no answer
        std::fprintf(stderr, "%s does not run\n", argv[3]);
        return 1;
    }
    std::printf("ns=%lld rss_kb=%ld\n", now() - start, used.ru_maxrss);
    return 0;
}
