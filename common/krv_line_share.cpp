// SPDX-License-Identifier: Apache-2.0
//
// What units share of their line numbers. Many may name one header of .debug_line: partial units do, and whoever wants
// memory to grow with the product of both. It is read once for each compilation directory, which is part of its files'
// paths, and executed once, unless its program defines files: they are added to the table of the unit that asked. In input
// as it is written that holds for what fails, too.
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_hash.h"
#include "krv_line_draft.h"
#include "krv_mem.h"

namespace
{

struct common_deleter {
    void operator()(krv_line_common *common) const { krv_line_release(common); }
};
using common_owner = std::unique_ptr<krv_line_common, common_deleter>;

} // namespace

// Whether reading again would give the same. A section that is attached anew is read by whoever has not asked before.
static bool is_current(const krv_handle_t *hp, const krv_line_common *common)
{
    return krv_fd_same_source(&common->slc_section, &hp->sh_sec[KRV_SEC_LINE]);
}

// ---------------------------------------------------------------------------------------------------------------
// Failures
// ---------------------------------------------------------------------------------------------------------------

// An error state: its code and its messages, one behind the other, each with its NUL.
struct krv_line_failure {
    int code;
    unsigned int nmessages;
    char messages[];
};

// The error state, if reading again can only fail in the same way and there is room to keep that. Else NULL, as it is left.
static krv_line_failure *copy_failure(krv_handle_t *hp)
{
    const int code = krv_errno(hp);
    if (!krv_reads_as_written(hp) || krv_fd_is_cb(&hp->sh_sec[KRV_SEC_LINE]) || code == KRV_ERR_NOMEM)
        return nullptr;
    unsigned int count = 0;
    char **messages = korva_handle_get_errmsgs(hp, &count);
    size_t sizes[KRV_MAX_ERRORS], bytes = sizeof(krv_line_failure);
    for (unsigned int i = 0; i < count; ++i) {
        sizes[i] = strnlen(messages[i], KRV_MAX_ERROR_SIZE - 1);
        bytes += sizes[i] + 1;
    }
    if (!krv_line_has_room(hp, bytes))
        return nullptr;
    auto *failure = static_cast<krv_line_failure *>(krv_zalloc(hp, bytes));
    krv_errno(hp) = code;
    if (failure == nullptr)
        return nullptr;
    krv_line_may_keep(hp, bytes);
    *failure = {code, count};
    char *to = failure->messages;
    for (unsigned int i = 0; i < count; ++i) {
        std::memcpy(to, messages[i], sizes[i]);
        to += sizes[i] + 1;
    }
    return failure;
}

static void fail_again(krv_handle_t *hp, const krv_line_failure *failure)
{
    krv_clear_error(hp);
    const char *message = failure->messages;
    for (unsigned int i = 0; i < failure->nmessages; ++i) {
        krv_push_error(hp, "%s", message);
        message += std::strlen(message) + 1;
    }
    krv_errno(hp) = failure->code;
}

// ---------------------------------------------------------------------------------------------------------------
// Headers
// ---------------------------------------------------------------------------------------------------------------

static const char *text_of(const char *comp_dir)
{
    return comp_dir == nullptr ? "" : comp_dir;
}

// Of what units have in common. Two that differ may have the same; the later one then shares nothing.
static krv_hash_key_t key_of(uint64_t offset, const char *comp_dir)
{
    constexpr uint64_t PRIME = 0x100000001b3; // FNV-1a
    uint64_t key = 0xcbf29ce484222325;
    for (const char *s = text_of(comp_dir); *s != '\0'; ++s)
        key = (key ^ static_cast<uint8_t>(*s)) * PRIME;
    key = (key ^ offset) * 0x9e3779b97f4a7c15;
    return {.dwhk_u = key ^ key >> 32}; // a bucket is chosen by the lowest bits
}

static krv_lnph_t *read_header(krv_handle_t *hp, krv_ctu_t *cup, uint64_t offset)
{
    if (krv_line_may_keep(hp, 0)) {
        krv_lnph_t *header = krv_lnph_alloc(hp, cup, offset);
        if (header == nullptr || krv_line_may_keep(hp, sizeof(krv_lnph_t) + header->sln_bytes))
            return header;
        krv_lnph_free(header);
    }
    krv_note(hp, "failed to read .debug_line header at offset %lld", static_cast<long long>(offset));
    return nullptr;
}

// Reads what a unit will have in common with others, unless another thread was first. NULL on failure.
static krv_line_common *add_common(krv_handle_t *hp, krv_hash_t *headers, const krv_hash_key_t *key, krv_ctu_t *cup,
                                   uint64_t offset)
{
    common_owner fresh(krv_new<krv_line_common>(hp));
    if (fresh == nullptr)
        return nullptr;
    fresh->slc_refcnt = 1;
    fresh->slc_section = hp->sh_sec[KRV_SEC_LINE];
    fresh->slc_offset = offset;
    fresh->slc_header = read_header(hp, cup, offset);
    if (fresh->slc_header == nullptr) {
        // Which strings a header of version 5 has may depend on the unit.
        const bool is_for_all = krv_section(hp, KRV_SEC_EXT_STR_OFFSETS)->sfd_size == 0;
        fresh->slc_failure = is_for_all ? copy_failure(hp) : nullptr;
        if (fresh->slc_failure == nullptr)
            return nullptr;
    }
    auto *stored = static_cast<krv_line_common *>(krv_hash_insert(hp, headers, key, fresh.get()));
    if (stored == fresh.get())
        static_cast<void>(fresh.release()); // the handle's now
    else if (stored != nullptr)
        krv_clear_error(hp);
    return stored;
}

// A header of the unit's own, with the tables of another.
static krv_lnph_t *borrow(krv_handle_t *hp, krv_line_common *common)
{
    auto *header = krv_new<krv_lnph_t>(hp);
    if (header == nullptr)
        return nullptr;
    *header = *common->slc_header;
    krv_rwlock_init(&header->sln_files_lock);
    header->sln_common = common;
    krv_refcnt_inc(&common->slc_refcnt);
    return header;
}

krv_lnph_t *krv_line_share_header(krv_handle_t *hp, krv_ctu_t *cup, uint64_t offset)
{
    const krv_hash_key_t key = key_of(offset, cup->dcu_comp_dir);
    krv_hash_t *headers = krv_hash_get(hp, krv_hash_slot(hp->sh_line_headers, key.dwhk_u));
    if (headers == nullptr)
        return nullptr;
    auto *common = static_cast<krv_line_common *>(krv_hash_lookup(hp, headers, &key));
    if (common == nullptr)
        common = add_common(hp, headers, &key, cup, offset);
    if (common == nullptr)
        return nullptr;
    const krv_lnph_t *header = common->slc_header;
    if (common->slc_offset != offset || !is_current(hp, common))
        return read_header(hp, cup, offset);
    if (header == nullptr) {
        if (krv_errno(hp) == KRV_ERR_NONE) // else it has just failed so
            fail_again(hp, common->slc_failure);
        return nullptr;
    }
    const bool is_same = (header->sln_string_unit == nullptr || header->sln_string_unit == cup) &&
                         std::strcmp(text_of(header->sln_comp_dir), text_of(cup->dcu_comp_dir)) == 0;
    return is_same ? borrow(hp, common) : read_header(hp, cup, offset);
}

void krv_line_destroy_caches(krv_handle_t *hp)
{
    if (hp->sh_line_draft != nullptr)
        krv_line_draft_free(hp->sh_line_draft);
    hp->sh_line_draft = nullptr;
    krv_hash_drop(hp->sh_line_headers, [](void *common) {
        krv_line_release(static_cast<krv_line_common *>(common));
        return 0;
    });
}

// ---------------------------------------------------------------------------------------------------------------
// Matrices
// ---------------------------------------------------------------------------------------------------------------

// Executes the program. NULL on failure.
static krv_lnp_t *build_matrix(krv_handle_t *hp, krv_lnph_t *lnphp)
{
    krv_lnp_t *fresh = nullptr;
    if (!krv_line_may_keep(hp, 0) || krv_line_build_program(hp, lnphp, &fresh, nullptr, nullptr) != 0)
        return nullptr;
    if (krv_line_may_keep(hp, krv_lnp_bytes(fresh)))
        return fresh;
    krv_line_free_program(fresh);
    return nullptr;
}

// Of a program whose matrix was to be built. One that defines files does so each time.
static void keep_failure(krv_handle_t *hp, const krv_lnph_t *lnphp, krv_line_common *common)
{
    if (common == nullptr || !krv_lnph_has_borrowed_files(lnphp))
        return;
    if (krv_line_failure *failure = copy_failure(hp))
        krv_publish(&common->slc_failure, failure, krv_free);
}

krv_lnp_t *krv_line_get_matrix(krv_handle_t *hp, krv_lnph_t *lnphp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(lnphp != NULL);
    if (krv_lnp_t *lnpp = krv_load(&lnphp->sln_lnp))
        return lnpp;
    krv_line_common *common = lnphp->sln_common;
    if (common != nullptr && !is_current(hp, common))
        common = nullptr;
    if (const krv_line_failure *failure = common == nullptr ? nullptr : krv_load(&common->slc_failure)) {
        fail_again(hp, failure);
        return nullptr;
    }
    krv_lnp_t *lnpp = common == nullptr ? nullptr : krv_load(&common->slc_matrix);
    if (lnpp == nullptr) {
        lnpp = build_matrix(hp, lnphp);
        if (lnpp == nullptr) {
            keep_failure(hp, lnphp, common);
            return nullptr;
        }
        if ((lnpp->slnp_flags & KRV_LNP_FLAG_DEFINES) != 0 || !krv_lnph_has_borrowed_files(lnphp))
            common = nullptr;
        if (common != nullptr)
            lnpp = krv_publish(&common->slc_matrix, lnpp, krv_line_free_program);
    }
    return krv_publish(&lnphp->sln_lnp, lnpp, [common](krv_lnp_t *late) {
        if (common == nullptr)
            krv_line_free_program(late);
    });
}
