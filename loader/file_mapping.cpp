// SPDX-License-Identifier: Apache-2.0
#include "file_mapping.h"

#include "failure.h"
#include "page.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace krv_elf_loader
{

// Places are made and reused, never freed: a signal handler may look at any of them at any time.
struct file_mapping::place {
    std::atomic<bool> taken = true;
    std::atomic<uintptr_t> begin = 0; // of the mapping; 0 while there is none
    std::atomic<uintptr_t> end = 0;
    std::atomic<bool> cut = false;
    place *next = nullptr;

    static std::atomic<place *> first;
};

std::atomic<file_mapping::place *> file_mapping::place::first = nullptr;

static_assert(std::atomic<uintptr_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

namespace
{

struct descriptor {
    int fd;
    ~descriptor()
    {
        if (fd >= 0)
            close(fd);
    }
};

constexpr int MOST_KEPT = 16; // descriptors
std::atomic<int> kept_descriptors = 0;

// Counts one more, unless there are enough, or few left: numbers are given from the lowest on.
bool take_descriptor(int fd)
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || static_cast<rlim_t>(fd) >= limit.rlim_cur / 2)
        return false;
    if (kept_descriptors.fetch_add(1) < MOST_KEPT)
        return true;
    kept_descriptors.fetch_sub(1);
    return false;
}

void *to_pointer(uintptr_t address)
{
    return reinterpret_cast<void *>(address); // NOLINT(performance-no-int-to-ptr): it was one
}

} // namespace

file_mapping::place *file_mapping::take_place(byte_span mapped)
{
    place *found = place::first;
    for (bool expected = false; found != nullptr && !found->taken.compare_exchange_strong(expected, true);
         expected = false)
        found = found->next;
    if (found == nullptr) {
        found = new place;
        found->next = place::first;
        while (!place::first.compare_exchange_weak(found->next, found))
            ;
    }
    const auto begin = reinterpret_cast<uintptr_t>(mapped.data());
    found->cut = false;
    found->end = begin + mapped.size();
    found->begin = begin;
    return found;
}

file_mapping::file_mapping(const std::string &path, bool keeps_descriptor)
{
    // Without waiting: a pipe is refused, not waited for.
    descriptor file{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
    struct stat st = {};
    if (file.fd < 0 || fstat(file.fd, &st) != 0)
        throw failure(KRV_ELF_ERR_SYSTEM, std::strerror(errno));
    if (S_ISDIR(st.st_mode))
        throw failure(KRV_ELF_ERR_SYSTEM, std::strerror(EISDIR));
    if (!S_ISREG(st.st_mode))
        throw failure(KRV_ELF_ERR_FORMAT, "not a regular file");
    if (st.st_size == 0)
        throw failure(KRV_ELF_ERR_FORMAT, "the file is empty");
    const auto size = static_cast<size_t>(st.st_size);
    // Writable, but private: libelf marks sections that it has inflated in their headers.
    void *image = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_NORESERVE, file.fd, 0);
    if (image == MAP_FAILED)
        throw failure(KRV_ELF_ERR_SYSTEM, std::strerror(errno));
    all = {static_cast<const uint8_t *>(image), size};
    try {
        registered = take_place(all);
    } catch (...) {
        munmap(image, size);
        throw;
    }
    device = st.st_dev;
    inode = st.st_ino;
    if (keeps_descriptor && take_descriptor(file.fd))
        fd = std::exchange(file.fd, -1);
}

file_mapping::~file_mapping()
{
    registered->begin = 0; // before another mapping can come to lie there
    registered->taken = false;
    munmap(const_cast<uint8_t *>(all.data()), all.size());
    close_descriptor();
}

bool file_mapping::holds(byte_span part) const
{
    return part.data() >= all.data() && part.data() + part.size() <= all.data() + all.size();
}

// Programs close all descriptors that they do not know, and open other files.
bool file_mapping::has_descriptor() const
{
    struct stat st = {};
    return fd >= 0 && fstat(fd, &st) == 0 && st.st_dev == device && st.st_ino == inode;
}

bool file_mapping::can_read(byte_span part) const
{
    return fd >= 0 && holds(part);
}

bool file_mapping::read(const uint8_t *from, void *to, size_t count) const
{
    return has_descriptor() && pread(fd, to, count, from - all.data()) == static_cast<ssize_t>(count);
}

void file_mapping::close_descriptor()
{
    if (fd < 0)
        return;
    if (has_descriptor())
        close(fd);
    fd = -1;
    kept_descriptors.fetch_sub(1);
}

void file_mapping::trim(byte_span part) const
{
    if (!holds(part))
        return;
    const auto begin = reinterpret_cast<uintptr_t>(part.data());
    const uintptr_t first = page_of(begin + PAGE - 1), behind = page_of(begin + part.size());
    if (first < behind)
        madvise(to_pointer(first), behind - first, MADV_DONTNEED);
}

bool file_mapping::was_cut() const
{
    return registered->cut;
}

bool file_mapping::replace_missing(const void *address)
{
    const auto at = reinterpret_cast<uintptr_t>(address);
    for (place *p = place::first; p != nullptr; p = p->next) {
        const uintptr_t begin = p->begin, end = p->end;
        if (begin == 0 || at < begin || at >= end)
            continue;
        const int why = errno;
        const uintptr_t from = page_of(at);
        const bool replaced = mmap(to_pointer(from), end - from, PROT_READ | PROT_WRITE,
                                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0) != MAP_FAILED;
        errno = why;
        if (replaced)
            p->cut = true;
        return replaced;
    }
    return false;
}

} // namespace krv_elf_loader
