// SPDX-License-Identifier: Apache-2.0
#include "process/memory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/uio.h>
#include <unistd.h>

namespace krv_elf_loader
{

// Not blocking: who waits for the writer of a FIFO waits for ever.
input_file::input_file(const std::string &path) : descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}

input_file::~input_file()
{
    if (is_open())
        close(descriptor);
}

input_file &input_file::operator=(input_file &&other) noexcept
{
    std::swap(descriptor, other.descriptor);
    return *this;
}

bool input_file::read(uint64_t offset, void *buf, size_t count) const
{
    auto *to = static_cast<uint8_t *>(buf);
    while (count != 0) {
        // The memory of a process has addresses beyond the largest positive offset.
        const ssize_t got = pread(descriptor, to, count, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        to += got;
        offset += static_cast<uint64_t>(got);
        count -= static_cast<size_t>(got);
    }
    return true;
}

bool live_memory::read(uint64_t address, void *buf, size_t count)
{
    if (count == 0)
        return true;
    iovec local = {buf, count};
    iovec remote = {reinterpret_cast<void *>(address), count}; // NOLINT(performance-no-int-to-ptr): never followed here
    if (process_vm_readv(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(count))
        return true;
    if (!mem.is_open())
        mem = input_file("/proc/" + std::to_string(pid) + "/mem");
    return mem.is_open() && mem.read(address, buf, count);
}

bool mapped_memory::read(uint64_t address, void *buf, size_t count)
{
    if (address > all.size() || count > all.size() - address)
        return false;
    std::copy_n(all.data() + address, count, static_cast<uint8_t *>(buf));
    return true;
}

const page_cache::page *page_cache::find(uint64_t number)
{
    if (last != nullptr && number == last_number)
        return last;
    auto found = pages.find(number);
    if (found == pages.end()) {
        auto fresh = std::make_unique<page>();
        if (!below.read(number * PAGE, fresh->data(), PAGE))
            return nullptr;
        if (pages.size() >= MOST_PAGES)
            forget();
        found = pages.emplace(number, std::move(fresh)).first;
    }
    last_number = number;
    last = found->second.get();
    return last;
}

bool page_cache::read(uint64_t address, void *buf, size_t count)
{
    if (count == 0)
        return true;
    if (count - 1 > std::numeric_limits<uint64_t>::max() - address)
        return false;
    auto *to = static_cast<uint8_t *>(buf);
    while (count != 0) {
        const size_t at = static_cast<size_t>(address % PAGE);
        const size_t piece = std::min(count, PAGE - at);
        if (const page *whole = find(address / PAGE); whole != nullptr)
            std::memcpy(to, whole->data() + at, piece);
        else if (!below.read(address, to, piece)) // a core file may hold part of a page
            return false;
        to += piece;
        address += piece;
        count -= piece;
    }
    return true;
}

void page_cache::forget()
{
    pages.clear();
    last = nullptr;
}

} // namespace krv_elf_loader
