// SPDX-License-Identifier: Apache-2.0
//
// Life of the handle: LIBKORVA_OPTIONS, options, attachment, teardown.
#include "krv_open.h"

#include "krv_abbrev.h"
#include "krv_addr_index.h"
#include "krv_budget.h"
#include "krv_calls.h"
#include "krv_compact.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_frame_reader.h"
#include "krv_function_names.h"
#include "krv_line.h"
#include "krv_mem.h"
#include "krv_named.h"
#include "krv_peek.h"
#include "krv_scope.h"
#include "krv_side_units.h"
#include "krv_signature.h"
#include "krv_threads.h"
#include "krv_units.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// In search order: two names lead to KRV_SEC_PUBTYPES.
extern const krv_section_t _krv_section_table[_krv_nsections];
const krv_section_t _krv_section_table[_krv_nsections] = {
    {KRV_SEC_ABBREV, "abbrev"},     {KRV_SEC_ARANGES, "aranges"},   {KRV_SEC_FRAME, "frame"},
    {KRV_SEC_INFO, "info"},         {KRV_SEC_LINE, "line"},         {KRV_SEC_LOC, "loc"},
    {KRV_SEC_PUBNAMES, "pubnames"}, {KRV_SEC_PUBTYPES, "pubtypes"}, {KRV_SEC_PUBTYPES, "typenames"},
    {KRV_SEC_STR, "str"},           {KRV_SEC_TYPES, "types"},
};

static uint8_t _krv_print_help; // 1 once the help text has been printed

void krv_error_print(unsigned int position, const char *message, void *)
{
    const char *prefix = position == 1 ? "libkorva:\nlibkorva: " : "libkorva: ";
    std::fprintf(stderr, "%s%-2d %s\n", prefix, static_cast<int>(position), message);
}

namespace
{

struct env_options {
    bool help;
    bool debug;
    bool disable;
};

} // namespace

// 0, or -1 when memory ran out.
static int read_environment(env_options *opts)
{
    enum { TOKEN_HELP, TOKEN_DEBUG, TOKEN_DISABLE };
    const char *env = std::getenv("LIBKORVA_OPTIONS");
    if (env == nullptr)
        return 0;
    krv_owner<char> copy(strdup(env)); // getsubopt writes into it
    if (copy == nullptr)
        return -1;
    opts->help = *env == '\0';
    char token_help[] = "help", token_debug[] = "debug", token_disable[] = "disable";
    char *const tokens[] = {token_help, token_debug, token_disable, nullptr};
    char *rest = copy.get();
    while (*rest != '\0') {
        char *value = nullptr;
        const int token = getsubopt(&rest, tokens, &value);
        if (token == TOKEN_DEBUG && value == nullptr)
            opts->debug = true;
        else if (token == TOKEN_DISABLE && value == nullptr)
            opts->disable = true;
        else
            opts->help = true;
    }
    return 0;
}

static void print_help_once()
{
    uint8_t expected = 0;
    if (!__atomic_compare_exchange_n(&_krv_print_help, &expected, 1, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
        return;
    std::fputs("libkorva: Debugging tokens:\n"
               "libkorva:\thelp:     this message\n"
               "libkorva:\tdebug:    send debug to stderr\n"
               "libkorva:\tdisable:  disable libkorva\n",
               stderr);
}

static void set_opt(krv_handle_t *hp, krv_opt_idx_t opt, uint64_t value)
{
    hp->sh_opts[opt].sopt_u.o_uint64 = value;
    hp->sh_opts[opt].sopt_set = B_TRUE;
}

// The handle and its message slots are the only memory not taken through krv_zalloc, which needs a handle.
static void free_handle_memory(krv_handle_t *hp)
{
    for (char *slot : hp->sh_error.texts)
        std::free(slot);
    std::free(hp);
}

static krv_handle_t *alloc_handle_memory()
{
    auto *hp = static_cast<krv_handle_t *>(std::calloc(1, sizeof(krv_handle_t)));
    if (hp == nullptr)
        return nullptr;
    for (char *&slot : hp->sh_error.texts) {
        slot = static_cast<char *>(std::calloc(1, KRV_MAX_ERROR_SIZE));
        if (slot == nullptr) {
            free_handle_memory(hp);
            return nullptr;
        }
    }
    return hp;
}

krv_handle_t *korva_handle_alloc(krv_activation_type_t type)
{
    env_options opts = {};
    if (read_environment(&opts) != 0)
        return nullptr;
    if (opts.help)
        print_help_once();
    if (opts.disable)
        return nullptr;
    krv_handle_t *hp = alloc_handle_memory();
    if (hp == nullptr)
        return nullptr;
    for (krv_fd_t &fd : hp->sh_sec)
        fd.sfd_hp = hp;
    for (krv_fd_t &fd : hp->sh_ext_sec)
        fd.sfd_hp = hp;
    if (opts.debug)
        set_opt(hp, KRV_OPT_DEBUG_FUNC, reinterpret_cast<uintptr_t>(krv_error_print));
    switch (type) {
    case KRV_ACTIVATION_I386:
        hp->sh_target_size = 4;
        break;
    case KRV_ACTIVATION_AMD64:
        hp->sh_target_size = 8;
        break;
    default:
        free_handle_memory(hp);
        return nullptr;
    }
    hp->sh_target = type;
    krv_rwlock_init(&hp->sh_rwlock);
    krv_rwlock_init(&hp->sh_error_lock);
    hp->sh_refcnt = 1;
    hp->sh_cache_bits = KRV_CACHE_BITS;
    return hp;
}

void korva_handle_free(krv_handle_t *hp)
{
    if (hp == nullptr)
        return;
    krv_destroy_reader(hp);
    krv_compact_destroy(hp);
    krv_addr_index_destroy(hp);
    krv_scopes_destroy(hp);
    krv_signatures_destroy(hp);
    krv_side_units_destroy(hp);
    krv_calls_destroy(hp);
    krv_function_names_destroy(hp);
    krv_named_destroy(hp);
    krv_lookup_destroy_cu_caches(hp);
    krv_line_destroy_caches(hp);
    krv_abbrev_destroy_caches(hp);
    krv_ext_destroy(hp);
    krv_free(hp->sh_budget);
    krv_threads_destroy(hp);
    krv_rwlock_destroy(&hp->sh_error_lock);
    krv_rwlock_destroy(&hp->sh_rwlock);
    free_handle_memory(hp);
}

void korva_handle_hold(krv_handle_t *hp)
{
    if (hp != nullptr)
        krv_refcnt_inc(&hp->sh_refcnt);
}

void korva_handle_release(krv_handle_t *hp)
{
    if (hp != nullptr && krv_refcnt_dec(&hp->sh_refcnt) == 0)
        korva_handle_free(hp);
}

int korva_handle_set_opt(krv_handle_t *hp, krv_opt_idx_t opt, ...)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    const bool is_extension =
        krv_ext_is_option(opt) || krv_compact_is_option(opt) || krv_budget_is_option(opt) || opt == KRV_OPT_EXT_THREADS;
    if (opt < 0 || (opt >= KRV_MAX_OPT && !is_extension))
        return krv_fail_code(hp, KRV_ERR_INVALID);
    va_list ap;
    va_start(ap, opt);
    const uint64_t value = va_arg(ap, uint64_t); // every option's type fills one 64-bit argument
    va_end(ap);
    if (opt == KRV_OPT_EXT_THREADS)
        return krv_threads_set(hp, value != 0);
    if (krv_budget_is_option(opt))
        return krv_budget_set_opt(hp, opt, value);
    if (krv_compact_is_option(opt))
        return krv_compact_set_opt(hp, opt, value);
    if (is_extension)
        return krv_ext_set_opt(hp, opt, value);
    set_opt(hp, opt, value);
    return 0;
}

int korva_attach_section(krv_handle_t *hp, krv_secidx_t sec, uint64_t size, krv_fd_type_t type, ...)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (sec < 0 || (sec >= KRV_MAX_SEC && !krv_ext_is_section(hp, sec)))
        return krv_fail(hp, KRV_ERR_INVALID, "section index %d too large", sec);
    if (size == 0)
        return krv_fail(hp, KRV_ERR_INVALID, "section size is zero");
    va_list ap;
    va_start(ap, type);
    krv_fd_t section;
    const int result = krv_fd_attach(hp, &section, size, type, ap);
    va_end(ap);
    if (result != 0 || krv_units_keep_section(hp, sec) != 0)
        return -1;
    *krv_section(hp, sec) = section;
    krv_peek_forget(hp, sec);
    if (sec == KRV_SEC_FRAME)
        krv_compact_forget(hp);
    return 0;
}

int korva_get_section(krv_handle_t *hp, krv_secidx_t sec, krv_fd_t *fdp)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (fdp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    if (sec < 0 || (sec >= KRV_MAX_SEC && !krv_ext_is_section(hp, sec)))
        return krv_fail(hp, KRV_ERR_INVALID, "section index %d too large", sec);
    krv_fd_t section = *krv_section(hp, sec);
    if (section.sfd_size == 0)
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    section.sfd_offset = 0;
    section.sfd_remaining = section.sfd_size;
    *fdp = section;
    return 0;
}

int korva_attach_as(krv_handle_t *hp, krv_fd_cb_f *func, void *arg)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (func == nullptr)
        return krv_fail(hp, KRV_ERR_INVALID, "NULL callback specified");
    krv_fd_attach_cb(hp, &hp->sh_as, UINT64_MAX, func, arg);
    krv_destroy_reader(hp); // the next query chooses again, with the new memory
    krv_compact_forget(hp);
    return 0;
}

int korva_lookup_section_index(const char *name, krv_secidx_t *secp, boolean_t *compressed)
{
    static constexpr char DEBUG[] = ".debug_", ZDEBUG[] = ".zdebug_";
    if (name == nullptr || secp == nullptr || compressed == nullptr)
        return -1;
    if (std::strcmp(name, ".eh_frame_hdr") == 0 || std::strcmp(name, ".eh_frame") == 0) {
        *secp = std::strcmp(name, ".eh_frame") == 0 ? KRV_SEC_EH_FRAME : KRV_SEC_EH_FRAME_HDR;
        *compressed = B_FALSE;
        return 0;
    }
    const bool plain = std::strncmp(name, DEBUG, sizeof(DEBUG) - 1) == 0;
    if (!plain && std::strncmp(name, ZDEBUG, sizeof(ZDEBUG) - 1) != 0)
        return -1;
    const char *rest = name + (plain ? sizeof(DEBUG) : sizeof(ZDEBUG)) - 1;
    for (const krv_section_t &row : _krv_section_table) {
        if (std::strcmp(rest, row.name) != 0)
            continue;
        *secp = row.index;
        *compressed = plain ? B_FALSE : B_TRUE;
        return 0;
    }
    return -1;
}
