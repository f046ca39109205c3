// SPDX-License-Identifier: Apache-2.0
//
// What the worst input of each kind may cost: calls of the read call-back and bytes allocated, in proportion to its size.
#include "krv_expr.h"
#include "krv_info.h"
#include "krv_line.h"
#include "support/activation.h"

#include <gtest/gtest.h>

using namespace krv_test;

static size_t allocated; // since it was set to 0; the linker leads the library's allocations here (--wrap)
extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *p, size_t size);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *p, size_t size);

void *__wrap_malloc(size_t size)
{
    allocated += size;
    return __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size)
{
    allocated += count * size;
    return __real_calloc(count, size);
}
void *__wrap_realloc(void *p, size_t size)
{
    allocated += size;
    return __real_realloc(p, size);
}
}

namespace
{

constexpr unsigned MILLION = 1000000;

// Sections behind call-backs, whose reads are counted.
struct measured {
    handle h{KRV_ACTIVATION_AMD64};
    std::vector<std::unique_ptr<reader>> sources;

    measured &attach(krv_secidx_t sec, bytes contents)
    {
        sources.push_back(std::make_unique<reader>(reader{.contents = std::move(contents)}));
        h.attach(sec, sources.back().get());
        return *this;
    }
    bool costs_at_most(unsigned most_reads, size_t most_bytes)
    {
        unsigned reads = 0;
        for (const auto &source : sources)
            reads += source->reads;
        EXPECT_LE(reads, most_reads);
        EXPECT_LE(allocated, most_bytes);
        return reads <= most_reads && allocated <= most_bytes;
    }
};

bool contains(krv_handle_t *hp, uint64_t address)
{
    krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(hp, KRV_SEC_INFO, 0);
    return cu != nullptr && korva_cu_contains_addr(hp, cu, address, KRV_LOOKUP_F_NONE);
}

} // namespace

TEST(Limits, Entries)
{
    {
        SCOPED_TRACE("a million levels");
        measured m;
        const bytes dies =
            bytes().fill(MILLION, 1).u8(2).fill(MILLION, 0); // every entry is the child of the one before
        m.attach(KRV_SEC_ABBREV, abbrevs("1 lexical_block+; 2 variable"))
            .attach(KRV_SEC_INFO, unit{.dies = dies}.build());
        allocated = 0;
        EXPECT_FALSE(contains(m.h, 0x1000));
        // Skipping reads an entry at a time and keeps none.
        EXPECT_TRUE(m.costs_at_most(2 * MILLION + 50, size_t{100} * MILLION));
        EXPECT_EQ(m.h->sh_errno, KRV_ERR_NOTFOUND) << m.h.error();
    }
    for (const char *link : {"self", "unit"}) {
        SCOPED_TRACE(text("a sibling link to %s", link));
        measured m;
        bytes dies = bytes().uleb(1).label("self").uleb(2).offset_of(link, 4).uleb(2).offset_of(link, 4).u8(0);
        dies.label("unit");
        m.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit+; 2 lexical_block sibling:ref4"));
        m.attach(KRV_SEC_INFO, unit{.dies = dies}.build());
        allocated = 0;
        EXPECT_FALSE(contains(m.h, 0x1000));
        EXPECT_TRUE(m.costs_at_most(100, 10000));
    }
    {
        SCOPED_TRACE("a million attributes");
        measured m;
        bytes table = bytes().u8(1).u8(0x11).u8(0); // DW_AT_external: DW_FORM_flag_present
        for (unsigned i = 0; i < MILLION; ++i)
            table.u8(0x3f).u8(0x19);
        m.attach(KRV_SEC_ABBREV, table.fill(3)).attach(KRV_SEC_INFO, unit{.dies = bytes().u8(1)}.build());
        allocated = 0;
        EXPECT_FALSE(contains(m.h, 0x1000));
        EXPECT_TRUE(m.costs_at_most(2 * MILLION + 100, size_t{40} * MILLION));
    }
}

TEST(Limits, Lines)
{
    measured m;
    const bytes body = program("at 400") + bytes().fill(MILLION, 0x4b) + program("end");
    m.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit name:string comp_dir:string stmt_list:sec_offset"));
    m.attach(KRV_SEC_INFO, unit{.dies = bytes().u8(1).cstr("a.c").cstr("/").u32(0)}.build());
    m.attach(KRV_SEC_LINE, line_unit{.program = body}.build());
    krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(m.h, KRV_SEC_INFO, 0);
    ASSERT_NE(cu, nullptr);
    allocated = 0;
    EXPECT_NE(korva_lookup_source_by_cu_and_addr(m.h, cu, 0, UINT64_MAX, 0x410, 0), nullptr);
    // The table doubles: twice its rows, the copies on the way, and the temporary table of canonical addresses.
    EXPECT_TRUE(m.costs_at_most(MILLION + 100, 4 * sizeof(krv_lns_t) * MILLION));
}

TEST(Limits, ExpressionsEnd)
{
    for (const char *hex : {"30 2f fc ff", "31 28 fc ff", "31 12 28 fb ff"}) {
        SCOPED_TRACE(hex);
        stopped s({});
        reader code{.contents = bytes::hex(hex)};
        krv_fd_t fd = s.h.cursor(&code);
        krv_exprstack_t *stack = korva_expr_alloc_stack(s.h);
        allocated = 0;
        EXPECT_EQ(korva_expr_execute_expression(s.h, stack, s.ap.get(), &fd, 0, nullptr, nullptr, nullptr), -1);
        EXPECT_LE(code.reads, 3 * KRV_EXPR_MAX_STEPS);
        EXPECT_LE(allocated, 1000U);
        korva_expr_free_stack(stack);
    }
}

// What a record claims allocates nothing.
TEST(Limits, ClaimsOfRecords)
{
    const uint64_t most = UINT64_MAX;
    const bytes abbrev = abbrevs("1 compile_unit location:block; 2 compile_unit name:string stmt_list:sec_offset");
    const struct {
        const char *what;
        krv_secidx_t sec;
        bytes contents;
    } rows[] = {
        {"unit", KRV_SEC_INFO, unit{.dwarf64 = true, .unit_length = most}.build()},
        {"block", KRV_SEC_INFO, unit{.dies = bytes().u8(1).uleb(most)}.build()},
        {"address ranges", KRV_SEC_ARANGES, aranges_set{.dwarf64 = true, .unit_length = most}.build()},
        {"line header", KRV_SEC_LINE, line_unit{.dwarf64 = true, .unit_length = most}.build()},
        {"line program", KRV_SEC_LINE, line_unit{.dwarf64 = true, .header_length = most}.build()},
        {"extended opcode", KRV_SEC_LINE, line_unit{.program = bytes().u8(0).uleb(most)}.build()},
        {"CIE", KRV_SEC_FRAME, cie{.dwarf64 = true, .length = most}.build()},
        {"FDE", KRV_SEC_FRAME, cie{}.build() + fde{.dwarf64 = true, .length = most}.build()},
        {"register", KRV_SEC_FRAME,
         cie{.instructions = op(DW_CFA_offset_extended).uleb(0xffffffff).uleb(1)}.build() + fde{}.build()},
        {"expression", KRV_SEC_FRAME,
         cie{.instructions = op(DW_CFA_def_cfa_expression).uleb(most)}.build() + fde{}.build()},
        {"argument", KRV_SEC_FRAME,
         cie{.instructions = op(DW_CFA_VESK_arg_loc).uleb(0xffffffff).uleb(0)}.build() + fde{}.build()},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        measured m;
        if (row.sec != KRV_SEC_INFO)
            m.attach(KRV_SEC_INFO, unit{.dies = bytes().u8(2).cstr("a.c").u32(0)}.build());
        m.attach(KRV_SEC_ABBREV, abbrev).attach(row.sec, row.contents);
        korva_attach_as(m.h, reader::read, m.sources.back().get());
        const krv_activation_owner ap(korva_activation_alloc(m.h));
        korva_activation_set_greg(m.h, ap.get(), KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, 0x1000);
        allocated = 0;
        contains(m.h, 0x1000);
        krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(m.h, KRV_SEC_INFO, 0);
        if (cu != nullptr)
            korva_lookup_source_by_cu_and_addr(m.h, cu, 0, most, 0x1000, 0);
        krv_greg_t value;
        korva_activation_get_greg(m.h, ap.get(), KRV_ACTIVATION_REG_DWARF, KRV_ACTIVATION_FRAME_CALLER, 7, &value);
        EXPECT_TRUE(m.costs_at_most(400, 20000));
    }
}
