// SPDX-License-Identifier: Apache-2.0
//
// elfutils: libdw for U, E, L, A and F, libdwfl for S.
#include "contest.h"

#include <cstdlib>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <gelf.h>
#include <unistd.h>

using namespace contest;

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

template <typename Visit>
static void for_each_unit(Dwarf *dwarf, Visit visit)
{
    Dwarf_CU *cu = nullptr;
    Dwarf_Die die;
    while (dwarf_get_units(dwarf, cu, &cu, nullptr, nullptr, &die, nullptr) == 0)
        visit(&die);
}

static int add_value(Dwarf_Attribute *attribute, void *arg)
{
    Dwarf_Word word = 0;
    Dwarf_Sword signed_word;
    Dwarf_Block block;
    bool flag = false;
    switch (attribute->form) {
    case DW_FORM_addr:
        dwarf_formaddr(attribute, &word);
        break;
    case DW_FORM_string:
    case DW_FORM_strp:
        word = std::strlen(dwarf_formstring(attribute));
        break;
    case DW_FORM_block:
    case DW_FORM_block1:
    case DW_FORM_block2:
    case DW_FORM_block4:
    case DW_FORM_exprloc:
        dwarf_formblock(attribute, &block);
        word = block.length;
        break;
    case DW_FORM_flag:
    case DW_FORM_flag_present:
        dwarf_formflag(attribute, &flag);
        word = flag;
        break;
    case DW_FORM_ref1:
    case DW_FORM_ref2:
    case DW_FORM_ref4:
    case DW_FORM_ref8:
    case DW_FORM_ref_udata:
        dwarf_formref(attribute, &word);
        break;
    case DW_FORM_sdata:
        dwarf_formsdata(attribute, &signed_word);
        word = static_cast<Dwarf_Word>(signed_word);
        break;
    default:
        dwarf_formudata(attribute, &word);
    }
    static_cast<run *>(arg)->check += word;
    return DWARF_CB_OK;
}

static void walk_entries(run *r, Dwarf_Die *die)
{
    do {
        ++r->items;
        dwarf_getattrs(die, add_value, r, 0);
        Dwarf_Die child;
        if (dwarf_haschildren(die) && dwarf_child(die, &child) == 0)
            walk_entries(r, &child);
    } while (dwarf_siblingof(die, die) == 0);
}

static void read_lines(run *r, Dwarf_Die *unit)
{
    Dwarf_Lines *lines;
    size_t count;
    if (dwarf_getsrclines(unit, &lines, &count) != 0)
        return;
    for (size_t i = 0; i < count; ++i) {
        Dwarf_Line *row = dwarf_onesrcline(lines, i);
        Dwarf_Addr address = 0;
        int line = 0;
        dwarf_lineaddr(row, &address);
        dwarf_lineno(row, &line);
        r->check += address ^ static_cast<uint64_t>(line);
    }
    r->items += count;
}

static uint64_t place(Dwarf *dwarf, uint64_t address)
{
    Dwarf_Die unit;
    if (dwarf_addrdie(dwarf, address, &unit) == nullptr)
        return 0;
    Dwarf_Line *row = dwarf_getsrc_die(&unit, address);
    int line = 0;
    if (row == nullptr || dwarf_lineno(row, &line) != 0)
        return 0;
    return place_check(dwarf_linesrc(row, nullptr, nullptr), static_cast<uint64_t>(line));
}

static uint64_t row_check(Dwarf_Frame *frame)
{
    Dwarf_Op *ops, memory[3];
    size_t n;
    uint64_t check = 0;
    if (dwarf_frame_cfa(frame, &ops, &n) == 0 && n == 1) {
        if (ops[0].atom == DW_OP_bregx)
            check += cfa_check(ops[0].number, static_cast<int64_t>(ops[0].number2));
        else if (ops[0].atom >= DW_OP_breg0 && ops[0].atom <= DW_OP_breg31)
            check += cfa_check(ops[0].atom - DW_OP_breg0, static_cast<int64_t>(ops[0].number));
    }
    for (const unsigned reg : saved_registers)
        if (dwarf_frame_register(frame, static_cast<int>(reg), memory, &ops, &n) == 0 && n >= 1 &&
            ops[0].atom == DW_OP_call_frame_cfa)
            check += saved_check(reg, n > 1 ? static_cast<int64_t>(ops[1].number) : 0);
    return check;
}

static void find_rows(run *r, int fd)
{
    Elf *elf = elf_begin(fd, ELF_C_READ_MMAP, nullptr);
    Dwarf_CFI *cfi = dwarf_getcfi_elf(elf);
    for (uint64_t i = 0; i < r->nqueries; ++i) {
        Dwarf_Frame *frame;
        if (dwarf_cfi_addrframe(cfi, r->queries[i].address, &frame) != 0)
            continue;
        r->check += row_check(frame);
        std::free(frame);
    }
    r->items = r->nqueries;
    dwarf_cfi_end(cfi);
    elf_end(elf);
}

// ---------------------------------------------------------------------------------------------------------------
// The walk
// ---------------------------------------------------------------------------------------------------------------

static const uint64_t *start;
static module chain_module;
static uint64_t reads;

static pid_t next_thread(Dwfl *, void *arg, void **thread)
{
    if (*thread != nullptr)
        return 0;
    *thread = arg;
    return getpid();
}

static bool read_memory(Dwfl *, Dwarf_Addr address, Dwarf_Word *result, void *)
{
    ++reads;
    std::memcpy(result, reinterpret_cast<const void *>(address), sizeof(*result));
    return true;
}

static bool set_registers(Dwfl_Thread *thread, void *)
{
    Dwarf_Word registers[17];
    std::memcpy(registers, start, sizeof(registers));
    dwfl_thread_state_register_pc(thread, registers[16]);
    return dwfl_thread_state_registers(thread, 0, 17, registers);
}

static int visit_frame(Dwfl_Frame *frame, void *arg)
{
    Dwarf_Addr pc;
    if (!dwfl_frame_pc(frame, &pc, nullptr) || pc < chain_module.low || pc >= chain_module.high)
        return DWARF_CB_ABORT;
    auto *r = static_cast<run *>(arg);
    ++r->items;
    r->check += pc - chain_module.low;
    return DWARF_CB_OK;
}

static void at_leaf(const uint64_t registers[17], void *arg)
{
    auto *r = static_cast<run *>(arg);
    start = registers;
    chain_module = module_of(registers[16]);
    Dwfl_Callbacks callbacks = {};
    callbacks.find_elf = dwfl_linux_proc_find_elf;
    callbacks.find_debuginfo = dwfl_standard_find_debuginfo;
    Dwfl *dwfl = dwfl_begin(&callbacks);
    dwfl_report_begin(dwfl);
    dwfl_linux_proc_report(dwfl, getpid());
    dwfl_report_end(dwfl, nullptr, nullptr);
    GElf_Addr bias;
    dwfl_module_getelf(dwfl_addrmodule(dwfl, registers[16]), &bias);
    static const Dwfl_Thread_Callbacks threads = {next_thread, nullptr, read_memory, set_registers, nullptr, nullptr};
    if (!dwfl_attach_state(dwfl, nullptr, getpid(), &threads, r))
        return;
    const uint64_t started = now();
    for (int i = walks(); i > 0; --i)
        dwfl_getthread_frames(dwfl, getpid(), visit_frame, r);
    r->ns = now() - started;
    r->reads = reads;
    dwfl_end(dwfl);
}

bool contest::play(run *r)
{
    if (r->job == 'S')
        return run_chain(r->file, at_leaf, r);
    if (std::strchr("UELABF", r->job) == nullptr)
        return false;
    elf_version(EV_CURRENT);
    const uint64_t started = now();
    const int fd = open(r->file, O_RDONLY);
    if (r->job == 'F') {
        find_rows(r, fd);
        close(fd);
        return true;
    }
    Dwarf *dwarf = dwarf_begin(fd, DWARF_C_READ);
    if (r->job == 'U')
        for_each_unit(dwarf, [&](Dwarf_Die *unit) {
            Dwarf_Attribute a;
            const char *dir = dwarf_attr(unit, DW_AT_comp_dir, &a) != nullptr ? dwarf_formstring(&a) : nullptr;
            r->check += unit_check(dwarf_diename(unit), dir);
            ++r->items;
        });
    else if (r->job == 'E')
        for_each_unit(dwarf, [&](Dwarf_Die *unit) { walk_entries(r, unit); });
    else if (r->job == 'L')
        for_each_unit(dwarf, [&](Dwarf_Die *unit) { read_lines(r, unit); });
    else
        find_places(r, started, [&](const query &q) { return place(dwarf, q.address); });
    dwarf_end(dwarf);
    close(fd);
    return true;
}
