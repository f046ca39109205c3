// SPDX-License-Identifier: Apache-2.0
//
// Memory that runs out. The n-th allocation of a whole session fails, for every n: what failed says so, nothing leaks
// (the address sanitizer watches), and once there is memory again the same handle answers as if nothing had happened.
#include "krv_info.h"
#include "krv_line.h"
#include "support/handle.h"
#include "support/sections.h"

#include <gtest/gtest.h>

using namespace krv_test;

static unsigned allocations, fail_at; // fail_at 0: never

// The linker leads the library's allocations here (--wrap).
extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *p, size_t size);
char *__real_strdup(const char *s);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void *__wrap_realloc(void *p, size_t size);
char *__wrap_strdup(const char *s);

void *__wrap_malloc(size_t size)
{
    return ++allocations == fail_at ? nullptr : __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size)
{
    return ++allocations == fail_at ? nullptr : __real_calloc(count, size);
}
void *__wrap_realloc(void *p, size_t size)
{
    return ++allocations == fail_at ? nullptr : __real_realloc(p, size);
}
char *__wrap_strdup(const char *s)
{
    return ++allocations == fail_at ? nullptr : __real_strdup(s);
}
}

// Asks everything that allocates. The answer, or where it failed.
static std::string ask(krv_handle_t *hp)
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
        krv_lnph_t *lnph = korva_line_get_cu_lnph(hp, cu);
        if (lnph == nullptr)
            return "header";
        if (korva_iter_line_entry(hp, lnph, nullptr, nullptr) != 0)
            return "walk";
        krv_lns_t *row = korva_lookup_source_by_cu_and_addr(hp, cu, 0x400, 0x10, 0x408, 0);
        if (row == nullptr)
            return "row";
        answer += std::string(cu->dcu_name) + " " + korva_lns_get_filep(hp, row)->slnfe_absolute_path + "; ";
    }
    return answer;
}

TEST(Allocation, EveryOneFailsOnce)
{
    const bytes abbrev_section = abbrevs(
        "1 compile_unit+ name:string comp_dir:string stmt_list:sec_offset location:exprloc low_pc:addr high_pc:addr;"
        "2 compile_unit+ name:string comp_dir:string stmt_list:sec_offset; 4 subprogram low_pc:addr high_pc:addr");
    // Two units: one with bounds of its own, one that is scanned for them.
    const bytes dir = bytes().cstr("/build").u32(0), end = bytes().u8(0);
    const bytes first = bytes().uleb(1).cstr("a.c").add(dir).u8(1).u8(1).u64(0x400).u64(0x410).add(end);
    const bytes second = bytes().uleb(2).cstr("b.c").add(dir).uleb(4).u64(0x900).u64(0x910).add(end);
    line_unit lines{.dirs = {"src", "gen"}, .files = {{"a.c", 1}, {"b.c", 2}}};
    lines.program = program("def c.c 1 0 0 at 500 copy pc 4 end at 400 copy pc 16 end");
    const std::string expected = "a.c /build/src/a.c; b.c /build/src/a.c; ";
    std::string seen;
    for (unsigned n = 1;; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        allocations = 0;
        fail_at = n;
        krv_handle_t *hp = korva_handle_alloc(KRV_ACTIVATION_AMD64);
        if (hp == nullptr) {
            EXPECT_LE(n, 17U); // the handle and its sixteen messages
            continue;
        }
        handle owner(hp);
        owner.attach(KRV_SEC_ABBREV, abbrev_section).attach(KRV_SEC_LINE, lines.build());
        owner.attach(KRV_SEC_INFO, unit{.dies = first}.build() + unit{.dies = second}.build());
        owner.attach(KRV_SEC_ARANGES, aranges_set{.tuples = {{0x400, 8}}}.build());
        const std::string answer = ask(hp);
        const int code = korva_handle_get_errno(hp);
        const bool all_went_well = allocations < n;
        fail_at = 0;
        seen += owner.error() + "\n";
        EXPECT_TRUE(answer == expected || code == KRV_ERR_NOMEM) << answer << ": " << owner.error();
        EXPECT_EQ(ask(hp), expected) << owner.error() << " after: " << answer;
        if (all_went_well) {
            EXPECT_EQ(answer, expected);
            EXPECT_GT(n, 60U);
            break;
        }
    }
    for (const char *message :
         {"error hashing abbreviation", "unable to resize CU table", "unable to create CU lookup hash",
          "error hashing offset", "NOMEM: couldn't add directory gen", "NOMEM: couldn't add file b.c",
          "NOMEM: couldn't add dynamically-defined file c.c | error processing opcode 3 (DW_LNE_define_file)",
          "NOMEM: couldn't create temporary table for canonical address calculation | error calculating canonical"})
        EXPECT_NE(seen.find(message), std::string::npos) << message;
}
