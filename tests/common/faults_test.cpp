// SPDX-License-Identifier: Apache-2.0
//
// Memory that runs out, and reads that fail. The n-th allocation of a whole session fails, for every n; likewise the
// n-th read fails, then comes up short. What failed says so, nothing leaks (the address sanitizer watches), and when all
// is well again the same handle answers as if nothing had happened.
#include "krv_error.h"
#include "krv_frame.h"
#include "krv_no_frame.h"
#include "support/allocations.h"
#include "support/scenarios.h"

#include <utility>

using namespace krv_test;

static unsigned allocations, fail_at; // fail_at 0: never

static bool granted(size_t)
{
    return ++allocations != fail_at;
}

static unsigned reads, fail_read_at; // likewise
static fault read_fault;

static krv_handle_t *asked; // by the read that is to fail, in place of failing
static std::string (*question)(krv_handle_t *hp);
static std::string reply;

// A session's sections are read here, all of them in one count.
static int64_t read_counted(void *arg, void *buf, size_t count, uint64_t offset)
{
    const bool faulty = ++reads == fail_read_at;
    if (faulty && asked != nullptr) {
        reply = question(asked);
        reply += " " + error_line(asked);
        return reader::read(arg, buf, count, offset);
    }
    if (faulty && read_fault == fault::fails)
        return -1;
    const int64_t got = reader::read(arg, buf, count, offset);
    return faulty && got > 0 ? got - 1 : got;
}

using readers = std::vector<std::unique_ptr<reader>>;

static void attach(krv_handle_t *hp, const session &data, readers *sources)
{
    const auto keep = [&](const bytes &contents, uint64_t base = 0) {
        sources->push_back(std::make_unique<reader>(reader{.contents = contents, .base = base}));
        return sources->back().get();
    };
    data.set_options(hp);
    for (const auto &[sec, contents] : data.sections) {
        reader *const source = keep(contents);
        if (data.in_memory) {
            korva_attach_section(hp, sec, contents.size(), KRV_FD_TYPE_MEMORY, source->contents.data());
            korva_attach_section_reader(hp, sec, read_counted, source);
        } else {
            korva_attach_section(hp, sec, contents.size(), KRV_FD_TYPE_CB, read_counted, source);
        }
    }
    if (data.memory.size() != 0)
        korva_attach_as(hp, read_counted, keep(data.memory, stack_address));
}

// A handle that cannot have the reader that suits it takes the one that knows no frames, for good: until its address
// space is attached again.
static bool fell_back(krv_handle_t *hp)
{
    const krv_reader_t *reader = hp->sh_frame_reader;
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
    for (const scenario &s : scenarios()) {
        const session data = s.make();
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
            attach(hp, data, &sources);
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
        &fail_at, &allocations, [](handle &h) { return krv_errno(h) == KRV_ERR_NOMEM; },
        [](const std::string &answer, handle &, const scenario &s) { return answer == s.expected; });
    unsetenv("LIBKORVA_OPTIONS");
    for (const char *message :
         {"error hashing abbreviation", "unable to resize CU table", "unable to create CU lookup hash",
          "error hashing offset", "NOMEM: couldn't add directory gen", "NOMEM: couldn't add file b.c",
          "NOMEM: couldn't add dynamically-defined file c.c | error processing opcode 3 (DW_LNE_define_file)",
          "NOMEM: couldn't create temporary table for canonical address calculation | error calculating canonical"})
        EXPECT_NE(seen.find(message), std::string::npos) << message;
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
                return krv_errno(h) == KRV_ERR_IO ||
                       (krv_errno(h) != KRV_ERR_NONE && (log.find("read callback failed") != std::string::npos ||
                                                         log.find("unterminated by end") != std::string::npos));
            },
            [](const std::string &answer, handle &h, const scenario &s) {
                return answer == s.expected || krv_errno(h) == KRV_ERR_NOTFOUND;
            });
    }
}

// A read call-back asks its handle the question that the read is for. It is answered, or refused; the query around it
// goes on as if nothing had been asked. Then the debug call-back does, at every message of a read that fails.
TEST(Faults, CallBacksThatAsk)
{
    static bool asking;
    const auto ask = [](unsigned int, const char *, void *arg) {
        if (std::exchange(asking, true))
            return;
        question(static_cast<krv_handle_t *>(arg));
        asking = false;
    };
    read_fault = fault::fails;
    for (const scenario &s : scenarios())
        for (const bool by_message : {false, true})
            for (unsigned n = 1, met = 1; met != 0; n += n < 60 ? 1 : 7) { // the later reads are of one kind
                SCOPED_TRACE(text("%s, read %u%s", s.name, n, by_message ? ", by message" : ""));
                const session data = s.make();
                handle h;
                readers sources;
                attach(h, data, &sources);
                if (by_message) {
                    korva_handle_set_opt(h, KRV_OPT_DEBUG_FUNC, +ask);
                    korva_handle_set_opt(h, KRV_OPT_DEBUG_FUNC_ARG, static_cast<krv_handle_t *>(h));
                }
                reads = 0;
                fail_read_at = n;
                question = s.ask;
                reply = "";
                asked = by_message ? nullptr : static_cast<krv_handle_t *>(h);
                const std::string answer = s.ask(h);
                met = reads >= n ? 1 : 0;
                fail_read_at = 0;
                asked = nullptr;
                EXPECT_TRUE(answer == s.expected || (by_message && answer[0] == '!')) << answer << ": " << h.error();
                EXPECT_TRUE(met == 0 || by_message || reply.starts_with(s.expected) ||
                            reply.ends_with("INVALID: asked by a call-back of the query that is building it"))
                    << reply;
                const std::string again = s.ask(h);
                EXPECT_TRUE(again == s.expected || (by_message && krv_errno(h) == KRV_ERR_NOTFOUND)) << h.error();
            }
}

// Whatever a session is allowed to cost: it has its answer, or says that it must not cost more; and once it may, the same
// handle answers as if nothing had happened.
TEST(Faults, EveryBudgetIsUsedUpOnce)
{
    unsigned refused[3] = {};
    for (const scenario &s : scenarios())
        for (const auto opt : {KRV_OPT_EXT_MAX_STEPS, KRV_OPT_EXT_MAX_BYTES, KRV_OPT_EXT_MAX_ROWS}) {
            const session data = s.make();
            bool is_enough = false;
            for (uint64_t most = 1; !is_enough; most += 1 + most / 16) {
                SCOPED_TRACE(text("%s, at most %lu of 0x%x", s.name, static_cast<unsigned long>(most), unsigned{opt}));
                handle h;
                readers sources;
                attach(h, data, &sources);
                korva_handle_set_opt(h, opt, most);
                const std::string answer = s.ask(h);
                const bool is_refused = korva_handle_get_errno(h) == KRV_ERR_EXT_LIMIT;
                is_enough = answer == s.expected;
                EXPECT_TRUE(is_enough || is_refused) << answer << ": " << h.error();
                ASSERT_LT(most, 1U << 24);
                refused[opt - KRV_OPT_EXT_MAX_STEPS] += is_refused ? 1 : 0;
                korva_handle_set_opt(h, opt, uint64_t{0});
                if (fell_back(h))
                    krv_destroy_reader(h);
                EXPECT_EQ(s.ask(h), s.expected) << h.error() << " after: " << answer;
            }
        }
    for (const unsigned count : refused)
        EXPECT_GT(count, 10U); // each bound has been met
    // Time: a bound that has passed stops what takes long enough to look at the clock.
    handle h;
    const bytes long_list = bytes().fill(1 << 20, 0x96); // DW_OP_nop
    korva_handle_set_opt(h, KRV_OPT_EXT_TIMEOUT, uint64_t{1});
    timespec pause = {.tv_sec = 0, .tv_nsec = 2000000};
    nanosleep(&pause, nullptr);
    krv_fd_t fd;
    krv_fd_attach_mem(h, &fd, long_list.size(), const_cast<uint8_t *>(long_list.data()));
    const auto visit = [](krv_handle_t *, uint8_t, krv_operand_t *, unsigned int, void *) { return 0; };
    EXPECT_EQ(korva_expr_iter_instruction(h, &fd, 0, visit, nullptr), -1);
    EXPECT_EQ(h.error(), "LIMIT: the budget of time is used up: 1 ms");
}
