// SPDX-License-Identifier: Apache-2.0
//
// Jobs of doubling size on data that the builders make, so that no compiler's output changes their work. counts_test.py
// runs this under callgrind, which writes the instructions of each measured part to a file of its own.
#include "builders/frames.h"
#include "builders/handle.h"
#include "krv_info.h"
#include "krv_line.h"
#include "krv_unwind.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <valgrind/callgrind.h>
#include <vector>

using namespace krv_test;

constexpr unsigned LOOKUPS = 500;

namespace
{

// What a job reads. That of compilers is read with both extensions on.
struct input {
    const char *suffix; // of the job's name
    uint16_t version;
    bool is_compilers;

    bool is_v5() const { return version == 5; }
    uint8_t unit_kind() const { return is_v5() ? KRV_UNIT_COMPILE : 0; }
    void prepare(handle &h) const
    {
        if (is_compilers)
            h.extend();
    }
};

constexpr input PLAIN = {"", 4, false}, DWARF_4 = {"4", 4, true}, DWARF_5 = {"5", 5, true};

} // namespace

// Names what was counted between measure_begin and here: job, size, and the items that it handled.
static void measure_begin()
{
    CALLGRIND_ZERO_STATS;
}
static void measure_end(const char *job, unsigned size, unsigned items, const input &in = PLAIN)
{
    const std::string name = text("%s%s %u %u", job, in.suffix, size, items);
    CALLGRIND_DUMP_STATS_AT(name.c_str());
}

static void check(bool holds, const char *what)
{
    if (holds)
        return;
    std::fprintf(stderr, "counts: %s\n", what);
    std::exit(1);
}

static uint64_t next_number(uint64_t *seed)
{
    *seed = *seed * 6364136223846793005U + 1442695040888963407U;
    return *seed >> 33;
}

// Units with an abbreviation table each, as small C units have them, covering 16 addresses from 0x1000 + 16 * n on; then
// the unit of an address.
static void units(unsigned count, const input &in)
{
    const char *const form = !in.is_compilers ? "string" : in.is_v5() ? "line_strp" : "strp";
    const bytes table = abbrevs(text("1 compile_unit+ producer:string name:%s comp_dir:%s ", form, form) +
                                "low_pc:addr high_pc:data4;"
                                "2 subprogram+ name:string decl_file:data1 decl_line:data2 type:ref4; 3 base_type "
                                "byte_size:data1 encoding:data1 name:string; 4 variable name:string type:ref4");
    bytes abbrev_section, info, strings;
    if (in.is_compilers)
        strings.cstr("/build/project");
    for (unsigned i = 0; i < count; ++i) {
        const std::string name = text("source-%u.c", i);
        bytes die = bytes().uleb(1).cstr("a compiler");
        if (in.is_compilers) {
            die.u32(strings.size()).u32(0);
            strings.cstr(name);
        } else {
            die.cstr(name).cstr("/build/project");
        }
        die.u64(0x1000 + 16 * i).u32(16).u8(0);
        info += unit{.version = in.version, .abbrev_offset = abbrev_section.size(), .kind = in.unit_kind(), .dies = die}
                    .build();
        abbrev_section += table;
    }
    handle h;
    in.prepare(h);
    h.attach(KRV_SEC_ABBREV, abbrev_section).attach(KRV_SEC_INFO, info);
    if (in.is_compilers)
        h.attach(in.is_v5() ? krv_secidx_t{KRV_SEC_EXT_LINE_STR} : krv_secidx_t{KRV_SEC_STR}, strings);
    const auto visit = [](krv_handle_t *, krv_ctu_t *, void *) { return 0; };
    measure_begin();
    check(korva_iter_cu(h, KRV_SEC_INFO, visit, nullptr) == 0, "units");
    measure_end("units", count, count, in);

    measure_begin();
    check(korva_lookup_ctu_by_addr(h, 0x1000, 0) != nullptr, "index");
    measure_end("index", count, count, in);
    measure_begin();
    for (uint64_t i = 0, seed = 1; i < LOOKUPS; ++i)
        check(korva_lookup_ctu_by_addr(h, 0x1000 + next_number(&seed) % (16 * count), 0) != nullptr, "address");
    measure_end("lookup", count, LOOKUPS, in);
}

// Lexical blocks, each inside the one before, below a subprogram without a sibling link: a scan has to pass them.
static void nesting(unsigned depth, const input &in)
{
    bytes dies = bytes().uleb(1).uleb(2);
    for (unsigned i = 0; i < depth; ++i)
        dies.uleb(3).u64(0x1000 + i).cstr("variable").u32(0);
    dies.fill(depth + 2);
    handle h;
    in.prepare(h);
    h.attach(KRV_SEC_ABBREV,
             abbrevs("1 compile_unit+; 2 subprogram+; 3 lexical_block+ low_pc:addr name:string type:ref4"));
    h.attach(KRV_SEC_INFO, unit{.version = in.version, .kind = in.unit_kind(), .dies = dies}.build());
    krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0);
    measure_begin();
    check(korva_cu_contains_addr(h, cu, 0x1000, 0) == B_FALSE, "nesting");
    measure_end("entries", depth, depth, in);
}

static void rows(unsigned count, const input &in)
{
    std::string recipe = "at 400 copy ";
    for (unsigned i = 0; i < count / 4; ++i)
        recipe += i % 8 == 0 ? "line -30 sp 75 col 7 sp 102 stmt sp 44 disc 2 pc 3 copy "
                             : "line 9 sp 75 col 3 sp 102 stmt sp 44 pc 200 copy ";
    handle h;
    in.prepare(h);
    h.attach(KRV_SEC_LINE, line_unit{.v5 = in.is_v5(), .program = program(recipe + "pc 4 end")}.build());
    krv_lnph_t *header = krv_lnph_alloc(h, nullptr, 0);
    measure_begin();
    check(krv_line_get_matrix(h, header) != nullptr, "rows");
    measure_end("rows", count, count, in);
    krv_lnph_free(header);

    const bytes root = bytes().uleb(1).u32(0).u64(0x400).u32(48 * count);
    h.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit stmt_list:sec_offset low_pc:addr high_pc:data4"));
    h.attach(KRV_SEC_INFO, unit{.version = in.version, .kind = in.unit_kind(), .dies = root}.build());
    std::vector<uint64_t> addresses(LOOKUPS);
    std::generate(addresses.begin(), addresses.end(),
                  [count, seed = uint64_t{1}]() mutable { return 0x400 + next_number(&seed) % (40 * count); });
    std::vector<krv_row_t> found(LOOKUPS);
    check(korva_lookup_rows(h, addresses.data(), 1, 0, nullptr, found.data()) == 0, "first place");
    measure_begin();
    for (const uint64_t address : addresses)
        check(korva_lookup_rows(h, &address, 1, 0, nullptr, found.data()) == 0, "place");
    measure_end("place", count, LOOKUPS, in);
    measure_begin();
    check(korva_lookup_rows(h, addresses.data(), LOOKUPS, 0, nullptr, found.data()) == 0, "places");
    measure_end("places", count, LOOKUPS, in);
}

// ---------------------------------------------------------------------------------------------------------------
// Frames
// ---------------------------------------------------------------------------------------------------------------

namespace
{

// Functions of 16 bytes from 0x1000 on, which keep 16 bytes of stack; and a stack that returns into them for ever.
struct process {
    static constexpr uint64_t EH = 0x1000000, HDR = 0x2000000, STACK = 0x7000000;
    bytes eh_frame = eh_cie{.instructions = bytes::hex("0c 07 08 90 01")}.build();
    bytes hdr, stack;

    process(unsigned functions, unsigned frames)
    {
        eh_hdr table;
        for (uint64_t i = 0; i < functions; ++i) {
            const eh_fde fde{
                .cie = EH, .address = 0x1000 + 16 * i, .range = 16, .instructions = bytes::hex("41 0e 10 86 02")};
            table.entries.emplace_back(fde.address, EH + eh_frame.size());
            eh_frame += fde.build(EH + eh_frame.size());
        }
        hdr = table.build(HDR, EH);
        for (uint64_t i = 0, seed = 1; i <= frames; ++i)
            stack.u64(0).u64(0x1000 + 16 * (next_number(&seed) % functions) + 8);
    }

    static int64_t read(void *arg, void *buf, size_t count, uint64_t address)
    {
        const auto *self = static_cast<const process *>(arg);
        const bytes &part = address < HDR ? self->eh_frame : address < STACK ? self->hdr : self->stack;
        const uint64_t skip = address - (address < HDR ? EH : address < STACK ? HDR : STACK);
        if (skip > part.size() || count > part.size() - skip)
            return -1;
        std::memcpy(buf, part.data() + skip, count);
        return static_cast<int64_t>(count);
    }

    void attach(krv_handle_t *hp)
    {
        korva_attach_as(hp, read, this);
        korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_ADDR, EH);
        korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_HDR_ADDR, HDR);
    }
};

} // namespace

static void functions(unsigned count)
{
    process p(count, 0);
    handle h;
    p.attach(h);
    const krv_activation_owner ap(korva_activation_alloc(h));
    uint64_t column, seed = 1;
    check(krv_generate_rules(h, ap.get(), 0x1000, &column) == 0, "first rules");
    measure_begin();
    for (unsigned i = 0; i < LOOKUPS; ++i)
        check(krv_generate_rules(h, ap.get(), 0x1000 + next_number(&seed) % (16 * count), &column) == 0, "rules");
    measure_end("rules", count, LOOKUPS);
}

static void frames(unsigned count)
{
    process p(1000, count);
    handle h;
    p.attach(h);
    const krv_activation_owner ap(korva_activation_alloc(h));
    korva_activation_set_greg(h, ap.get(), KRV_ACTIVATION_REG_DWARF, 6, 0);
    korva_activation_set_greg(h, ap.get(), KRV_ACTIVATION_REG_DWARF, 7, static_cast<krv_greg_t>(process::STACK));
    korva_activation_set_greg(h, ap.get(), KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, 0x1008);
    measure_begin();
    for (unsigned i = 0; i < count; ++i)
        check(korva_activation_unwind(h, ap.get()) == 0, "frame");
    measure_end("frames", count, count);
}

// The same with the promise that call-frame information is constant: the table of all rules, rules by it, and the stack
// in one call.
static void constant_frames(unsigned count)
{
    process p(count, count);
    handle h;
    p.attach(h);
    korva_handle_set_opt(h, KRV_OPT_EXT_CONSTANT_FRAMES, uint64_t{1});
    const krv_activation_owner ap(korva_activation_alloc(h));
    measure_begin();
    check(korva_frames_prefill(h) == 0, "table");
    measure_end("prefill", count, count);

    uint64_t column, seed = 1;
    measure_begin();
    for (unsigned i = 0; i < LOOKUPS; ++i)
        check(krv_generate_rules(h, ap.get(), 0x1000 + next_number(&seed) % (16 * count), &column) == 0, "kept rules");
    measure_end("kept", count, LOOKUPS);

    const krv_stack_module_t module = {h, 0};
    krv_stack_t stack = {};
    stack.modules = &module;
    stack.nmodules = 1;
    stack.gregs[KRV_HOST_RSP] = static_cast<krv_greg_t>(process::STACK);
    stack.gregs[KRV_HOST_RIP] = 0x1008;
    stack.mask = uint64_t{1} << KRV_HOST_RSP | uint64_t{1} << KRV_HOST_RIP;
    stack.read = process::read;
    stack.arg = &p;
    std::vector<uint64_t> addresses(count);
    measure_begin();
    check(korva_stack_addresses(&stack, addresses.data(), count, nullptr) == count, "stack");
    measure_end("stack", count, count);
}

int main()
{
    for (unsigned times = 1; times <= 8; times *= 2) {
        units(100 * times, PLAIN);
        nesting(500 * times, PLAIN);
        rows(1000 * times, PLAIN);
        functions(200 * times);
        frames(50 * times);
        constant_frames(200 * times);
    }
    for (unsigned times = 1; times <= 8; times *= 2)
        for (const input &in : {DWARF_4, DWARF_5}) {
            units(100 * times, in);
            nesting(500 * times, in);
            rows(1000 * times, in);
        }
    return 0;
}
