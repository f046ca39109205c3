// SPDX-License-Identifier: Apache-2.0
//
// What is read of a thread for one sample, and what it costs to read more of it.
#pragma once

#include <korva.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace korva::program
{

/** General registers, as korva_stack_addresses takes them. */
struct thread_registers {
    krv_gregset_t gregs = {};
    uint64_t mask = 0;
    krv_activation_type_t target = 0;

    uint64_t pc() const { return static_cast<uint64_t>(gregs[KRV_HOST_RIP]); }
    uint64_t sp() const { return static_cast<uint64_t>(gregs[KRV_HOST_RSP]); }
};

/**
 * Bytes of a stack, in pieces that are read from the process when they are first asked for, as long as the thread stands
 * still; those that were read are there afterwards too.
 */
class stack_memory
{
public:
    explicit stack_memory(int pid) : m_pid(pid) {}

    /** Forgets all, and reads from the process from now on. */
    void begin()
    {
        m_pieces = 0;
        m_reads = true;
    }
    /** Reads no more from the process. */
    void end() { m_reads = false; }
    /** Forgets all, and takes these bytes, which were copied from @p address. */
    void set(uint64_t address, const uint8_t *bytes, size_t size);

    /** A krv_fd_cb_f whose argument is the stack_memory. */
    static int64_t read(void *memory, void *buf, size_t count, uint64_t address);

private:
    struct piece {
        uint64_t start = 0;
        std::vector<uint8_t> bytes{};
    };

    bool find(uint64_t address, void *buf, size_t count) const;
    bool fetch(uint64_t address);
    piece &next_piece();

    int m_pid;
    bool m_reads = false;
    std::vector<piece> m_all; // kept with their room
    size_t m_pieces = 0;      // of them in use
};

} // namespace korva::program
