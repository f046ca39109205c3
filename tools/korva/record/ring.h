// SPDX-License-Identifier: Apache-2.0
//
// What korva record and the library within a recorded program share: a piece of memory, with room for samples in a ring. Many
// threads write, from a signal handler, without a lock; one program reads, and trusts nothing of it.
//
// The ring is mapped twice, one behind the other, so that what goes over its end is in one piece. Positions only ever grow.
#pragma once

#include "libkorva.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace korva::program
{

inline constexpr char RING_VARIABLE[] = "KORVA_RECORD"; /**< environment: a path to the memory */
inline constexpr uint64_t RING_VERSION = 1;
inline constexpr size_t RING_PAGE = 4096;
inline constexpr size_t RING_SIZE = 16 << 20;  /**< bytes for samples, whole pages */
inline constexpr size_t RING_STACK = 64 << 10; /**< of a stack that are copied for a sample, at most */
inline constexpr size_t RING_GRAIN = 64;       /**< samples begin at its multiples */

/** The first page. Words that one side waits for are those of futex(2). */
struct ring_header {
    uint64_t version;
    uint64_t interval;             /**< nanoseconds of a thread's processor time */
    std::atomic<uint32_t> pid;     /**< the process that is recorded; 0: not known yet */
    std::atomic<uint32_t> hello;   /**< how often a program came up in it: one more for each that it executes */
    std::atomic<uint32_t> welcome; /**< how many of them may begin */
    std::atomic<uint32_t> ended;   /**< 1: nobody reads any more */
    std::atomic<uint64_t> head;    /**< where the next sample goes */
    std::atomic<uint64_t> tail;    /**< what is before was read */
    std::atomic<uint64_t> lost;    /**< samples that found no room, or came late with others */
    std::atomic<uint64_t> refused; /**< threads that the system gave no timer */
};
static_assert(sizeof(ring_header) <= RING_PAGE && std::atomic<uint64_t>::is_always_lock_free);

/** A sample, with the bytes of its stack behind it. */
struct ring_sample {
    std::atomic<uint64_t> mark; /**< its position + 1 once it is whole */
    uint64_t size;              /**< to the next one, bytes */
    uint64_t nanoseconds;       /**< that the handler took */
    int32_t tid;
    uint32_t stack_size;  /**< bytes that were copied */
    uint64_t stack_start; /**< from where */
    char name[16];        /**< of the thread */
    uint64_t mask;
    krv_gregset_t gregs;
};
inline constexpr size_t RING_LARGEST = (sizeof(ring_sample) + RING_STACK + RING_GRAIN - 1) / RING_GRAIN * RING_GRAIN;
static_assert(RING_LARGEST < RING_SIZE);

/** Maps it; NULL when that fails. Never unmapped by the recorded program. */
inline uint8_t *map_ring(int fd)
{
    void *room =
        mmap(nullptr, RING_PAGE + 2 * RING_SIZE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (room == MAP_FAILED)
        return nullptr;
    auto *at = static_cast<uint8_t *>(room);
    if (mmap(at, RING_PAGE + RING_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0) != MAP_FAILED &&
        mmap(at + RING_PAGE + RING_SIZE, RING_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, RING_PAGE) !=
            MAP_FAILED)
        return at;
    munmap(room, RING_PAGE + 2 * RING_SIZE);
    return nullptr;
}

} // namespace korva::program
