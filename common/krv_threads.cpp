// SPDX-License-Identifier: Apache-2.0
#include "krv_threads.h"

#include "krv_error.h"
#include "krv_fd.h"
#include "krv_mem.h"

#include <cstdlib>

namespace
{

struct thread_state {
    thread_state *next;
    pthread_t thread;
    krv_error_state error;
    krv_fd_t sec[KRV_MAX_SEC]; // those of the handle, copied when they are first asked for
    krv_fd_t ext_sec[KRV_EXT_SECTIONS];
};

constexpr unsigned LIST_BITS = 6;

} // namespace

// Threads are found by a hash of their id. Another thread that gets the id of one that has ended gets its state, too, which
// its first query clears.
struct krv_threads {
    thread_state *lists[1 << LIST_BITS]; // owned, published by compare-and-swap
    // Of all those for which there was no memory: its code stays KRV_ERR_NOMEM, so that nobody concludes anything from a failure,
    // and nothing is read by its positions.
    thread_state others;
};

static void free_texts(thread_state *state)
{
    for (char *text : state->error.texts)
        std::free(text);
}

int krv_threads_set(krv_handle_t *hp, bool is_on)
{
    if (!is_on)
        krv_threads_destroy(hp);
    if (!is_on || hp->sh_threads != nullptr)
        return 0;
    auto *const threads = krv_new<krv_threads>(hp);
    if (threads == nullptr)
        return -1;
    threads->others.sec[0].sfd_hp = hp;  // of no bytes
    hp->sh_error.code = KRV_ERR_INVALID; // see krv_is_clear: it never is
    hp->sh_threads = threads;
    return 0;
}

void krv_threads_destroy(krv_handle_t *hp)
{
    krv_threads *const threads = hp->sh_threads;
    if (threads == nullptr)
        return;
    hp->sh_threads = nullptr;
    hp->sh_error.code = KRV_ERR_NONE;
    free_texts(&threads->others);
    for (thread_state *list : threads->lists)
        for (thread_state *next; list != nullptr; list = next) {
            next = list->next;
            free_texts(list);
            std::free(list);
        }
    krv_free(threads);
}

// Not through krv_zalloc, whose failure would be told in the state that is being made.
[[gnu::cold, gnu::noinline]] static thread_state *add_state(krv_threads *threads, thread_state **list)
{
    auto *fresh = static_cast<thread_state *>(std::calloc(1, sizeof(thread_state)));
    if (fresh == nullptr) {
        threads->others.error.code = KRV_ERR_NOMEM;
        return &threads->others;
    }
    fresh->thread = pthread_self();
    fresh->error.code = int32_t{threads->others.error.code}; // something may have failed meanwhile
    fresh->next = krv_load(list);
    while (!__atomic_compare_exchange_n(list, &fresh->next, fresh, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        ;
    return fresh;
}

static unsigned list_of(pthread_t thread)
{
    return static_cast<unsigned>((uint64_t{thread} * 0x9e3779b97f4a7c15U) >> (64 - LIST_BITS));
}

static thread_state *own_state(krv_handle_t *hp)
{
    const pthread_t self = pthread_self();
    thread_state **const list = &hp->sh_threads->lists[list_of(self)];
    for (thread_state *state = krv_load(list); state != nullptr; state = state->next)
        if (state->thread == self)
            return state;
    return add_state(hp->sh_threads, list);
}

krv_error_state *krv_own_error(krv_handle_t *hp)
{
    return &own_state(hp)->error;
}

krv_fd_t *krv_own_position(krv_handle_t *hp, krv_secidx_t sec)
{
    const krv_fd_t *const section = krv_section(hp, sec);
    thread_state *const state = own_state(hp);
    if (state == &hp->sh_threads->others)
        return &state->sec[0];
    const unsigned int number = static_cast<unsigned int>(sec) - KRV_SEC_EXT_LINE_STR;
    krv_fd_t *const own = number < KRV_EXT_SECTIONS ? &state->ext_sec[number] : &state->sec[sec];
    if (own->sfd_hp == nullptr || !krv_fd_same_source(own, section))
        *own = *section;
    return own;
}
