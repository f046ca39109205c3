// SPDX-License-Identifier: Apache-2.0
//
// libkorva as its clients have it, through the shared library: all jobs but F.
#include "contest.h"
#include "korva_file.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <iterator>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <thread>
#include <vector>

using namespace contest;

static bool list_units(run *r, krv_handle_t *hp)
{
    const auto visit = [](krv_handle_t *handle, krv_ctu_t *cu, void *arg) {
        auto *to = static_cast<run *>(arg);
        krv_die_t *die;
        char name[4096], directory[4096];
        korva_get_cu_cudie(handle, cu, &die);
        const bool has_name = korva_get_die_at_name(handle, die, name, sizeof(name)) == 0;
        const bool has_directory = korva_get_die_at_comp_dir(handle, die, directory, sizeof(directory)) == 0;
        to->check += unit_check(has_name ? name : nullptr, has_directory ? directory : nullptr);
        ++to->items;
        return 0;
    };
    return korva_iter_cu(hp, KRV_SEC_INFO, visit, r) == 0;
}

static uint64_t value_check(const krv_attr_t &attr)
{
    switch (attr.kind) {
    case KRV_ATTR_STRING:
    case KRV_ATTR_BLOCK:
    case KRV_ATTR_EXPRESSION:
        return attr.size;
    default:
        return attr.number;
    }
}

static bool read_entries(run *r, krv_handle_t *hp)
{
    const auto visit = [](krv_handle_t *handle, krv_ctu_t *cu, void *arg) {
        auto *to = static_cast<run *>(arg);
        krv_cu_header_t header;
        korva_cu_get_header(handle, cu, &header);
        struct sum {
            run *of;
            uint64_t unit;
        } sum = {to, header.offset};
        const auto add = [](krv_handle_t *, const krv_entry_t *, const krv_attr_t *attrs, size_t count, void *arg2) {
            const auto *s = static_cast<struct sum *>(arg2);
            ++s->of->items;
            for (size_t i = 0; i < count; ++i) // the others sum what is written: references count from their unit
                s->of->check += attrs[i].kind == KRV_ATTR_REFERENCE ? attrs[i].number - s->unit : value_check(attrs[i]);
            return 0;
        };
        return korva_iter_entries(handle, cu, add, &sum);
    };
    return korva_iter_cu(hp, KRV_SEC_INFO, visit, r) == 0;
}

static bool read_lines(run *r, krv_handle_t *hp)
{
    struct rows {
        run *to;
        std::vector<uint64_t> addresses;
        std::vector<uint32_t> lines;
    } all{r, {}, {}};
    const auto visit = [](krv_handle_t *handle, krv_ctu_t *cu, void *arg) {
        auto *of = static_cast<rows *>(arg);
        krv_lnph_t *header = korva_line_get_cu_lnph(handle, cu);
        krv_lnp_t *matrix;
        unsigned count;
        if (header == nullptr ||
            korva_get_fields(handle, KRV_STRUCT_LNPH, header, 1, KRV_FIELD_LNPH_LNP, &matrix) != 0 ||
            korva_get_fields(handle, KRV_STRUCT_LNP, matrix, 1, KRV_FIELD_LNP_ENTRIES, &count) != 0)
            return 0;
        if (of->addresses.size() < count) {
            of->addresses.resize(count);
            of->lines.resize(count);
        }
        korva_get_fields(handle, KRV_STRUCT_LNP, matrix, 2, KRV_FIELD_LNS_ADDRESS, of->addresses.data(),
                         KRV_FIELD_LNS_LINE, of->lines.data());
        for (unsigned i = 0; i < count; ++i)
            of->to->check += of->addresses[i] ^ of->lines[i];
        of->to->items += count;
        return 0;
    };
    return korva_iter_cu(hp, KRV_SEC_INFO, visit, &all) == 0;
}

static uint64_t place(krv_handle_t *hp, const query &q)
{
    krv_row_t row;
    if (korva_lookup_rows(hp, &q.address, 1, KRV_LOOKUP_F_NONE, nullptr, &row) != 0 || row.number == KRV_ROW_NONE)
        return 0;
    return place_check(row.file == nullptr ? nullptr : korva_lnfe_path(hp, row.file, B_FALSE), row.line);
}

static uint64_t check_of(krv_handle_t *hp, const krv_row_t &row, const krv_call_t *calls, size_t count)
{
    krv_lnfe_t *file = row.file;
    uint64_t line = row.line, check = 0;
    for (size_t i = 0; i < std::max<size_t>(count, 1); ++i) {
        const char *path = file == nullptr ? nullptr : korva_lnfe_path(hp, file, B_FALSE);
        if (i == count)
            return call_check(nullptr, path, line);
        const krv_call_t &call = calls[i];
        const uint64_t name = call.linkage_name != nullptr ? text_check(call.linkage_name, call.linkage_name_size)
                              : call.name != nullptr       ? text_check(call.name, call.name_size)
                                                           : 0;
        check += name * 7 + place_check(path, line);
        line = call.call_line;
        if (call.call_unit == nullptr || korva_cu_get_file(hp, call.call_unit, call.call_file, &file) != 0)
            file = nullptr;
    }
    return check;
}

static uint64_t chain_at(krv_handle_t *hp, uint64_t address)
{
    krv_row_t row;
    krv_call_t calls[64];
    size_t count = 0;
    return korva_lookup_chain(hp, address, &row, calls, std::size(calls), &count) == 0 ? check_of(hp, row, calls, count)
                                                                                       : 0;
}

static void find_together(run *r, uint64_t started, krv_handle_t *hp)
{
    const auto flags = r->job == 'B' ? KRV_CHAINS_F_ASCENDING | KRV_CHAINS_F_ROWS : KRV_CHAINS_F_ASCENDING;
    const auto visit = [](krv_handle_t *handle, size_t, const krv_row_t *row, const krv_call_t *calls, size_t count,
                          void *arg) {
        static_cast<run *>(arg)->check += check_of(handle, *row, calls, count);
        return 0;
    };
    run_passes(r, started, [&](int) {
        std::vector<uint64_t> addresses(r->nqueries);
        std::transform(r->queries, r->queries + r->nqueries, addresses.begin(),
                       [](const query &q) { return q.address; });
        korva_iter_chains(hp, addresses.data(), addresses.size(), flags, visit, r);
    });
}

namespace
{

// The calling thread and, of job T, another one, which is there before the clock runs, and waits awake: starting it takes as long as
// thousands of answers.
class workers
{
public:
    explicit workers(bool has_two)
    {
        if (!has_two)
            return;
        other = std::thread([this] { work(); });
        give_processors();
        while (!is_awake.load()) {
        }
    }
    ~workers()
    {
        rounds = -1;
        if (other.joinable())
            other.join();
        if (CPU_COUNT(&all) != 0)
            sched_setaffinity(0, sizeof(all), &all); // the next run starts from here
    }
    workers(const workers &) = delete;
    workers &operator=(const workers &) = delete;

    size_t count() const { return other.joinable() ? 2 : 1; }

    // Calls it in each, with the worker's number.
    void run(const std::function<void(size_t)> &fn)
    {
        job = &fn;
        ++rounds;
        fn(0);
        while (other.joinable() && done.load() != rounds.load()) {
        }
    }

private:
    // One for each, where there are two: the system may take as long as the job to part them.
    void give_processors()
    {
        if (sched_getaffinity(0, sizeof(all), &all) != 0 || CPU_COUNT(&all) < 2)
            return;
        int cpu = -1;
        for (const pthread_t thread : {pthread_self(), other.native_handle()}) {
            while (!CPU_ISSET(++cpu, &all)) {
            }
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(cpu, &one);
            pthread_setaffinity_np(thread, sizeof(one), &one);
        }
    }

    void work()
    {
        is_awake = true;
        for (int seen = 0, now; (now = rounds.load()) >= 0;) {
            if (now == seen)
                continue;
            (*job)(1);
            done = seen = now;
        }
    }

    cpu_set_t all = {}; // processors that the caller may use
    std::thread other;
    const std::function<void(size_t)> *job = nullptr;
    std::atomic<bool> is_awake = false;
    std::atomic<int> rounds = 0, done = 0;
};

} // namespace

static void find_by_threads(run *r, krv_handle_t *hp)
{
    mallopt(M_TOP_PAD, 32 << 20); // as docs/threads.md says
    workers all(r->job == 'T');
    const uint64_t started = now();
    std::vector<krv_ctu_t *> units;
    korva_handle_set_opt(hp, KRV_OPT_EXT_THREADS, uint64_t{1});
    const auto add = [](krv_handle_t *, krv_ctu_t *cu, void *arg) {
        static_cast<std::vector<krv_ctu_t *> *>(arg)->push_back(cu);
        return 0;
    };
    korva_iter_cu(hp, KRV_SEC_INFO, add, &units);
    std::atomic<size_t> next = 0;
    all.run([&](size_t) {
        for (size_t i; (i = next++) < units.size();)
            korva_cu_prefill(hp, units[i]);
    });
    r->ns_first = now() - started;
    run_passes(r, started, [&](int) {
        uint64_t checks[2] = {};
        all.run([&](size_t worker) {
            uint64_t check = 0;
            const uint64_t n = r->nqueries, from = n * worker / all.count(), to = n * (worker + 1) / all.count();
            for (uint64_t i = from; i < to; ++i)
                check += chain_at(hp, r->queries[i].address);
            checks[worker] = check;
        });
        r->check = checks[0] + checks[1];
    });
}

// ---------------------------------------------------------------------------------------------------------------
// The walk
// ---------------------------------------------------------------------------------------------------------------

static uint64_t reads;

static int64_t read_memory(void *, void *buf, size_t count, uint64_t address)
{
    ++reads;
    std::memcpy(buf, reinterpret_cast<const void *>(address), count);
    return static_cast<int64_t>(count);
}

static void walk(run *r, krv_handle_t *hp, krv_activation_t *ap, const module &m, const uint64_t registers[17])
{
    korva_activation_reset(hp, ap);
    for (const unsigned reg : {3U, 6U, 7U, 12U, 13U, 14U, 15U, 16U})
        korva_activation_set_greg(hp, ap, KRV_ACTIVATION_REG_DWARF, reg, static_cast<krv_greg_t>(registers[reg]));
    korva_activation_set_greg(hp, ap, KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, static_cast<krv_greg_t>(registers[16]));
    uint64_t items = 0, check = 0;
    do {
        krv_greg_t pc = 0;
        korva_activation_get_greg(hp, ap, KRV_ACTIVATION_REG_LIBRARY, KRV_ACTIVATION_FRAME_CURRENT, KRV_REG_PC, &pc);
        const auto address = static_cast<uint64_t>(pc);
        if (address < m.low || address >= m.high)
            break;
        ++items;
        check += address - m.low;
    } while (korva_activation_unwind(hp, ap) == 0);
    r->items += items;
    r->check += check;
}

static void at_leaf(const uint64_t registers[17], void *arg)
{
    auto *r = static_cast<run *>(arg);
    const module m = module_of(registers[16]);
    int32_t distance; // eh_frame_ptr, relative to itself
    std::memcpy(&distance, reinterpret_cast<const void *>(m.eh_frame_hdr + 4), sizeof(distance));
    const uint64_t eh_frame = m.eh_frame_hdr + 4 + static_cast<uint64_t>(int64_t{distance});
    krv_handle_t *hp = korva_handle_alloc(KRV_ACTIVATION_AMD64);
    korva_attach_as(hp, read_memory, nullptr);
    korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_ADDR, eh_frame);
    korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_HDR_ADDR, m.eh_frame_hdr);
    krv_activation_t *ap = korva_activation_alloc(hp);
    const uint64_t started = now();
    for (int i = walks(); i > 0; --i)
        walk(r, hp, ap, m, registers);
    r->ns = now() - started;
    r->reads = reads;
    korva_activation_free(ap);
    korva_handle_free(hp);
}

bool contest::play(run *r)
{
    if (r->job == 'S')
        return run_chain(r->file, at_leaf, r);
    if (std::strchr("UELAIBJTO", r->job) == nullptr)
        return false;
    const uint64_t started = now();
    const korva_file file(r->file);
    if (r->job == 'U')
        return list_units(r, file.hp);
    if (r->job == 'E')
        return read_entries(r, file.hp);
    if (r->job == 'L')
        return read_lines(r, file.hp);
    if (r->job == 'B' || r->job == 'J')
        find_together(r, started, file.hp);
    else if (r->job == 'T' || r->job == 'O')
        find_by_threads(r, file.hp);
    else if (r->job == 'I')
        find_places(r, started, [&](const query &q) { return chain_at(file.hp, q.address); });
    else
        find_places(r, started, [&](const query &q) { return place(file.hp, q); });
    return true;
}
