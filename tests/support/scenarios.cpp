// SPDX-License-Identifier: Apache-2.0
#include "support/scenarios.h"

#include "builders/indexes.h"
#include "krv_fd.h"
#include "krv_info.h"
#include "krv_line.h"

#include <algorithm>

namespace krv_test
{

// Units and lines

static session make_units()
{
    const bytes abbrev_section = abbrevs(
        "1 compile_unit+ name:string comp_dir:string stmt_list:sec_offset location:exprloc low_pc:addr high_pc:addr;"
        "2 compile_unit+ name:string comp_dir:string stmt_list:sec_offset; 4 subprogram low_pc:addr high_pc:addr");
    // Two units: one with bounds of its own, one that is scanned for them.
    const bytes dir = bytes().cstr("/build").u32(0), end = bytes().u8(0);
    const bytes first = bytes().uleb(1).cstr("a.c").add(dir).u8(1).u8(1).u64(0x400).u64(0x410).add(end);
    const bytes second = bytes().uleb(2).cstr("b.c").add(dir).uleb(4).u64(0x900).u64(0x910).add(end);
    line_unit lines{.dirs = {"src", "gen"}, .files = {{"a.c", 1}, {"b.c", 2}}};
    std::string rows; // too many for the table of places to be small
    for (int i = 0; i < 171; ++i)
        rows += "copy ";
    lines.program = program("def c.c 1 0 0 at 500 " + rows + "pc 4 end at 400 copy pc 16 end");
    return {.sections = {{KRV_SEC_ABBREV, abbrev_section},
                         {KRV_SEC_LINE, lines.build()},
                         {KRV_SEC_INFO, unit{.dies = first}.build() + unit{.dies = second}.build()},
                         {KRV_SEC_ARANGES, aranges_set{.tuples = {{0x400, 8}}}.build()}}};
}

static std::string ask_units(krv_handle_t *hp)
{
    std::string answer;
    krv_fd_t *fdp = korva_fd_alloc(hp);
    if (fdp == nullptr)
        return "!cursor";
    korva_fd_free(fdp);
    uint64_t offset = 0;
    for (const uint64_t address : {0x400, 0x900}) {
        krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(hp, KRV_SEC_INFO, offset);
        if (cu == nullptr)
            return "!unit";
        offset += cu->dcu_size;
        if (!korva_cu_contains_addr(hp, cu, address, 0))
            return "!ranges";
        if (const krv_ctu_t *found = korva_lookup_ctu_by_addr(hp, address, 0); found != cu)
            return found == nullptr ? "!index" : "another unit";
        krv_lnph_t *lnph = korva_line_get_cu_lnph(hp, cu);
        if (lnph == nullptr)
            return "!header";
        if (korva_iter_line_entry(hp, lnph, nullptr, nullptr) != 0)
            return "!walk";
        krv_lns_t *row = korva_lookup_source_by_cu_and_addr(hp, cu, 0x400, 0x10, 0x408, 0);
        if (row == nullptr)
            return "!row";
        const char *path = krv_lnfe_absolute_path(hp, korva_lns_get_filep(hp, row));
        if (path == nullptr)
            return "!path";
        answer += std::string(cu->dcu_name) + " " + path + "; ";
    }
    uint64_t falling[20];
    krv_row_t rows[20];
    std::generate(falling, falling + 20, [address = 0x412UL]() mutable { return address--; });
    if (korva_lookup_rows(hp, falling, 20, 0, nullptr, rows) != 0)
        return "!rows";
    for (const krv_row_t &row : rows)
        answer += row.number == KRV_ROW_NONE ? '-' : '=';
    return answer;
}

// Units of version 5, the second one of which is of a later version

static session make_later_units()
{
    const bytes abbrev_section = abbrevs(
        "1 compile_unit+ stmt_list:data1 0x72:sec_offset 0x73:sec_offset name:strx1 comp_dir:line_strp low_pc:addrx "
        "high_pc:data4 language:implicit_const=33");
    const bytes dies = bytes().uleb(1).u8(0).u32(8).u32(8).u8(1).u32(2).uleb(0).u32(0x10).u8(0);
    const bytes header = bytes().u16(5).u16(0);
    // A file by each kind of string that is not in the table; lines of code that is not there, twice at one place.
    const line_unit lines{.v5 = true,
                          .tables = bytes::hex("01 01 1f 01 02000000 01 01 25 02 01 01"),
                          .program =
                              program("at 400 copy pc 8 end at 400 copy pc 9 end at 0 copy pc 16 end at 500 copy")};
    return {.sections = {{KRV_SEC_ABBREV, abbrev_section},
                         {KRV_SEC_STR, bytes().cstr("int").cstr("a.c")},
                         {KRV_SEC_LINE, lines.build()},
                         {KRV_SEC_INFO, unit{.version = 5, .kind = KRV_UNIT_COMPILE, .dies = dies}.build() +
                                            unit{.version = 6, .dies = dies}.build()},
                         {KRV_SEC_EXT_LINE_STR, bytes().fill(2).cstr("/build")},
                         {KRV_SEC_EXT_STR_OFFSETS, bytes().u32(12).add(header).u32(0).u32(4)},
                         {KRV_SEC_EXT_ADDR, bytes().u32(12).add(header).u64(0x400)},
                         {KRV_SEC_EXT_LOCLISTS, bytes::hex("03 00 08 01 50 00")}},
            .extended = true};
}

static std::string ask_later_units(krv_handle_t *hp)
{
    krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(hp, KRV_SEC_INFO, 0);
    if (cu == nullptr)
        return "!unit";
    if (cu->dcu_kind == 0) { // stepped over since a read of it came up short, for good
        krv_errno(hp) = KRV_ERR_NOTFOUND;
        return "!kind";
    }
    const krv_ctu_t *next = korva_lookup_ctu_by_start_offset(hp, KRV_SEC_INFO, cu->dcu_size);
    krv_value_t *low = nullptr, *language = nullptr;
    krv_get_die_attr(hp, cu->dcu_compile_unit, DW_AT_low_pc, nullptr, nullptr, &low);
    krv_get_die_attr(hp, cu->dcu_compile_unit, DW_AT_language, nullptr, nullptr, &language);
    if (next == nullptr || low == nullptr || language == nullptr)
        return "!entry";
    krv_lns_t *row = korva_lookup_source_by_cu_and_addr(hp, cu, 0x400, 0x10, 0x408, 0);
    const char *path = row == nullptr ? nullptr : krv_lnfe_absolute_path(hp, korva_lns_get_filep(hp, row));
    if (path == nullptr)
        return "!row";
    krv_fd_t place;
    if (korva_find_location(hp, cu, 0, 0, 0x407, &place) != 0)
        return "!place";
    return path + std::string(" ") + cu->dcu_name + " " + std::to_string(low->sa_u.su_unsigned) + " " +
           std::to_string(language->sa_u.su_unsigned) + (next->dcu_kind != 0 ? " of a kind" : "");
}

// Units by address as they are written: the first is named by a set, the second says where its functions are.

static session make_written_units()
{
    const bytes abbrev_section = abbrevs("1 compile_unit+ name:string comp_dir:string; 2 subprogram ranges:sec_offset;"
                                         "3 namespace+ name:string; 4 subprogram low_pc:addr high_pc:data4");
    const bytes end = bytes().u8(0), dir = bytes().cstr("/build");
    const bytes first = bytes().uleb(1).cstr("a.c").add(dir).add(end);
    const bytes second = bytes().uleb(1).cstr("b.c").add(dir).uleb(3).cstr("n").uleb(2).u32(0).add(end).add(end);
    return {.sections = {{KRV_SEC_ABBREV, abbrev_section},
                         {KRV_SEC_INFO, unit{.dies = first}.build() + unit{.dies = second}.build()},
                         {KRV_SEC_EXT_RANGES, bytes().u64(0x900).u64(0x910).u64(0).u64(0)},
                         {KRV_SEC_ARANGES, aranges_set{.tuples = {{0x400, 8}}}.build()}},
            .extended = true};
}

static std::string ask_written_units(krv_handle_t *hp)
{
    std::string answer;
    krv_ctu_t *found[2] = {};
    for (const uint64_t i : {0, 1}) {
        found[i] = korva_lookup_ctu_by_addr(hp, i == 0 ? 0x407 : 0x90f, 0);
        if (found[i] == nullptr)
            return "!unit";
        answer += std::string(found[i]->dcu_name) + " ";
    }
    for (krv_ctu_t *cu : found) {
        krv_ctu_t *same = korva_lookup_ctu_by_start_offset(hp, KRV_SEC_INFO, cu->dcu_offset);
        if (same == nullptr)
            return "!table";
        answer += same == cu ? "" : "another record";
        if (!korva_cu_contains_addr(hp, cu, cu == found[0] ? 0x400 : 0x900, 0))
            return "!ranges";
    }
    if (korva_lookup_next_ctu_by_addr(hp, found[0], 0x900, 0) != found[1])
        return "!next";
    return answer;
}

// Calls and variables, whose names stand in another unit and in the alternate file.

static session make_calls()
{
    const bytes end = bytes().u8(0);
    const bytes other = unit{.dies = bytes().uleb(5).uleb(6).cstr("int").u8(4).uleb(7).cstr("g").add(end)}.build();
    const bytes alternate = unit{.dies = bytes().uleb(1).uleb(2).cstr("far").add(end)}.build();
    bytes dies = bytes().uleb(1).u64(0x400).u8(0x40).uleb(2).cstr("f").u64(0x400).u8(0x20);
    dies += bytes().uleb(3).u32(18).u64(0x408).u8(8) + bytes().uleb(4).u32(12).u64(0x40a).u8(2) + end;
    dies += bytes().uleb(8).cstr("v").u32(12) + end + end;
    bytes strings;
    const bytes index = name_index{.units = {other.size()}, .entries = {{"f", 0, 21}}}.build(&strings);
    return {
        .sections = {{KRV_SEC_ABBREV,
                      abbrevs(
                          "1 compile_unit+ low_pc:addr high_pc:data1; 2 subprogram+ name:string low_pc:addr "
                          "high_pc:data1; 3 inlined_subroutine+ abstract_origin:ref_addr low_pc:addr high_pc:data1; "
                          "4 inlined_subroutine abstract_origin:GNU_ref_alt low_pc:addr high_pc:data1; "
                          "5 compile_unit+; 6 base_type name:string byte_size:data1; 7 subprogram name:string; "
                          "8 variable name:string type:ref_addr")},
                     {KRV_SEC_INFO, other + unit{.dies = dies}.build()},
                     {KRV_SEC_EXT_NAMES, index},
                     {KRV_SEC_STR, strings},
                     {KRV_SEC_EXT_ALT_ABBREV, abbrevs("1 partial_unit+; 2 subprogram name:string")},
                     {KRV_SEC_EXT_ALT_INFO, alternate}},
        .extended = true,
        .in_memory = true};
}

static std::string ask_calls(krv_handle_t *hp)
{
    krv_call_t calls[4];
    krv_row_t row;
    size_t count;
    if (korva_lookup_chain(hp, 0x40a, &row, calls, 4, &count) != 0)
        return "!calls";
    if (count == 0)
        return "nothing";
    std::string answer = row.number == KRV_ROW_NONE ? "" : "row ";
    for (size_t i = 0; i < count; ++i)
        answer += text("%s ", calls[i].name);
    const auto add = [](krv_handle_t *handle, const krv_variable_t *variable, void *arg) {
        char type[16];
        if (korva_entry_get_type_text(handle, &variable->entry, type, sizeof(type)) != 0)
            return -1;
        *static_cast<std::string *>(arg) += text("%s %s ", type, variable->name);
        return 0;
    };
    if (korva_iter_variables(hp, &calls[count - 1].entry, 0x400, add, &answer) != 0)
        return "!variables";
    const auto named = [](krv_handle_t *, const krv_entry_t *entry, void *arg) {
        *static_cast<std::string *>(arg) += text("%x", entry->tag);
        return 0;
    };
    const int found = korva_iter_named_entries(hp, "f", KRV_NAMED_FUNCTIONS, named, &answer);
    return found == 0 ? answer : "!named";
}

static session make_shared_calls()
{
    session made = make_calls();
    made.threads = true;
    return made;
}

static std::string ask_prefilled_calls(krv_handle_t *hp)
{
    const auto prefill = [](krv_handle_t *handle, krv_ctu_t *cu, void *) { return korva_cu_prefill(handle, cu); };
    return korva_iter_cu(hp, KRV_SEC_INFO, prefill, nullptr) == 0 ? ask_calls(hp) : "!prefill";
}

// How answers were come by, of units, rows and names.

static std::string ask_why_written(krv_handle_t *hp)
{
    krv_unit_why_t why[2];
    for (const uint64_t i : {0, 1}) {
        const uint64_t address = i == 0 ? 0x407 : 0x90f;
        if (korva_explain_unit(hp, address, &why[i]) != 0)
            return "!why";
        if (why[i].unit == nullptr)
            return korva_lookup_ctu_by_addr(hp, address, 0) == nullptr ? "!unit" : "another answer";
    }
    std::string answer = text("%d %lx; %lx-%lx; ", why[0].reason, why[0].tuple, why[1].range.start, why[1].range.end);
    const auto add = [](krv_handle_t *, const krv_range_t *range, void *arg) {
        *static_cast<std::string *>(arg) += text("%lx-%lx ", range->start, range->end);
        return 0;
    };
    uint64_t size = 0;
    krv_fd_t fd;
    if (korva_iter_ranges(hp, why[1].unit, 0, add, &answer, &size) != 0)
        return "!list";
    return korva_get_section(hp, KRV_SEC_ARANGES, &fd) != 0 ? "!section" : answer + text("%lx", size);
}

static std::string ask_why_called(krv_handle_t *hp)
{
    krv_call_t calls[4];
    size_t count;
    if (korva_lookup_calls(hp, 0x40a, calls, 4, &count) != 0)
        return "!calls";
    std::string answer;
    for (size_t i = 0; i < count; ++i) {
        krv_name_why_t why;
        if (korva_explain_name(hp, &calls[i].entry, &why) != 0)
            return "!name";
        answer += text("%lx%s after %u; ", why.name_entry, why.name_is_alternate != 0 ? " (alternate)" : "", why.steps);
    }
    return answer;
}

static std::string ask_why_rows(krv_handle_t *hp)
{
    krv_row_why_t why;
    krv_ctu_t *cup = korva_lookup_ctu_by_start_offset(hp, KRV_SEC_INFO, 0);
    if (cup == nullptr)
        return "!unit";
    if (korva_explain_row(hp, cup, 0x400, 0x10, 0x408, &why) != 0)
        return "!row";
    return text("%u of %u: %lx %u %lx", why.row.number, why.rows, why.row.address, why.row.line, why.after.address);
}

// Frames

static function framed(bool eh)
{
    const bytes location = op(DW_OP_reg5), sum = op(DW_OP_breg7).sleb(8);
    bytes initial =
        op(DW_CFA_def_cfa).uleb(7).uleb(8).add(op(DW_CFA_offset, 16).uleb(1)).add(op(DW_CFA_same_value).uleb(5));
    if (!eh)
        initial.add(op(DW_CFA_VESK_arg_loc).uleb(1).block_uleb(location));
    const bytes rows = op(DW_CFA_remember_state) + op(DW_CFA_advance_loc, 4) + op(DW_CFA_restore_state) +
                       op(DW_CFA_def_cfa_expression).block_uleb(sum) +
                       op(DW_CFA_val_expression).uleb(3).block_uleb(sum);
    return {.initial = initial, .rows = rows, .eh = eh};
}

static bytes words()
{
    bytes memory;
    for (unsigned n = 0; n < 16; ++n)
        memory.u64(0x1010 + n);
    return memory;
}

template <bool EH, bool HDR, bool EXTENDED = false>
static session make_frames()
{
    bytes section = framed(EH).build();
    if (EXTENDED && EH) // and a record that is left out
        section += eh_cie{.augmentation = "eh"}.build();
    session s{.memory = words(), .extended = EXTENDED};
    if (!EH) {
        s.sections[KRV_SEC_FRAME] = section;
        return s;
    }
    s.eh_frame = eh_frame_address;
    s.memory.fill(eh_frame_address - stack_address - s.memory.size()).add(section);
    if (HDR) {
        s.hdr = stack_address + s.memory.size();
        const uint64_t fde_address = eh_frame_address + 4 + section.data()[0];
        const eh_hdr hdr{.entries = {{0x800, 0}, {0x1000, fde_address}, {0x1800, 0}}};
        s.memory += hdr.build(s.hdr, eh_frame_address);
    }
    return s;
}

static std::string ask_frames(krv_handle_t *hp)
{
    const krv_activation_owner ap(korva_activation_alloc(hp));
    if (ap == nullptr)
        return "!activation";
    const struct {
        krv_reg_type_t type;
        unsigned int reg;
        krv_greg_t value;
    } loads[] = {{KRV_ACTIVATION_REG_DWARF, 7, stack_address},
                 {KRV_ACTIVATION_REG_DWARF, 5, 0x55},
                 {KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, 0x1008}};
    for (const auto &l : loads)
        if (korva_activation_set_greg(hp, ap.get(), l.type, l.reg, l.value) != 0)
            return "!load";
    std::string answer;
    for (int frame = 0; frame < 2; ++frame) {
        krv_greg_t value = 0;
        if (korva_activation_get_greg(hp, ap.get(), KRV_ACTIVATION_REG_DWARF, KRV_ACTIVATION_FRAME_CALLER, 3, &value) !=
            0)
            return "!caller";
        uint8_t arg[3][8] = {};
        uint64_t count = 0;
        unsigned int argc = 0;
        if (korva_activation_get_argc(hp, ap.get(), &argc) != 0)
            return "!number of arguments";
        if (argc != 0 && frame == 0 &&
            korva_activation_get_argv(hp, ap.get(), 1, arg[0], arg[1], arg[2], sizeof(arg[0]), &count) != 0)
            return "!argument";
        if (korva_activation_unwind(hp, ap.get()) != 0)
            return "!unwind";
        answer += text("%lx %x; ", static_cast<uint64_t>(value), arg[0][0]);
    }
    return answer;
}

// Which records and rules they come from, and every record.
static std::string ask_why_frames(krv_handle_t *hp)
{
    krv_frame_why_t why;
    krv_rule_record_t rules[8];
    size_t count = 0;
    if (korva_explain_frame(hp, 0x1008, &why, rules, std::size(rules), &count) != 0)
        return "!frame";
    std::string answer = text("%lx-%lx:", why.row.start, why.row.end);
    for (size_t i = 0; i < count && i < std::size(rules); ++i)
        answer += text(" %s %u", rules[i].name, rules[i].kind);
    const krv_activation_owner ap(korva_activation_alloc(hp));
    krv_frame_record_t record = {};
    if (ap == nullptr)
        return "!activation";
    for (uint64_t at = 0; at <= why.fde; at += record.size) {
        if (korva_frame_record_at(hp, ap.get(), at, &record) != 0)
            return "!record";
        answer += text("; %u: %u rows", unsigned{record.kind}, record.rows);
    }
    return answer;
}

template <bool EH, bool HDR>
static session make_constant_frames()
{
    session s = make_frames<EH, HDR, true>();
    s.constant = true;
    return s;
}

// The same before there are rules to be used again, with some, with a table of all, and then by that alone.
static std::string ask_constant_frames(krv_handle_t *hp)
{
    const std::string first = ask_frames(hp);
    if (first[0] == '!' || ask_frames(hp) != first)
        return first[0] == '!' ? first : "!again";
    if (korva_frames_prefill(hp) != 0)
        return "!table";
    if (ask_frames(hp) != first)
        return "!by the table";
    const krv_stack_module_t module = {hp, 0};
    krv_stack_t stack = {};
    stack.modules = &module;
    stack.nmodules = 1;
    stack.gregs[KRV_HOST_RSP] = stack_address;
    stack.gregs[KRV_HOST_RIP] = 0x1008;
    stack.mask = 1 << KRV_HOST_RSP | 1 << KRV_HOST_RIP;
    stack.read = hp->sh_as.sfd_u.cb.func;
    stack.arg = hp->sh_as.sfd_u.cb.arg;
    uint64_t addresses[4];
    krv_stack_end_t end;
    const size_t count = korva_stack_addresses(&stack, addresses, std::size(addresses), &end);
    if (end.reason == KRV_STACK_MEMORY) {
        krv_fail(hp, KRV_ERR_IO, "read callback failed");
        return "!stack";
    }
    return first + text("%zu %lx %d", count, end.pc, end.reason);
}

// Expressions on their own

static bytes value_expression()
{
    return op(DW_OP_addr).u64(stack_address) + op(DW_OP_deref) + op(DW_OP_breg5).sleb(8) + op(DW_OP_plus);
}

static session make_expressions()
{
    const bytes place = op(DW_OP_reg5) + op(DW_OP_piece).uleb(1) + op(DW_OP_addr).u64(stack_address + 8);
    return {.sections = {{KRV_SEC_LOC, value_expression() + place}}, .memory = words()};
}

static std::string ask_expressions(krv_handle_t *hp)
{
    const krv_activation_owner ap(korva_activation_alloc(hp));
    if (ap == nullptr || korva_activation_set_greg(hp, ap.get(), KRV_ACTIVATION_REG_DWARF, 5, 0x55) != 0)
        return "!activation";
    const std::unique_ptr<krv_exprstack_t, decltype(&korva_expr_free_stack)> stack(korva_expr_alloc_stack(hp),
                                                                                   korva_expr_free_stack);
    if (stack == nullptr)
        return "!stack";
    krv_fd_t fd = hp->sh_sec[KRV_SEC_LOC];
    int count = 0;
    const auto counted = [](krv_handle_t *, uint8_t, krv_operand_t *, unsigned int, void *arg) {
        return ++*static_cast<int *>(arg), 0;
    };
    if (korva_expr_iter_instruction(hp, &fd, 0, counted, &count) != 0)
        return "!walk";
    uint64_t value = 0;
    const uint64_t value_size = value_expression().size();
    fd = hp->sh_sec[KRV_SEC_LOC];
    if (korva_fd_truncate(&fd, value_size) != 0 ||
        korva_expr_execute_expression(hp, stack.get(), ap.get(), &fd, 0, nullptr, nullptr, nullptr) != 0 ||
        korva_expr_stack_pop(hp, stack.get(), &value) != 0)
        return "!value";
    uint8_t object[3] = {};
    krv_fd_t room;
    krv_fd_attach_mem(hp, &room, sizeof(object), object);
    krv_fd_t *const outputs[3] = {&room, nullptr, nullptr};
    fd = hp->sh_sec[KRV_SEC_LOC];
    if (korva_fd_seek(&fd, value_size, KRV_FD_SEEK_SET) != 0 ||
        korva_expr_execute_expression(hp, stack.get(), ap.get(), &fd, KRV_EXPR_F_LOCATION,
                                      const_cast<krv_fd_t **>(outputs), nullptr, nullptr) != 0)
        return "!place";
    return text("%d %lx %02x%02x%02x", count, value, object[0], object[1], object[2]);
}

// Of its sections only what is read beside memory comes by call-backs.
template <session (*Make)()>
static session in_memory()
{
    session data = Make();
    data.in_memory = true;
    return data;
}

std::span<const scenario> scenarios()
{
    static const scenario all[] = {
        {"units", make_units, ask_units, "a.c /build/src/a.c; b.c /build/src/a.c; ---================-", 60},
        {"later units", make_later_units, ask_later_units, "/build/a.c a.c 1024 33", 20},
        {"units in memory", in_memory<make_units>, ask_units,
         "a.c /build/src/a.c; b.c /build/src/a.c; ---================-", 0},
        {"later units in memory", in_memory<make_later_units>, ask_later_units, "/build/a.c a.c 1024 33", 0},
        {"units as written", make_written_units, ask_written_units, "a.c b.c ", 20},
        {"calls", make_calls, ask_calls, "far g f int v 2e", 0},
        {"prefilled calls", make_shared_calls, ask_prefilled_calls, "far g f int v 2e", 0},
        {"why units", make_written_units, ask_why_written, "1 10; 900-910; 900-910 20", 20},
        {"why calls", make_calls, ask_why_called, "c (alternate) after 1; 12 after 1; 2b after 0; ", 0},
        {"why rows", make_units, ask_why_rows, "172 of 174: 400 1 410", 20},
        {"why .debug_frame", make_frames<false, false, true>, ask_why_frames,
         "1004-1100: CFA 5 rbx 6 rdi 1 rbp 1 rsp 3 r12 1 r13 1 r14 1; 1: 0 rows; 2: 2 rows", 15},
        {"why .eh_frame", make_frames<true, true, true>, ask_why_frames,
         "1004-1100: CFA 5 rbx 6 rdi 1 rbp 1 rsp 3 r12 1 r13 1 r14 1; 1: 0 rows; 2: 2 rows", 15},
        {".debug_frame", make_frames<false, false>, ask_frames, "7008 55; 7010 0; ", 15},
        {".eh_frame", make_frames<true, false>, ask_frames, "7008 0; 7010 0; ", 15},
        {".eh_frame_hdr", make_frames<true, true>, ask_frames, "7008 0; 7010 0; ", 15},
        {".debug_frame as written", make_frames<false, false, true>, ask_frames, "7008 55; 7010 0; ", 15},
        {".eh_frame as written", make_frames<true, false, true>, ask_frames, "7008 0; 7010 0; ", 15},
        {"constant .debug_frame", make_constant_frames<false, false>, ask_constant_frames, "7008 55; 7010 0; 4 1012 6",
         15},
        {"constant .eh_frame", make_constant_frames<true, true>, ask_constant_frames, "7008 0; 7010 0; 4 1012 6", 15},
        {"expressions", make_expressions, ask_expressions, "7 106d 551110", 5},
    };
    return all;
}

void session::set_options(krv_handle_t *hp) const
{
    if (eh_frame != 0)
        korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_ADDR, eh_frame);
    if (hdr != 0)
        korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_HDR_ADDR, hdr);
    for (int tries = 2; constant && tries > 0; --tries) // memory may run out once
        if (korva_handle_set_opt(hp, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1}) == 0)
            break;
    for (int tries = 2; threads && tries > 0; --tries)
        if (korva_handle_set_opt(hp, KRV_OPT_EXT_THREADS, uint64_t{1}) == 0)
            break;
    if (!extended)
        return;
    for (const krv_opt_idx_t opt : {KRV_OPT_EXT_DWARF5, KRV_OPT_EXT_AS_WRITTEN})
        korva_handle_set_opt(hp, opt, uint64_t{1});
    korva_handle_add_code(hp, 0x300, 0x1000);
}

} // namespace krv_test
