// SPDX-License-Identifier: Apache-2.0
//
// libunwind through its remote interface: S. BENCH_UNCACHED in the environment turns its cache off.
#include "contest.h"

#include <cstdlib>
#include <libunwind.h>

using namespace contest;

// The library's own search of a binary search table, as profilers call it.
extern "C" int _Ux86_64_dwarf_search_unwind_table(unw_addr_space_t, unw_word_t, unw_dyn_info_t *, unw_proc_info_t *,
                                                  int, void *);

static module chain_module;
static uint64_t reads;

static int find_proc_info(unw_addr_space_t as, unw_word_t ip, unw_proc_info_t *info, int need, void *arg)
{
    if (ip < chain_module.low || ip >= chain_module.high)
        return -UNW_ENOINFO;
    uint32_t entries;
    std::memcpy(&entries, reinterpret_cast<const char *>(chain_module.eh_frame_hdr) + 8, sizeof(entries));
    unw_dyn_info_t table = {};
    table.format = UNW_INFO_FORMAT_REMOTE_TABLE;
    table.start_ip = chain_module.low;
    table.end_ip = chain_module.high;
    table.u.rti.segbase = chain_module.eh_frame_hdr;
    table.u.rti.table_data = chain_module.eh_frame_hdr + 12;
    table.u.rti.table_len = entries; // each is as long as a word
    return _Ux86_64_dwarf_search_unwind_table(as, ip, &table, info, need, arg);
}

static int access_memory(unw_addr_space_t, unw_word_t address, unw_word_t *value, int write, void *)
{
    if (write != 0)
        return -UNW_EINVAL;
    ++reads;
    std::memcpy(value, reinterpret_cast<const void *>(address), sizeof(*value));
    return 0;
}

static int access_register(unw_addr_space_t, unw_regnum_t reg, unw_word_t *value, int write, void *arg)
{
    if (write != 0 || reg > 16)
        return -UNW_EBADREG;
    *value = static_cast<const uint64_t *>(arg)[reg];
    return 0;
}

static void at_leaf(const uint64_t registers[17], void *arg)
{
    auto *r = static_cast<run *>(arg);
    chain_module = module_of(registers[16]);
    unw_accessors_t accessors = {};
    accessors.find_proc_info = find_proc_info;
    accessors.put_unwind_info = [](unw_addr_space_t, unw_proc_info_t *, void *) {};
    accessors.get_dyn_info_list_addr = [](unw_addr_space_t, unw_word_t *, void *) { return -UNW_ENOINFO; };
    accessors.access_mem = access_memory;
    accessors.access_reg = access_register;
    unw_addr_space_t as = unw_create_addr_space(&accessors, 0);
    if (std::getenv("BENCH_UNCACHED") == nullptr)
        unw_set_caching_policy(as, UNW_CACHE_GLOBAL);
    uint64_t copy[17];
    std::memcpy(copy, registers, sizeof(copy));
    uint64_t items = 0, check = 0;
    const uint64_t started = now();
    for (int i = walks(); i > 0; --i) {
        unw_cursor_t cursor;
        unw_init_remote(&cursor, as, copy);
        do {
            unw_word_t pc;
            unw_get_reg(&cursor, UNW_REG_IP, &pc);
            if (pc < chain_module.low || pc >= chain_module.high)
                break;
            ++items;
            check += pc - chain_module.low;
        } while (unw_step(&cursor) > 0);
    }
    r->ns = now() - started;
    r->items = items;
    r->check = check;
    r->reads = reads;
    unw_destroy_addr_space(as);
}

bool contest::play(run *r)
{
    return r->job == 'S' && run_chain(r->file, at_leaf, r);
}
