// SPDX-License-Identifier: Apache-2.0
#include "contest.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <vector>

namespace contest
{

uint64_t now()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000U + static_cast<uint64_t>(t.tv_nsec);
}

static int number_of(const char *variable, int otherwise)
{
    const char *text = std::getenv(variable);
    return text != nullptr ? std::atoi(text) : otherwise;
}

int walks()
{
    return number_of("BENCH_WALKS", 2000);
}

} // namespace contest

using namespace contest;

static bool map_addresses(const char *path, run *r)
{
    const int fd = open(path, O_RDONLY);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0)
        return false;
    void *p = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    r->queries = static_cast<const query *>(p);
    r->nqueries = static_cast<uint64_t>(st.st_size) / sizeof(query);
    return p != MAP_FAILED;
}

int main(int argc, char **argv)
{
    if (argc < 3 || std::strlen(argv[1]) != 1) {
        std::fprintf(stderr, "usage: %s U|E|L|A|F|S FILE [ADDRESSES]\n", argv[0]);
        return 2;
    }
    run r = {};
    r.job = argv[1][0];
    r.file = argv[2];
    if (argc > 3 && !map_addresses(argv[3], &r)) {
        std::perror(argv[3]);
        return 2;
    }
    std::vector<uint64_t> times; // BENCH_REPS of them; the median is printed
    for (int n = number_of("BENCH_REPS", 1); n > 0; --n) {
        r.items = r.check = r.ns = 0;
        const uint64_t started = now();
        if (!play(&r))
            return 3;
        times.push_back(r.ns != 0 ? r.ns : now() - started);
    }
    std::sort(times.begin(), times.end());
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    std::printf("job=%c items=%" PRIu64 " attrs=%" PRIu64 " check=%016" PRIx64 " ns=%" PRIu64 " ns_first=%" PRIu64
                " ns_cold=%" PRIu64 " ns_warm=%" PRIu64 " rss_kb=%ld\n",
                r.job, r.items, r.reads, r.check, times[times.size() / 2], r.ns_first, r.ns_cold, r.ns_warm,
                usage.ru_maxrss);
    return 0;
}
