// SPDX-License-Identifier: Apache-2.0
//
// Several threads, under the thread sanitizer's eyes: what the interface lets them share, the first use of every cache,
// and one handle without a lock around it, whose error state mixes but stays whole.
#include "krv_error.h"
#include "krv_hash.h"
#include "krv_line.h"
#include "support/scenarios.h"

#include <algorithm>
#include <barrier>
#include <thread>

using namespace krv_test;

static constexpr unsigned THREADS = 4;

static int64_t read_memory(void *arg, void *buf, size_t count, uint64_t offset) // unlike others, without a count
{
    const bytes &memory = *static_cast<bytes *>(arg);
    const uint64_t at = offset - stack_address;
    if (at > memory.size() || count > memory.size() - at)
        return -1;
    std::copy_n(memory.data() + at, count, static_cast<uint8_t *>(buf));
    return static_cast<int64_t>(count);
}

static int64_t read_bytes(void *arg, void *buf, size_t count, uint64_t offset)
{
    std::memcpy(buf, static_cast<const bytes *>(arg)->data() + offset, count);
    return static_cast<int64_t>(count);
}

static void attach(krv_handle_t *hp, session &data)
{
    data.set_options(hp);
    for (auto &[sec, contents] : data.sections) {
        korva_attach_section(hp, sec, contents.size(), KRV_FD_TYPE_MEMORY, contents.data());
        korva_attach_section_reader(hp, sec, read_bytes, &contents);
    }
    korva_attach_as(hp, read_memory, &data.memory);
}

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

TEST(Threads, HandlesOverSharedBytes)
{
    for (const scenario &s : scenarios()) {
        session d = s.make();
        in_threads([&](unsigned) {
            for (int n = 0; n < 20; ++n) {
                handle own;
                attach(own, d);
                EXPECT_EQ(s.ask(own), s.expected) << s.name << ": " << own.error();
            }
        });
    }
}

// Ranges for the unit that would be scanned for them: a scan moves the one position in .debug_info.
static void add_ranges(session &data)
{
    const auto ranges = data.sections.find(KRV_SEC_ARANGES);
    if (ranges == data.sections.end())
        return;
    const uint64_t second = 4 + data.sections.at(KRV_SEC_INFO).data()[0];
    ranges->second += aranges_set{.info_offset = second, .tuples = {{0x900, 16}}}.build(ranges->second.size());
}

// One handle: a query may fail because another one cleared the code that it went by, but it gives no wrong answer, and
// what the race built serves. Where threads have error states of their own, none fails.
TEST(Threads, RacingFirstUse)
{
    for (const scenario &s : scenarios())
        for (const bool of_their_own : {false, true}) {
            session d = s.make();
            d.threads |= of_their_own;
            if (!d.threads)
                add_ranges(d);
            for (int n = 0; n < 30; ++n) {
                handle shared;
                attach(shared, d);
                in_threads([&](unsigned) {
                    const std::string answer = s.ask(shared);
                    EXPECT_TRUE(answer == s.expected || (!d.threads && answer[0] == '!'))
                        << s.name << ": " << answer << " " << shared.error();
                });
                EXPECT_EQ(s.ask(shared), s.expected) << s.name << ": " << shared.error();
            }
        }
}

// A unit's header and matrix through handles of their own: every thread gets the same. Each walk defines the program's
// files once more; a table handed out before stays as it was.
TEST(Threads, LineHeaderOfAUnit)
{
    constexpr unsigned WALKS = 50, FILES = 2; // of the header
    session d = scenarios()[0].make();
    handle h;
    attach(h, d);
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
        attach(own, d);
        krv_lnph_t *lnph = korva_line_get_cu_lnph(own, cu);
        matrices[i] = lnph == nullptr ? nullptr : krv_line_get_matrix(own, lnph);
        ASSERT_TRUE(matrices[i] != nullptr) << own.error();
        krv_lnfe_t **early, **now;
        const uint64_t before = get(own, lnph, &early);
        const std::vector<krv_lnfe_t *> copy(early, early + before);
        for (unsigned n = 0; n < WALKS; ++n) {
            EXPECT_EQ(korva_iter_line_entry(own, lnph, nullptr, nullptr), 0);
            const uint64_t count = get(own, lnph, &now);
            EXPECT_STREQ(krv_lnfe_absolute_path(own, now[count - 1]), "src/c.c"); // without the compilation directory
        }
        EXPECT_TRUE(std::equal(copy.begin(), copy.end(), early) && std::equal(copy.begin(), copy.end(), now));
    });
    krv_lnph_t *lnph = korva_line_get_cu_lnph(h, cu);
    krv_lnfe_t **files;
    const uint64_t count = get(h, lnph, &files);
    // Each thread that lost the race for the matrix had executed the program for it, too.
    EXPECT_TRUE(count > FILES + THREADS * WALKS && count <= FILES + THREADS * (WALKS + 1)) << count;
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

// What fails is told to the thread that asked, in whatever order they ask.
TEST(Threads, ErrorStatesOfTheirOwn)
{
    handle h;
    korva_handle_set_opt(h, KRV_OPT_EXT_THREADS, uint64_t{1});
    in_threads([&](unsigned i) {
        uint8_t byte = 0;
        for (int n = 0; n < 500; ++n) {
            if (i == 0) {
                EXPECT_EQ(korva_handle_set_opt(h, KRV_OPT_BASE_ADDR, uint64_t{0}), 0);
                EXPECT_EQ(korva_handle_get_errno(h), KRV_ERR_NONE);
                continue;
            }
            const auto sec = static_cast<krv_secidx_t>(90 + i);
            EXPECT_EQ(korva_attach_section(h, sec, 1, KRV_FD_TYPE_MEMORY, &byte), -1);
            EXPECT_EQ(h.error(), text("INVALID: section index %d too large", sec));
        }
    });
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
