// SPDX-License-Identifier: Apache-2.0
//
// What a client lets its queries cost. Whatever goes over input asks before it does, or as it goes. Where the budget is used
// up the query fails as where memory runs out, of which nothing is concluded or kept; what the client sees is
// KRV_ERR_EXT_LIMIT.
#ifndef KRV_BUDGET_H
#define KRV_BUDGET_H

#include "krv_types.h"

#include <time.h>

// Shared by the threads that query a handle, whose sums may miss some of each other's.
struct krv_budget {
    krv_relaxed<uint64_t> bg_steps, bg_bytes, bg_rows;   // that are left; UINT64_MAX: no bound
    krv_relaxed<uint64_t> bg_unwatched;                  // steps since the clock was looked at
    uint64_t bg_most_steps, bg_most_bytes, bg_most_rows; // as the client set them; 0: no bound
    uint64_t bg_milliseconds;                            // likewise
    timespec bg_end;                                     // by CLOCK_MONOTONIC
};

// Options from KRV_OPT_EXT_MAX_STEPS on. 0 or -1.
bool krv_budget_is_option(krv_opt_idx_t opt);
int krv_budget_set_opt(krv_handle_t *hp, krv_opt_idx_t opt, uint64_t value);

bool krv_budget_take_steps(krv_handle_t *hp, uint64_t steps);
bool krv_budget_take_bytes(krv_handle_t *hp, uint64_t bytes);
bool krv_budget_take_rows(krv_handle_t *hp, uint64_t rows);

// Asks for steps: bytes of input that are gone over, or items where these are not counted in bytes. False: used up
// (KRV_ERR_NOMEM within the library, with a message).
inline bool krv_spend(krv_handle_t *hp, uint64_t steps)
{
    return hp->sh_budget == nullptr || krv_budget_take_steps(hp, steps);
}

// Asks for what comes next of a long stretch of input: *stop becomes where to ask again, `end` at the latest.
inline bool krv_spend_to(krv_handle_t *hp, const uint8_t *at, const uint8_t *end, const uint8_t **stop)
{
    constexpr ptrdiff_t STRETCH = 1 << 14;
    *stop = hp->sh_budget != nullptr && end - at > STRETCH ? at + STRETCH : end;
    return krv_spend(hp, static_cast<uint64_t>(*stop - at));
}

#endif
