// SPDX-License-Identifier: Apache-2.0
//
// Several threads, under the thread sanitizer's eyes: what the interface lets them share, the first use of every cache,
// and one handle without a lock around it, whose error state mixes but stays whole.
#include "krv_error.h"
#include "krv_hash.h"
#include "krv_line.h"
#include "support/activation.h"

#include <algorithm>
#include <barrier>
#include <gtest/gtest.h>
#include <thread>

using namespace krv_test;

namespace
{

constexpr unsigned THREADS = 4;

// What a session reads. Handles attach to it, and no call-back counts.
struct data {
    std::map<krv_secidx_t, bytes> sections = {};
    bytes memory = {}; // at stack_address
    uint64_t eh_frame = 0, hdr = 0;

    static int64_t read(void *arg, void *buf, size_t count, uint64_t offset)
    {
        const bytes &memory = *static_cast<bytes *>(arg);
        const uint64_t at = offset - stack_address;
        if (at > memory.size() || count > memory.size() - at)
            return -1;
        std::copy_n(memory.data() + at, count, static_cast<uint8_t *>(buf));
        return static_cast<int64_t>(count);
    }

    void attach(krv_handle_t *hp)
    {
        for (auto &[sec, contents] : sections)
            korva_attach_section(hp, sec, contents.size(), KRV_FD_TYPE_MEMORY, contents.data());
        if (eh_frame != 0)
            korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_ADDR, eh_frame);
        if (hdr != 0)
            korva_handle_set_opt(hp, KRV_OPT_EH_FRAME_HDR_ADDR, hdr);
        korva_attach_as(hp, read, &memory);
    }
};

struct scenario {
    const char *name;
    data (*make)();
    std::string (*ask)(krv_handle_t *hp); // empty when a step fails
    const char *expected;
};

} // namespace

static void in_threads(const std::function<void(unsigned i)> &fn)
{
    std::barrier start(THREADS);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < THREADS; ++i)
        threads.emplace_back([&start, &fn, i] {
            start.arrive_and_wait();
            fn(i);
        });
    for (std::thread &thread : threads)
        thread.join();
}

static data make_units()
{
    bytes info;
    for (unsigned n = 0; n < 4; ++n)
        info += unit{.dies = bytes().u8(1).cstr(text("%u.c", n)).cstr("/b").u32(0).u64(n * 0x100).u64(n * 0x100 + 16)}
                    .build();
    line_unit lines{.dirs = {"src"}, .files = {{"a.c", 1}}};
    lines.program = program("def b.c 1 0 0 at 100 copy pc 4 end at 200 file 2 line 7 copy pc 16 end");
    return {.sections = {
                {KRV_SEC_ABBREV, abbrevs("1 compile_unit name:string comp_dir:string stmt_list:sec_offset "
                                         "low_pc:addr high_pc:addr")},
                {KRV_SEC_INFO, info},
                {KRV_SEC_LINE, lines.build()},
                {KRV_SEC_ARANGES, aranges_set{.tuples = {{0x100, 16}}}.build()},
            }};
}

// Unit table, .debug_aranges, address index, line header and matrix.
static std::string ask_units(krv_handle_t *hp)
{
    krv_ctu_t *cu = korva_lookup_ctu_by_addr(hp, 0x208, KRV_LOOKUP_F_NONE);
    krv_lns_t *row = cu == nullptr ? nullptr : korva_lookup_source_by_cu_and_addr(hp, cu, 0x200, 16, 0x204, 0);
    if (row == nullptr)
        return "";
    return text("%s %s:%u", cu->dcu_name, row->slns_filep->slnfe_path, row->slns_line);
}

static data make_frames(bool eh, bool hdr)
{
    const bytes initial =
        op(DW_CFA_def_cfa).uleb(7).uleb(8).add(op(DW_CFA_offset, 16).uleb(1)).add(op(DW_CFA_same_value).uleb(5));
    const bytes section = function{.initial = initial, .eh = eh}.build();
    data d;
    for (unsigned n = 0; n < 16; ++n)
        d.memory.u64(0x1010 + n);
    if (!eh) {
        d.sections[KRV_SEC_FRAME] = section;
        return d;
    }
    d.eh_frame = eh_frame_address;
    d.memory.fill(eh_frame_address - stack_address - d.memory.size()).add(section);
    if (hdr) {
        d.hdr = stack_address + d.memory.size();
        const uint64_t fde_address = eh_frame_address + section.first(4).data()[0] + 4;
        d.memory += eh_hdr{.entries = {{0x1000, fde_address}}}.build(d.hdr, d.eh_frame);
    }
    return d;
}

// The frame reader, its linear table or the header of its search table.
static std::string ask_frames(krv_handle_t *hp)
{
    const krv_activation_owner ap(korva_activation_alloc(hp));
    if (ap == nullptr)
        return "";
    std::string answer;
    korva_activation_set_greg(hp, ap.get(), KRV_ACTIVATION_REG_DWARF, 7, stack_address);
    korva_activation_set_greg(hp, ap.get(), KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, 0x1008);
    for (int frame = 0; frame < 2; ++frame) {
        krv_greg_t pc = 0;
        if (korva_activation_get_greg(hp, ap.get(), KRV_ACTIVATION_REG_LIBRARY, KRV_ACTIVATION_FRAME_CALLER, KRV_REG_PC,
                                      &pc) != 0 ||
            korva_activation_unwind(hp, ap.get()) != 0)
            return "";
        answer += text("%llx ", static_cast<unsigned long long>(pc));
    }
    return answer;
}

static const scenario scenarios[] = {
    {"units", make_units, ask_units, "2.c b.c:8"},
    {".debug_frame", [] { return make_frames(false, false); }, ask_frames, "1010 1011 "},
    {".eh_frame", [] { return make_frames(true, false); }, ask_frames, "1010 1011 "},
    {".eh_frame_hdr", [] { return make_frames(true, true); }, ask_frames, "1010 1011 "},
};

TEST(Threads, HandlesOverSharedBytes)
{
    for (const scenario &s : scenarios) {
        data d = s.make();
        in_threads([&](unsigned) {
            for (int n = 0; n < 20; ++n) {
                handle own;
                d.attach(own);
                EXPECT_EQ(s.ask(own), s.expected) << s.name << ": " << own.error();
            }
        });
    }
}

// One handle: a query may fail because another one cleared the code that it went by, but it gives no wrong answer, and
// what the race built serves.
TEST(Threads, RacingFirstUse)
{
    for (const scenario &s : scenarios) {
        data d = s.make();
        for (int n = 0; n < 50; ++n) {
            handle shared;
            d.attach(shared);
            in_threads([&](unsigned) {
                const std::string answer = s.ask(shared);
                EXPECT_TRUE(answer.empty() || answer == s.expected) << s.name << ": " << answer;
            });
            EXPECT_EQ(s.ask(shared), s.expected) << s.name << ": " << shared.error();
        }
    }
}

// A unit's header and matrix through handles of their own: every thread gets the same. Each walk defines the program's
// files once more; a table handed out before stays as it was.
TEST(Threads, LineHeaderOfAUnit)
{
    constexpr unsigned WALKS = 50;
    data d = make_units();
    handle h;
    d.attach(h);
    krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0);
    ASSERT_NE(cu, nullptr);
    krv_lnp_t *matrices[THREADS] = {};
    const auto get = [](krv_handle_t *hp, krv_lnph_t *lnph, krv_lnfe_t ***files) {
        uint64_t count = 0;
        EXPECT_EQ(korva_get_fields(hp, KRV_STRUCT_LNPH, lnph, 2, KRV_FIELD_LNPH_FILES, files,
                                   KRV_FIELD_LNPH_FILES_ENTRIES, &count),
                  0);
        return count;
    };
    in_threads([&](unsigned i) {
        handle own;
        d.attach(own);
        krv_lnph_t *lnph = korva_line_get_cu_lnph(own, cu);
        matrices[i] = lnph == nullptr ? nullptr : krv_line_get_matrix(own, lnph);
        ASSERT_TRUE(matrices[i] != nullptr) << own.error();
        krv_lnfe_t **early, **now;
        const uint64_t before = get(own, lnph, &early);
        const std::vector<krv_lnfe_t *> copy(early, early + before);
        for (unsigned n = 0; n < WALKS; ++n) {
            EXPECT_EQ(korva_iter_line_entry(own, lnph, nullptr, nullptr), 0);
            const uint64_t count = get(own, lnph, &now);
            EXPECT_STREQ(krv_lnfe_absolute_path(own, now[count - 1]), "src/b.c"); // without the compilation directory
        }
        EXPECT_TRUE(std::equal(copy.begin(), copy.end(), early) && std::equal(copy.begin(), copy.end(), now));
    });
    krv_lnph_t *lnph = korva_line_get_cu_lnph(h, cu);
    krv_lnfe_t **files;
    const uint64_t count = get(h, lnph, &files);
    // Each thread that lost the race for the matrix had executed the program for it, too.
    EXPECT_TRUE(count > 1 + THREADS * WALKS && count <= 1 + THREADS * (WALKS + 1)) << count;
    for (const krv_lnp_t *matrix : matrices)
        EXPECT_EQ(matrix, matrices[0]);
}

// Each message is whole: one letter, and as many as belong to that letter. Each code is one that was stored.
TEST(Threads, ErrorState)
{
    static const auto is_whole = [](const char *message) {
        const std::string s = message;
        return s == std::string(60U * (s[0] - 'a' + 1U), s[0]);
    };
    handle h;
    const auto check = [](unsigned int position, const char *message, void *) {
        EXPECT_TRUE(position >= 1 && position <= KRV_MAX_ERRORS && is_whole(message)) << position << " " << message;
    };
    korva_handle_set_opt(h, KRV_OPT_DEBUG_FUNC, +check);
    in_threads([&](unsigned i) {
        const std::string message(60U * (i + 1U), static_cast<char>('a' + i));
        for (int n = 0; n < 2000; ++n) {
            if (n % (9 + static_cast<int>(i)) == 0)
                krv_clear_error(h);
            krv_fail(h, KRV_ERR_IO + static_cast<int>(i), "%s", message.c_str());
            unsigned int count = 0;
            korva_handle_get_errmsgs(h, &count);
            const int code = korva_handle_get_errno(h);
            EXPECT_TRUE(count <= KRV_MAX_ERRORS && code >= KRV_ERR_NONE && code < KRV_ERR_IO + int{THREADS}) << code;
        }
    });
    unsigned int count = 0;
    char **messages = korva_handle_get_errmsgs(h, &count);
    EXPECT_TRUE(std::all_of(messages, messages + count, is_whole));
}

TEST(Threads, References)
{
    krv_handle_t *hp = korva_handle_alloc(KRV_ACTIVATION_AMD64);
    for (unsigned i = 0; i < THREADS; ++i)
        korva_handle_hold(hp);
    in_threads([hp](unsigned) {
        for (int n = 0; n < 1000; ++n) {
            korva_handle_hold(hp);
            korva_handle_release(hp);
        }
        korva_handle_release(hp);
    });
    EXPECT_EQ(hp->sh_refcnt, 1U);
    korva_handle_release(hp);
}

// All writers offer the same keys: each key keeps one value, which every thread gets; readers never see another.
TEST(Threads, HashTable)
{
    constexpr uint64_t KEYS = 500;
    static char values[KEYS];
    handle owner;
    krv_hash_t *table = krv_hash_create(owner, 0, KRV_HASH_UINT64);
    in_threads([table](unsigned i) {
        handle h;
        for (uint64_t n = 0; n < KEYS; ++n) {
            const krv_hash_key_t key = {.dwhk_u = n};
            void *got = i % 2 == 0 ? krv_hash_insert(h, table, &key, &values[n]) : krv_hash_lookup(h, table, &key);
            EXPECT_TRUE(got == &values[n] || (i % 2 == 1 && got == nullptr));
        }
    });
    EXPECT_TRUE(table->dwhsh_occupancy == KEYS && table->dwhsh_nbuckets == 1024);
    krv_hash_destroy(table);
}
