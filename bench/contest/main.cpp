// SPDX-License-Identifier: Apache-2.0
#include "contest.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/mman.h>
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

uint64_t stack_end()
{
    pthread_attr_t attributes;
    void *low = nullptr;
    size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstack(&attributes, &low, &size);
        pthread_attr_destroy(&attributes);
    }
    return reinterpret_cast<uintptr_t>(low) + size;
}

bool run_chain(const char *file, chain_leaf *leaf, void *arg)
{
    void *library = dlopen(file, RTLD_NOW);
    using chain_run = long(chain_leaf *, void *);
    auto *chain = library == nullptr ? nullptr : reinterpret_cast<chain_run *>(dlsym(library, "chain_run"));
    if (chain == nullptr)
        return false;
    chain(leaf, arg);
    return true;
}

module module_of(uint64_t address)
{
    struct search {
        uint64_t address;
        module found;
    } s{address, {}};
    const auto visit = [](dl_phdr_info *info, size_t, void *arg) {
        auto *of = static_cast<search *>(arg);
        module m = {UINT64_MAX, 0, 0};
        for (const Elf64_Phdr *p = info->dlpi_phdr; p < info->dlpi_phdr + info->dlpi_phnum; ++p) {
            const uint64_t start = info->dlpi_addr + p->p_vaddr;
            if (p->p_type == PT_GNU_EH_FRAME)
                m.eh_frame_hdr = start;
            if (p->p_type != PT_LOAD)
                continue;
            m.low = std::min(m.low, start & ~uint64_t{4095});
            m.high = std::max(m.high, start + p->p_memsz);
        }
        if (of->address < m.low || of->address >= m.high)
            return 0;
        of->found = m;
        return 1;
    };
    dl_iterate_phdr(visit, &s);
    return s.found;
}

} // namespace contest

using namespace contest;

// Peak memory of this program; getrusage would count what the shell had before exec.
static long peak_kilobytes()
{
    long peak = 0;
    char line[256];
    FILE *status = std::fopen("/proc/self/status", "r");
    while (status != nullptr && std::fgets(line, sizeof(line), status) != nullptr)
        if (std::sscanf(line, "VmHWM: %ld kB", &peak) == 1)
            break;
    if (status != nullptr)
        std::fclose(status);
    return peak;
}

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
        std::fprintf(stderr, "usage: %s JOB FILE [ADDRESSES]\n", argv[0]);
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
    std::printf("job=%c items=%" PRIu64 " reads=%" PRIu64 " check=%016" PRIx64 " ns=%" PRIu64 " ns_first=%" PRIu64
                " ns_cold=%" PRIu64 " ns_warm=%" PRIu64 " rss_kb=%ld\n",
                r.job, r.items, r.reads, r.check, times[times.size() / 2], r.ns_first, r.ns_cold, r.ns_warm,
                peak_kilobytes());
    return 0;
}
