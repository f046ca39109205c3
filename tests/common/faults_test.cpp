// SPDX-License-Identifier: Apache-2.0
//
// Memory that runs out, and reads that fail. The n-th allocation of a whole session fails, for every n; likewise the
// n-th read fails, then comes up short. What failed says so, nothing leaks (the address sanitizer watches), and when all
// is well again the same handle answers as if nothing had happened.
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_frame.h"
#include "krv_hash.h"
#include "krv_info.h"
#include "krv_line.h"
#include "support/activation.h"
#include "support/allocations.h"

#include <gtest/gtest.h>
#include <utility>

using namespace krv_test;

static unsigned allocations, fail_at; // fail_at 0: never

static bool granted(size_t)
{
    return ++allocations != fail_at;
}

static unsigned reads, fail_read_at; // likewise
static fault read_fault;

// A session's sections are read here, all of them in one count.
static int64_t read_counted(void *arg, void *buf, size_t count, uint64_t offset)
{
    const bool faulty = ++reads == fail_read_at;
    if (faulty && read_fault == fault::fails)
        return -1;
    const int64_t got = reader::read(arg, buf, count, offset);
    return faulty && got > 0 ? got - 1 : got;
}

namespace
{

using readers = std::vector<std::unique_ptr<reader>>;

struct scenario {
    const char *name;
    void (*attach)(krv_handle_t *hp, readers *sources);
    std::string (*ask)(krv_handle_t *hp); // the answer, or where it failed
    const char *expected;
    unsigned least; // faults that the session is known to have room for
};

} // namespace

static reader *keep(readers *sources, bytes contents, uint64_t base = 0)
{
    sources->push_back(std::make_unique<reader>(reader{.contents = std::move(contents), .base = base}));
    return sources->back().get();
}

static void attach(krv_handle_t *hp, readers *sources, krv_secidx_t sec, const bytes &contents)
{
    korva_attach_section(hp, sec, contents.size(), KRV_FD_TYPE_CB, read_counted, keep(sources, contents));
}

// Units and lines

static void attach_units(krv_handle_t *hp, readers *sources)
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
    attach(hp, sources, KRV_SEC_ABBREV, abbrev_section);
    attach(hp, sources, KRV_SEC_LINE, lines.build());
    attach(hp, sources, KRV_SEC_INFO, unit{.dies = first}.build() + unit{.dies = second}.build());
    attach(hp, sources, KRV_SEC_ARANGES, aranges_set{.tuples = {{0x400, 8}}}.build());
}

static std::string ask_units(krv_handle_t *hp)
{
    std::string answer;
    krv_fd_t *fdp = korva_fd_alloc(hp);
    if (fdp == nullptr)
        return "cursor";
    korva_fd_free(fdp);
    uint64_t offset = 0;
    for (const uint64_t address : {0x400, 0x900}) {
        krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(hp, KRV_SEC_INFO, offset);
        if (cu == nullptr)
            return "unit";
        offset += cu->dcu_size;
        if (!korva_cu_contains_addr(hp, cu, address, 0))
            return "ranges";
        if (korva_lookup_ctu_by_addr(hp, address, 0) != cu)
            return "index";
        krv_lnph_t *lnph = korva_line_get_cu_lnph(hp, cu);
        if (lnph == nullptr)
            return "header";
        if (korva_iter_line_entry(hp, lnph, nullptr, nullptr) != 0)
            return "walk";
        krv_lns_t *row = korva_lookup_source_by_cu_and_addr(hp, cu, 0x400, 0x10, 0x408, 0);
        if (row == nullptr)
            return "row";
        const char *path = krv_lnfe_absolute_path(hp, korva_lns_get_filep(hp, row));
        if (path == nullptr)
            return "path";
        answer += std::string(cu->dcu_name) + " " + path + "; ";
    }
    return answer;
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

static void attach_debug_frame(krv_handle_t *hp, readers *sources)
{
    attach(hp, sources, KRV_SEC_FRAME, framed(false).build());
    korva_attach_as(hp, read_counted, keep(sources, words(), stack_address));
}

template <bool HDR>
static void attach_eh_frame(krv_handle_t *hp, readers *sources)
{
    const bytes section = framed(true).build();
    bytes memory = words();
    memory.fill(eh_frame_address - stack_address - memory.size()).add(section);
    korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_ADDR, eh_frame_address);
    if (HDR) {
        const uint64_t at = stack_address + memory.size(), fde_address = eh_frame_address + 4 + section.data()[0];
        korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_HDR_ADDR, at);
        const eh_hdr hdr{.entries = {{0x800, 0}, {0x1000, fde_address}, {0x1800, 0}}};
        memory += hdr.build(at, eh_frame_address);
    }
    korva_attach_as(hp, read_counted, keep(sources, memory, stack_address));
}

static std::string ask_frames(krv_handle_t *hp)
{
    const krv_activation_owner ap(korva_activation_alloc(hp));
    if (ap == nullptr)
        return "activation";
    const struct {
        krv_reg_type_t type;
        unsigned int reg;
        krv_greg_t value;
    } loads[] = {{KRV_ACTIVATION_REG_DWARF, 7, stack_address},
                 {KRV_ACTIVATION_REG_DWARF, 5, 0x55},
                 {KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, 0x1008}};
    for (const auto &l : loads)
        if (korva_activation_set_greg(hp, ap.get(), l.type, l.reg, l.value) != 0)
            return "load";
    std::string answer;
    for (int frame = 0; frame < 2; ++frame) {
        krv_greg_t value = 0;
        if (korva_activation_get_greg(hp, ap.get(), KRV_ACTIVATION_REG_DWARF, KRV_ACTIVATION_FRAME_CALLER, 3, &value) !=
            0)
            return "caller";
        uint8_t arg[3][8] = {};
        uint64_t count = 0;
        unsigned int argc = 0;
        if (korva_activation_get_argc(hp, ap.get(), &argc) != 0)
            return "number of arguments";
        if (argc != 0 && frame == 0 &&
            korva_activation_get_argv(hp, ap.get(), 1, arg[0], arg[1], arg[2], sizeof(arg[0]), &count) != 0)
            return "argument";
        if (korva_activation_unwind(hp, ap.get()) != 0)
            return "unwind";
        answer += text("%llx %x; ", static_cast<unsigned long long>(value), arg[0][0]);
    }
    return answer;
}

// Expressions on their own

static constexpr uint64_t VALUE_SIZE = 13;

static void attach_expressions(krv_handle_t *hp, readers *sources)
{
    const bytes value = op(DW_OP_addr).u64(stack_address) + op(DW_OP_deref) + op(DW_OP_breg5).sleb(8) + op(DW_OP_plus);
    const bytes place = op(DW_OP_reg5) + op(DW_OP_piece).uleb(1) + op(DW_OP_addr).u64(stack_address + 8);
    ASSERT_EQ(value.size(), VALUE_SIZE);
    attach(hp, sources, KRV_SEC_LOC, value + place);
    korva_attach_as(hp, read_counted, keep(sources, words(), stack_address));
}

static std::string ask_expressions(krv_handle_t *hp)
{
    const krv_activation_owner ap(korva_activation_alloc(hp));
    if (ap == nullptr || korva_activation_set_greg(hp, ap.get(), KRV_ACTIVATION_REG_DWARF, 5, 0x55) != 0)
        return "activation";
    const std::unique_ptr<krv_exprstack_t, decltype(&korva_expr_free_stack)> stack(korva_expr_alloc_stack(hp),
                                                                                   korva_expr_free_stack);
    if (stack == nullptr)
        return "stack";
    krv_fd_t fd = hp->sh_sec[KRV_SEC_LOC];
    int count = 0;
    const auto counted = [](krv_handle_t *, uint8_t, krv_operand_t *, unsigned int, void *arg) {
        return ++*static_cast<int *>(arg), 0;
    };
    if (korva_expr_iter_instruction(hp, &fd, 0, counted, &count) != 0)
        return "walk";
    uint64_t value = 0;
    fd = hp->sh_sec[KRV_SEC_LOC];
    if (korva_fd_truncate(&fd, VALUE_SIZE) != 0 ||
        korva_expr_execute_expression(hp, stack.get(), ap.get(), &fd, 0, nullptr, nullptr, nullptr) != 0 ||
        korva_expr_stack_pop(hp, stack.get(), &value) != 0)
        return "value";
    uint8_t object[3] = {};
    krv_fd_t room;
    krv_fd_attach_mem(hp, &room, sizeof(object), object);
    krv_fd_t *const outputs[3] = {&room, nullptr, nullptr};
    fd = hp->sh_sec[KRV_SEC_LOC];
    if (korva_fd_seek(&fd, VALUE_SIZE, KRV_FD_SEEK_SET) != 0 ||
        korva_expr_execute_expression(hp, stack.get(), ap.get(), &fd, KRV_EXPR_F_LOCATION,
                                      const_cast<krv_fd_t **>(outputs), nullptr, nullptr) != 0)
        return "place";
    return text("%d %llx %02x%02x%02x", count, static_cast<unsigned long long>(value), object[0], object[1], object[2]);
}

static const scenario scenarios[] = {
    {"units", attach_units, ask_units, "a.c /build/src/a.c; b.c /build/src/a.c; ", 60},
    {".debug_frame", attach_debug_frame, ask_frames, "7008 55; 7010 0; ", 15},
    {".eh_frame", attach_eh_frame<false>, ask_frames, "7008 0; 7010 0; ", 15},
    {".eh_frame_hdr", attach_eh_frame<true>, ask_frames, "7008 0; 7010 0; ", 15},
    {"expressions", attach_expressions, ask_expressions, "7 106d 551110", 5},
};

// A handle that cannot have the reader that suits it takes the one that knows no frames, for good: until its address
// space is attached again.
static bool fell_back(krv_handle_t *hp)
{
    auto *reader = static_cast<krv_reader_t *>(hp->sh_frame_reader);
    krv_reader_t *none = krv_no_frame_create_reader(hp);
    const bool same = reader != nullptr && reader->sr_ops == none->sr_ops;
    none->sr_ops->sro_destroy_reader(none);
    return same;
}

// One session of every scenario for each n, until the n-th fault is not met any more: its answer is the right one, or an
// error that says what happened. Then all is well again, and the same question is asked once more. Returns all that was
// reported.
static std::string fail_each(unsigned *at, const unsigned *count, bool (*says)(handle &h),
                             bool (*recovers)(const std::string &answer, handle &h, const scenario &s))
{
    std::string seen;
    for (const scenario &s : scenarios) {
        unsigned n = 0;
        for (bool met = true; met;) {
            SCOPED_TRACE(text("%s, fault %u", s.name, ++n));
            allocations = reads = 0;
            *at = n;
            krv_handle_t *hp = korva_handle_alloc(KRV_ACTIVATION_AMD64);
            if (hp == nullptr) {
                EXPECT_LE(n, 18U); // the options, the handle and its sixteen messages
                continue;
            }
            readers sources;
            handle owner(hp);
            owner.watch();
            s.attach(hp, &sources);
            const std::string answer = s.ask(hp);
            met = *count >= n;
            *at = 0;
            seen += owner.error() + "\n";
            const bool no_reader = fell_back(hp);
            EXPECT_TRUE(answer == s.expected || (met && (no_reader || says(owner)))) << answer << ": " << owner.error();
            EXPECT_TRUE(met || n > s.least);
            if (no_reader)
                krv_destroy_reader(hp);
            const std::string again = s.ask(hp);
            EXPECT_TRUE(recovers(again, owner, s)) << again << ": " << owner.error() << " after: " << answer;
        }
    }
    return seen;
}

TEST(Faults, EveryAllocationFailsOnce)
{
    setenv("LIBKORVA_OPTIONS", "debug", 1); // until its messages are watched
    const std::string seen = fail_each(
        &fail_at, &allocations, [](handle &h) { return h->sh_errno == KRV_ERR_NOMEM; },
        [](const std::string &answer, handle &, const scenario &s) { return answer == s.expected; });
    unsetenv("LIBKORVA_OPTIONS");
    for (const char *message :
         {"error hashing abbreviation", "unable to resize CU table", "unable to create CU lookup hash",
          "error hashing offset", "NOMEM: couldn't add directory gen", "NOMEM: couldn't add file b.c",
          "NOMEM: couldn't add dynamically-defined file c.c | error processing opcode 3 (DW_LNE_define_file)",
          "NOMEM: couldn't create temporary table for canonical address calculation | error calculating canonical"})
        EXPECT_NE(seen.find(message), std::string::npos) << message;
}

TEST(Faults, HashTableThatCannotGrow)
{
    handle h;
    const std::unique_ptr<krv_hash_t, decltype(&krv_hash_destroy)> table(krv_hash_create(h, 0, KRV_HASH_UINT64),
                                                                         krv_hash_destroy);
    const auto insert = [&](uint64_t n) {
        const krv_hash_key_t key = {.dwhk_u = n};
        return krv_hash_insert(h, table.get(), &key, table.get()) != nullptr;
    };
    for (uint64_t n = 0; n < 20; ++n) {
        allocations = 0;
        fail_at = 1;
        const bool fitted = insert(n);
        fail_at = 0;
        // Entries come half as many at a time as there are buckets; buckets double when more than half of them are taken.
        EXPECT_EQ(fitted, n != 0 && n != 8 && n != 16 && n != 9 && n != 17) << n;
        EXPECT_EQ(h.error(), fitted ? "NONE" : "NOMEM");
        EXPECT_TRUE(fitted || insert(n)) << n;
        krv_clear_error(h);
    }
}

// What a failed read says may be overlaid by what its absence means: an entry without children, a record of no kind.
// A list that is cut short by a read stays so: its end is where reading ended. A LEB128 number takes what it gets.
TEST(Faults, EveryReadFailsOnce)
{
    for (const fault kind : {fault::fails, fault::short_}) {
        SCOPED_TRACE(kind == fault::fails ? "fails" : "is short");
        read_fault = kind;
        fail_each(
            &fail_read_at, &reads,
            [](handle &h) {
                std::string log;
                for (const std::string &line : h.log)
                    log += line + "\n";
                return h->sh_errno == KRV_ERR_IO ||
                       (h->sh_errno != KRV_ERR_NONE && (log.find("read callback failed") != std::string::npos ||
                                                        log.find("unterminated by end") != std::string::npos));
            },
            [](const std::string &answer, handle &h, const scenario &s) {
                return answer == s.expected || h->sh_errno == KRV_ERR_NOTFOUND;
            });
    }
}
