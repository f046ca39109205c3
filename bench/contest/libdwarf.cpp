// SPDX-License-Identifier: Apache-2.0
//
// libdwarf: U and L.
#include "contest.h"

#include <libdwarf/dwarf.h>
#include <libdwarf/libdwarf.h>

using namespace contest;

static bool next_unit(Dwarf_Debug dwarf, Dwarf_Die *unit)
{
    Dwarf_Unsigned length, type_offset, next;
    Dwarf_Half version, address_size, length_size, extension_size, kind;
    Dwarf_Off abbrev_offset;
    Dwarf_Sig8 signature;
    Dwarf_Error error;
    return dwarf_next_cu_header_d(dwarf, 1, &length, &version, &abbrev_offset, &address_size, &length_size,
                                  &extension_size, &signature, &type_offset, &next, &kind, &error) == DW_DLV_OK &&
           dwarf_siblingof_b(dwarf, nullptr, 1, unit, &error) == DW_DLV_OK;
}

static void read_name(run *r, Dwarf_Die unit)
{
    Dwarf_Error error;
    char *name, *directory;
    if (dwarf_diename(unit, &name, &error) != DW_DLV_OK)
        name = nullptr;
    if (dwarf_die_text(unit, DW_AT_comp_dir, &directory, &error) != DW_DLV_OK)
        directory = nullptr;
    r->check += unit_check(name, directory);
    ++r->items;
}

static void read_lines(run *r, Dwarf_Die unit)
{
    Dwarf_Unsigned version, line;
    Dwarf_Small tables;
    Dwarf_Line_Context context;
    Dwarf_Line *rows;
    Dwarf_Signed count;
    Dwarf_Addr address;
    Dwarf_Error error;
    if (dwarf_srclines_b(unit, &version, &tables, &context, &error) != DW_DLV_OK)
        return;
    if (dwarf_srclines_from_linecontext(context, &rows, &count, &error) == DW_DLV_OK) {
        for (Dwarf_Signed i = 0; i < count; ++i) {
            dwarf_lineaddr(rows[i], &address, &error);
            dwarf_lineno(rows[i], &line, &error);
            r->check += address ^ line;
        }
        r->items += static_cast<uint64_t>(count);
    }
    dwarf_srclines_dealloc_b(context);
}

bool contest::play(run *r)
{
    if (r->job != 'U' && r->job != 'L')
        return false;
    Dwarf_Debug dwarf;
    Dwarf_Error error;
    if (dwarf_init_path(r->file, nullptr, 0, DW_DLC_READ, DW_GROUPNUMBER_ANY, nullptr, nullptr, &dwarf, nullptr, 0,
                        nullptr, &error) != DW_DLV_OK)
        return false;
    for (Dwarf_Die unit; next_unit(dwarf, &unit); dwarf_dealloc_die(unit)) {
        if (r->job == 'U')
            read_name(r, unit);
        else
            read_lines(r, unit);
    }
    dwarf_finish(dwarf, &error);
    return true;
}
