// SPDX-License-Identifier: Apache-2.0
//
// What all contestants share: arguments, clock, checksums, and the line that they print.
//
//     NAME JOB FILE [ADDRESSES]
//
//     U  open FILE; name and compilation directory of every unit                       items: units
//     E  every entry of every unit, every value decoded (strings to their end)         items: entries
//     L  every unit's line table, every row read                                       items: rows
//     A  the addresses to file and line, twice: a cold pass and a warm one             items: addresses
//     I  the functions and inlined calls at the addresses, with their lines, likewise  items: addresses
//     B  as A, J  as I, 50,000 and all addresses a call, or else one after another in ascending order
//     T  all units prefilled, then as I, by two threads that share what was opened; O  the same by one    items: addresses
//     F  frame description and unwind row at the addresses                             items: addresses
//     S  walk of the own stack inside the library FILE, memory read by a call-back     items: frames
//     W  the same, without a call-back; what call-frame information says is kept      items: frames
//
// The clock runs from before FILE is opened to after the last answer. Exit status 3: the job is not offered. Contestants
// whose answers are the same print the same `check`. ADDRESSES is made by addresses.cpp.
#ifndef KRV_BENCH_CONTEST_H
#define KRV_BENCH_CONTEST_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace contest
{

// An address and the function that holds it.
struct query {
    uint64_t address, start, size;
};

struct run {
    char job;
    const char *file;
    const query *queries;
    uint64_t nqueries;
    uint64_t items, check;
    uint64_t ns;                         // 0: the whole call counts
    uint64_t ns_first, ns_cold, ns_warm; // jobs A, I, B, J, T and O; of the last two, first is the prefilling
    uint64_t reads;                      // job S: calls of the memory call-back
};

// Nanoseconds of a clock that only goes forward.
uint64_t now();

// The end of the stack of the thread, which is the highest address.
uint64_t stack_end();

// How often job S walks: BENCH_WALKS, or 2000.
int walks();

// Supplied by each contestant: runs the job; false when it is not offered.
[[gnu::noinline]] bool play(run *r);

// Loads the library `file`, calls down a chain of its functions, and runs `leaf` in the innermost one with the registers
// there by DWARF number: 3, 6, 7, 12 to 15, and in 16 the program counter. False: there is no such library.
typedef void chain_leaf(const uint64_t registers[17], void *arg);
bool run_chain(const char *file, chain_leaf *leaf, void *arg);

// The loaded module that holds an address.
struct module {
    uint64_t low, high; // from the start of a page
    uint64_t eh_frame_hdr;
};
module module_of(uint64_t address);

// Counts the addresses of a walk, up to the first one that is outside. Not in the fields of `r` one by one: that takes longer than
// a frame may.
inline void count_frames(run *r, const module &m, const uint64_t *addresses, size_t count)
{
    uint64_t check = 0;
    size_t k = 0;
    for (; k < count && addresses[k] - m.low < m.high - m.low; ++k)
        check += addresses[k] - m.low;
    r->items += k;
    r->check += check;
}

// Length and last bytes of a text: cheap, and touches all of it.
inline uint64_t text_check(const char *s, size_t n)
{
    uint64_t tail = 0;
    std::memcpy(&tail, s + (n > 8 ? n - 8 : 0), n > 8 ? 8 : n);
    return n * 0x9e3779b97f4a7c15U + tail;
}

inline uint64_t text_check(const char *s)
{
    return s == nullptr ? 0 : text_check(s, std::strlen(s));
}

inline uint64_t unit_check(const char *name, const char *directory)
{
    return text_check(name) + 3 * text_check(directory);
}

// Line and base name of a path.
inline uint64_t place_check(const char *path, uint64_t line)
{
    if (path == nullptr)
        return 0;
    const char *slash = std::strrchr(path, '/');
    return text_check(slash != nullptr ? slash + 1 : path) * 31 + line;
}

// One of a chain of calls: its function, and where it is in that.
inline uint64_t call_check(const char *function, const char *path, uint64_t line)
{
    return text_check(function) * 7 + place_check(path, line);
}

// An unwind row: register and offset of the CFA, and where the registers that a function may save are saved.
inline uint64_t cfa_check(uint64_t reg, int64_t offset)
{
    return (reg + 1) * 0x10000001U + static_cast<uint64_t>(offset);
}
inline uint64_t saved_check(unsigned reg, int64_t offset)
{
    return (uint64_t{reg} + 7) * static_cast<uint64_t>(offset * 1000003);
}
constexpr unsigned char saved_registers[] = {3, 6, 12, 13, 14, 15, 16}; // DWARF numbers of AMD64

// Runs a cold pass and warm ones, of which the median counts: WARM of them, or as many as half a second has room for.
// `answer(pass)` adds what it finds to the checksum.
template <typename Answer>
void run_passes(run *r, uint64_t started, Answer answer)
{
    constexpr size_t WARM = 5;
    std::vector<uint64_t> warm;
    for (int pass = 0; warm.size() < WARM && (warm.empty() || now() - started < r->ns_cold + 500000000); ++pass) {
        const uint64_t pass_started = now();
        r->check = 0;
        answer(pass);
        if (pass == 0)
            r->ns_cold = now() - started;
        else
            warm.push_back(now() - pass_started);
    }
    std::sort(warm.begin(), warm.end());
    r->ns_warm = warm[warm.size() / 2];
    r->items = r->nqueries;
}

// Runs jobs A and I: `place` answers one address by its place_check, or the sum of its call_checks. Of jobs B and J the
// addresses are sorted first.
template <typename Place>
void find_places(run *r, uint64_t started, Place place)
{
    const bool sorts = r->job == 'B' || r->job == 'J';
    run_passes(r, started, [&](int pass) {
        std::vector<query> sorted(r->queries, r->queries + (sorts ? r->nqueries : 0));
        std::sort(sorted.begin(), sorted.end(), [](const query &a, const query &b) { return a.address < b.address; });
        const query *queries = sorts ? sorted.data() : r->queries;
        for (uint64_t i = 0; i < r->nqueries; ++i) {
            r->check += place(queries[i]);
            if (pass == 0 && i == 0)
                r->ns_first = now() - started;
        }
    });
}

} // namespace contest

#endif
