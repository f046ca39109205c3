// SPDX-License-Identifier: Apache-2.0
//
// Life of the handle: LIBKORVA_OPTIONS, options, attachment, reference count.
#include "krv_line.h"
#include "support/handle.h"

#include <cstdlib>

using namespace krv_test;

// In a child process, since the help text is printed once a process: makes two handles, lets the first one fail, and
// exits with the number of handles made.
[[noreturn]] static void use_environment(const char *options)
{
    if (options == nullptr)
        unsetenv("LIBKORVA_OPTIONS");
    else
        setenv("LIBKORVA_OPTIONS", options, 1);
    krv_handle_t *first = korva_handle_alloc(KRV_ACTIVATION_AMD64);
    krv_handle_t *second = korva_handle_alloc(KRV_ACTIVATION_I386);
    uint8_t byte = 0;
    korva_attach_section(first, KRV_SEC_INFO, 0, KRV_FD_TYPE_MEMORY, &byte);
    const int made = (first != nullptr) + (second != nullptr);
    korva_handle_free(first);
    korva_handle_free(second);
    std::exit(made); // not _exit, which would lose the counters of scripts/coverage
}

TEST(OpenDeathTest, Environment)
{
    const std::string help = "libkorva: Debugging tokens:\nlibkorva:\thelp:     this message\n"
                             "libkorva:\tdebug:    send debug to stderr\nlibkorva:\tdisable:  disable libkorva\n";
    const std::string debug = "libkorva:\nlibkorva: 1  section size is zero\n";
    const struct {
        const char *options;
        int handles;
        std::string standard_error;
    } rows[] = {
        {nullptr, 2, ""},
        {"", 2, help},
        {"help", 2, help},
        {"verbose", 2, help},
        {"debug", 2, debug},
        {"debug=1", 2, help},
        {"disable", 0, ""},
        {"debug,help", 2, help + debug},
        {"disable=no", 2, help},
        {"debug,disable", 0, ""},
        {"verbose,disable", 0, help},
    };
    for (const auto &row : rows)
        EXPECT_EXIT(use_environment(row.options), testing::ExitedWithCode(row.handles), testing::Eq(row.standard_error))
            << (row.options == nullptr ? "(unset)" : row.options);
}

TEST(Open, Targets)
{
    for (const int type : {-1, 0, 1, 4})
        EXPECT_EQ(korva_handle_alloc(type), nullptr) << type;
    for (const auto type : both_targets) {
        handle h(type);
        EXPECT_EQ(h->sh_target_size, type == KRV_ACTIVATION_I386 ? 4U : 8U);
        for (const krv_fd_t &fd : h->sh_sec)
            EXPECT_TRUE(fd.sfd_hp == h && fd.sfd_size == 0);
        EXPECT_EQ(h.error(), "NONE");
    }
}

// Calls a function with a handle and zeros, and tells whether it fails.
template <typename Result, typename... Args>
static bool fails(Result (*function)(krv_handle_t *, Args...), krv_handle_t *hp)
{
    if constexpr (std::is_pointer_v<Result>)
        return function(hp, Args{}...) == nullptr;
    else
        return function(hp, Args{}...) == -1;
}

// Every function that takes a handle, without one, and then with nothing else.
TEST(Open, NullArguments)
{
    handle h;
    unsigned number = 0;
    const auto refuses_both = [&](auto function) {
        EXPECT_TRUE(fails(function, nullptr) && fails(function, h)) << "function " << number;
        EXPECT_EQ(korva_handle_get_errno(h), KRV_ERR_INVALID) << "function " << number++;
    };
    const auto all_refuse = [&](auto... functions) { (refuses_both(functions), ...); };
    all_refuse(korva_attach_as, korva_iter_cu, korva_cu_get_header, korva_get_cu_cudie, korva_get_die_at_producer,
               korva_get_die_at_comp_dir, korva_get_die_at_name, korva_get_die_at_ZEPH_original_name,
               korva_line_get_cu_lnph, korva_iter_line_entry, korva_lookup_source_by_cu_and_addr, korva_lns_get_address,
               korva_lns_get_op_index, korva_lns_get_file, korva_lns_get_line, korva_lns_get_column, korva_lns_get_isa,
               korva_lns_get_discriminator, korva_lns_get_is, korva_lns_get_canonical_address, korva_lns_get_filep,
               korva_lnfe_get_path, korva_lnfe_path, korva_lnfe_get_mtime, korva_lnfe_get_size,
               korva_expr_get_stack_depth, korva_expr_stack_push, korva_expr_stack_pop, korva_expr_stack_peek,
               korva_expr_reset_stack, korva_expr_iter_instruction, korva_expr_execute_expression,
               korva_activation_reset, korva_activation_get_reg, korva_activation_get_greg, korva_activation_set_reg,
               korva_activation_set_greg, korva_activation_set_regs, korva_activation_get_gregs,
               korva_activation_unwind, korva_activation_get_argc, korva_activation_get_argv);
    for (krv_handle_t *hp : {static_cast<krv_handle_t *>(nullptr), static_cast<krv_handle_t *>(h)})
        EXPECT_TRUE(korva_fd_attach(hp, nullptr, 1, KRV_FD_TYPE_MEMORY, nullptr) == -1 &&
                    korva_get_fields(hp, KRV_STRUCT_LNS, nullptr, 0) == -1 &&
                    korva_cu_contains_addr(hp, nullptr, 0, 0) == B_FALSE);
    EXPECT_EQ(korva_handle_get_errno(h), KRV_ERR_INVALID);
    EXPECT_TRUE(fails(korva_fd_alloc, nullptr) && fails(korva_expr_alloc_stack, nullptr) &&
                fails(korva_activation_alloc, nullptr) && fails(korva_print_define, nullptr) &&
                fails(korva_lookup_ctu_by_start_offset, nullptr) && fails(korva_lookup_ctu_by_addr, nullptr) &&
                fails(korva_lookup_next_ctu_by_addr, nullptr) &&
                korva_attach_section(nullptr, KRV_SEC_INFO, 1, KRV_FD_TYPE_MEMORY, nullptr) == -1 &&
                korva_handle_set_opt(nullptr, KRV_OPT_BASE_ADDR, 1UL) == -1);
    korva_handle_free(nullptr);
    korva_handle_hold(nullptr);
    korva_handle_release(nullptr);
    korva_activation_free(nullptr);
    korva_expr_free_stack(nullptr);
    korva_fd_free(nullptr);
}

TEST(Open, Attach)
{
    handle h;
    uint8_t buffer[4] = {1, 2, 3, 4}, last = 0;
    krv_fd_cb_f *const no_function = nullptr;
    // The last good attachment stays through every bad one, and answers once more afterwards.
    ASSERT_EQ(korva_attach_section(h, KRV_SEC_LOC, 4, KRV_FD_TYPE_MEMORY, buffer), 0);
    EXPECT_TRUE(
        refuses(h, korva_attach_section(h, 14, 4, KRV_FD_TYPE_MEMORY, buffer), "INVALID: section index 14 too large"));
    EXPECT_TRUE(
        refuses(h, korva_attach_section(h, -1, 4, KRV_FD_TYPE_MEMORY, buffer), "INVALID: section index -1 too large"));
    EXPECT_TRUE(refuses(h, korva_attach_section(h, KRV_SEC_LOC, 0, KRV_FD_TYPE_MEMORY, buffer),
                        "INVALID: section size is zero"));
    EXPECT_TRUE(refuses(h, korva_attach_section(h, KRV_SEC_LOC, 4, KRV_FD_TYPE_MAX, buffer),
                        "INVALID: invalid file descriptor type specified"));
    EXPECT_TRUE(refuses(h, korva_attach_section(h, KRV_SEC_LOC, 4, KRV_FD_TYPE_CB, no_function, buffer),
                        "INVALID: NULL callback specified"));
    EXPECT_EQ(korva_fd_seek(&h->sh_sec[KRV_SEC_LOC], 3, KRV_FD_SEEK_SET), 0);
    EXPECT_EQ(korva_fd_to_mem(&h->sh_sec[KRV_SEC_LOC], &last, 1), 0);
    EXPECT_EQ(last, 4);
    ASSERT_EQ(korva_attach_section(h, KRV_SEC_LOC, 2, KRV_FD_TYPE_MEMORY, buffer), 0); // again, from the beginning
    EXPECT_TRUE(h->sh_sec[KRV_SEC_LOC].sfd_offset == 0 && h->sh_sec[KRV_SEC_LOC].sfd_remaining == 2);
}

TEST(Open, AddressSpace)
{
    handle h;
    EXPECT_TRUE(refuses(h, korva_attach_as(h, nullptr, nullptr), "INVALID: NULL callback specified"));
    reader memory{.contents = bytes::hex("2a"), .base = UINT64_MAX - 1};
    ASSERT_EQ(korva_attach_as(h, reader::read, &memory), 0);
    EXPECT_EQ(h->sh_as.sfd_size, UINT64_MAX);
    uint8_t byte = 0;
    EXPECT_EQ(korva_fd_seek(&h->sh_as, UINT64_MAX - 1, KRV_FD_SEEK_SET), 0);
    EXPECT_EQ(korva_fd_to_mem(&h->sh_as, &byte, 1), 0);
    EXPECT_EQ(byte, 0x2a);
    EXPECT_EQ(h->sh_sec[KRV_SEC_AS].sfd_size, 0U); // the section slot of that name is another cursor
}

TEST(Open, Options)
{
    handle h;
    for (const int opt : {-1, 8}) {
        EXPECT_TRUE(refuses(h, korva_handle_set_opt(h, opt, 1UL), "INVALID"));
    }
    for (krv_opt_idx_t opt = KRV_OPT_BASE_ADDR; opt < KRV_MAX_OPT; ++opt)
        for (const uint64_t value : {UINT64_C(0xfedcba9876543210), UINT64_C(0)}) {
            EXPECT_EQ(korva_handle_set_opt(h, opt, value), 0);
            EXPECT_TRUE(h->sh_opts[opt].sopt_set == B_TRUE && h->sh_opts[opt].sopt_u.o_uint64 == value) << opt;
        }
    EXPECT_EQ(h.error(), "NONE");
}

TEST(Open, SectionNames)
{
    const std::pair<const char *, krv_secidx_t> sections[] = {
        {"abbrev", 0},   {"aranges", 1},  {"frame", 2},     {"info", 3}, {"line", 4},  {"loc", 5},
        {"pubnames", 6}, {"pubtypes", 7}, {"typenames", 7}, {"str", 8},  {"types", 9},
    };
    krv_secidx_t sec = 99;
    boolean_t compressed = 99;
    for (const char *bad : {".debug_ranges", ".debug_", ".debug_info2", ".debug", ".zdebug_eh_frame", "info", ""})
        EXPECT_EQ(korva_lookup_section_index(bad, &sec, &compressed), -1) << bad;
    EXPECT_EQ(korva_lookup_section_index(nullptr, &sec, &compressed), -1);
    EXPECT_EQ(korva_lookup_section_index(".debug_info", nullptr, &compressed), -1);
    EXPECT_EQ(korva_lookup_section_index(".debug_info", &sec, nullptr), -1);
    for (const char *bad : {"", ".debug_info", ".debug_ranges2", "zdebug_addr"})
        EXPECT_EQ(korva_lookup_ext_section_index(bad, &sec, &compressed), -1) << bad;
    EXPECT_TRUE(sec == 99 && compressed == 99);
    EXPECT_EQ(korva_lookup_ext_section_index(".zdebug_line_str", &sec, &compressed), 0);
    EXPECT_TRUE(sec == KRV_SEC_EXT_LINE_STR && compressed == B_TRUE);
    const auto check = [&](const std::string &name, krv_secidx_t index, boolean_t flag) {
        EXPECT_EQ(korva_lookup_section_index(name.c_str(), &sec, &compressed), 0);
        EXPECT_TRUE(sec == index && compressed == flag) << name;
    };
    for (const auto &[name, index] : sections) {
        check(std::string(".debug_") + name, index, B_FALSE);
        check(std::string(".zdebug_") + name, index, B_TRUE);
    }
    check(".eh_frame_hdr", KRV_SEC_EH_FRAME_HDR, B_FALSE);
    check(".eh_frame", KRV_SEC_EH_FRAME, B_FALSE);
}
