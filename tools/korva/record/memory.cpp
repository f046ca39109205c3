// SPDX-License-Identifier: Apache-2.0
#include "record/memory.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <sys/uio.h>

namespace korva::program
{

static constexpr uint64_t STACK_PAGE = 4096;
static constexpr size_t FIRST_PIECE = 4 * STACK_PAGE; // most stacks are smaller, and it takes as long as a system call
static constexpr size_t LARGEST_PIECE = 64 * STACK_PAGE;
static constexpr size_t MOST_PIECES = 64;

stack_memory::piece &stack_memory::next_piece()
{
    if (m_pieces == m_all.size())
        m_all.emplace_back();
    return m_all[m_pieces++];
}

void stack_memory::set(uint64_t address, const uint8_t *bytes, size_t size)
{
    m_pieces = 0;
    m_reads = false;
    piece &only = next_piece();
    only.start = address;
    only.bytes.assign(bytes, bytes + size);
}

bool stack_memory::find(uint64_t address, void *buf, size_t count) const
{
    for (size_t i = m_pieces; i-- > 0;)
        if (const piece &p = m_all[i]; address >= p.start && address - p.start <= p.bytes.size() &&
                                       count <= p.bytes.size() - (address - p.start)) {
            std::memcpy(buf, p.bytes.data() + (address - p.start), count);
            return true;
        }
    return false;
}

// Page by page, so that what lies before the end of the mapping is read.
bool stack_memory::fetch(uint64_t address)
{
    if (!m_reads || m_pieces == MOST_PIECES)
        return false;
    const size_t size = std::min(FIRST_PIECE << std::min<size_t>(m_pieces, 8), LARGEST_PIECE);
    std::array<iovec, LARGEST_PIECE / STACK_PAGE + 1> remote;
    size_t count = 0, room = 0;
    while (room < size && address + room >= address) {
        const size_t part = static_cast<size_t>(STACK_PAGE - (address + room) % STACK_PAGE);
        remote[count++] = {reinterpret_cast<void *>(address + room), part}; // NOLINT(performance-no-int-to-ptr)
        room += part;
        if (count == remote.size())
            break;
    }
    piece &fresh = next_piece();
    fresh.start = address;
    fresh.bytes.resize(room);
    const iovec local = {fresh.bytes.data(), room};
    const ssize_t got = process_vm_readv(m_pid, &local, 1, remote.data(), count, 0);
    fresh.bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return got > 0;
}

int64_t stack_memory::read(void *memory, void *buf, size_t count, uint64_t address)
{
    auto *m = static_cast<stack_memory *>(memory);
    return m->find(address, buf, count) || (m->fetch(address) && m->find(address, buf, count))
               ? static_cast<int64_t>(count)
               : -1;
}

} // namespace korva::program
