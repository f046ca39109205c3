// SPDX-License-Identifier: Apache-2.0
#include "krv_budget.h"

#include "krv_error.h"
#include "krv_mem.h"

constexpr uint64_t WATCHED = 1 << 12; // steps between two looks at the clock

bool krv_budget_is_option(krv_opt_idx_t opt)
{
    return opt >= KRV_OPT_EXT_MAX_STEPS && opt <= KRV_OPT_EXT_TIMEOUT;
}

// Memory of the budget itself is not counted in it.
static krv_budget *get_budget(krv_handle_t *hp)
{
    if (hp->sh_budget == nullptr)
        hp->sh_budget = krv_new<krv_budget>(hp);
    return hp->sh_budget;
}

static uint64_t left_of(uint64_t most)
{
    return most == 0 ? UINT64_MAX : most;
}

static void begin(krv_handle_t *hp, krv_budget *budget)
{
    hp->sh_is_spent = false;
    budget->bg_steps = left_of(budget->bg_most_steps);
    budget->bg_bytes = left_of(budget->bg_most_bytes);
    budget->bg_rows = left_of(budget->bg_most_rows);
    budget->bg_unwatched = 0;
    clock_gettime(CLOCK_MONOTONIC, &budget->bg_end);
    const uint64_t nanoseconds =
        static_cast<uint64_t>(budget->bg_end.tv_nsec) + budget->bg_milliseconds % 1000 * 1000000;
    budget->bg_end.tv_sec += static_cast<time_t>(budget->bg_milliseconds / 1000 + nanoseconds / 1000000000);
    budget->bg_end.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
}

int krv_budget_set_opt(krv_handle_t *hp, krv_opt_idx_t opt, uint64_t value)
{
    constexpr uint64_t MOST_MILLISECONDS = uint64_t{UINT32_MAX} * 1000; // more than a century
    krv_budget *budget = get_budget(hp);
    if (budget == nullptr)
        return -1;
    switch (opt) {
    case KRV_OPT_EXT_MAX_STEPS:
        budget->bg_most_steps = value;
        break;
    case KRV_OPT_EXT_MAX_BYTES:
        budget->bg_most_bytes = value;
        break;
    case KRV_OPT_EXT_MAX_ROWS:
        budget->bg_most_rows = value;
        break;
    default:
        budget->bg_milliseconds = value < MOST_MILLISECONDS ? value : MOST_MILLISECONDS;
    }
    begin(hp, budget);
    if ((budget->bg_most_steps | budget->bg_most_bytes | budget->bg_most_rows | budget->bg_milliseconds) == 0) {
        krv_free(budget); // who has no bound is not asked
        hp->sh_budget = nullptr;
    }
    return 0;
}

static bool refuse(krv_handle_t *hp, const char *what, uint64_t most, const char *unit)
{
    hp->sh_is_spent = true;
    krv_fail(hp, KRV_ERR_NOMEM, "the budget of %s is used up: %lu%s", what, static_cast<unsigned long>(most), unit);
    return false;
}

static bool is_past(const timespec &end)
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec != end.tv_sec ? now.tv_sec > end.tv_sec : now.tv_nsec >= end.tv_nsec;
}

// Takes from what is left. False: there is not so much.
static bool take(krv_relaxed<uint64_t> *left, uint64_t count)
{
    const uint64_t before = *left;
    if (before == UINT64_MAX)
        return true;
    *left = count < before ? before - count : 0;
    return count <= before;
}

int korva_handle_is_spent(krv_handle_t *hp)
{
    return hp != nullptr && hp->sh_is_spent ? 1 : 0;
}

bool krv_budget_take_steps(krv_handle_t *hp, uint64_t steps)
{
    krv_budget *budget = hp->sh_budget;
    if (!take(&budget->bg_steps, steps))
        return refuse(hp, "steps", budget->bg_most_steps, "");
    if (budget->bg_milliseconds == 0)
        return true;
    const uint64_t unwatched = budget->bg_unwatched + steps;
    budget->bg_unwatched = unwatched < WATCHED ? unwatched : 0;
    if (unwatched < WATCHED || !is_past(budget->bg_end))
        return true;
    budget->bg_unwatched = WATCHED; // whoever asks next sees it again
    return refuse(hp, "time", budget->bg_milliseconds, " ms");
}

bool krv_budget_take_bytes(krv_handle_t *hp, uint64_t bytes)
{
    return take(&hp->sh_budget->bg_bytes, bytes) || refuse(hp, "memory", hp->sh_budget->bg_most_bytes, " bytes");
}

bool krv_budget_take_rows(krv_handle_t *hp, uint64_t rows)
{
    return take(&hp->sh_budget->bg_rows, rows) || refuse(hp, "line-number rows", hp->sh_budget->bg_most_rows, "");
}
