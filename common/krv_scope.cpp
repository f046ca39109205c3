// SPDX-License-Identifier: Apache-2.0
#include "krv_scope.h"

#include "krv_dwarf.h"
#include "krv_dwarf5.h"
#include "krv_entry_walk.h"
#include "krv_hash.h"
#include "krv_mem.h"

#include <algorithm>

namespace
{

struct scoped {
    uint64_t entry, scope; // offsets
};

// Those of a unit.
struct scope_table {
    scoped *rows; // owned: in section order
    size_t size, count;
};

// The scopes around the place where a walk is.
struct open_scope {
    uint64_t entry;
    uint32_t depth;
};

} // namespace

static void free_table(scope_table *table)
{
    krv_free(table->rows);
    krv_free(table);
}

void krv_scopes_destroy(krv_handle_t *hp)
{
    krv_hash_t *tables = krv_take(&hp->sh_scopes);
    if (tables == nullptr)
        return;
    krv_hash_iter(tables, [](void *table) {
        free_table(static_cast<scope_table *>(table));
        return 0;
    });
    krv_hash_destroy(tables);
}

static bool is_scope(uint32_t tag)
{
    switch (tag) {
    case DW_TAG_namespace:
    case DW_TAG_module:
    case DW_TAG_class_type:
    case DW_TAG_structure_type:
    case DW_TAG_union_type:
    case DW_TAG_interface_type:
        return true;
    default:
        return false;
    }
}

static bool is_wanted(const krv_planned_t *planned)
{
    const uint32_t tag = planned->tag;
    return is_scope(tag) || tag == DW_TAG_enumeration_type || tag == DW_TAG_typedef || tag == DW_TAG_template_alias;
}

// Of a unit that is damaged, those before the damage. NULL: KRV_ERR_NOMEM, or no entry can be read.
static scope_table *make_table(krv_handle_t *hp, krv_ctu_t *cu)
{
    krv_entry_t first;
    krv_place_t place;
    std::unique_ptr<scope_table, decltype(&free_table)> table(krv_new<scope_table>(hp), free_table);
    if (table == nullptr || !krv_entry_place(hp, cu, &place) ||
        krv_entry_load_at(hp, cu, cu->dcu_offset + cu->dcu_header_size, &first) != 0)
        return nullptr;
    open_scope *open = nullptr;
    size_t room = 0, count = 0;
    const auto visit = [&](const krv_entry_t &entry, uint32_t level) {
        while (count != 0 && open[count - 1].depth >= level)
            --count;
        const bool is_in = count != 0 && open[count - 1].depth + 1 == entry.depth;
        if (is_in) {
            if (!krv_table_grow(hp, &table->rows, &table->size, table->count, size_t{64}))
                return krv_step::stop;
            table->rows[table->count++] = {entry.offset, open[count - 1].entry};
        }
        if (!is_scope(entry.tag) || !entry.has_children)
            return krv_step::next;
        if (!krv_table_grow(hp, &open, &room, count, size_t{8}))
            return krv_step::stop;
        open[count++] = {entry.offset, entry.depth};
        return krv_step::next;
    };
    static_cast<void>(krv_entry_walk(hp, place, first, is_wanted, visit));
    krv_free(open);
    if (!krv_forgive(hp) || !krv_table_trim(hp, &table->rows, &table->size, table->count))
        return nullptr;
    return table.release();
}

static const scope_table *get_table(krv_handle_t *hp, krv_ctu_t *cu)
{
    krv_hash_t *tables = krv_hash_get(hp, &hp->sh_scopes);
    if (tables == nullptr)
        return nullptr;
    const krv_hash_key_t key = {.dwhk_u = reinterpret_cast<uintptr_t>(cu)};
    if (const void *known = krv_hash_lookup(hp, tables, &key))
        return static_cast<const scope_table *>(known);
    krv_clear_error(hp);
    scope_table *fresh = make_table(hp, cu);
    if (fresh == nullptr)
        return nullptr;
    void *kept = krv_hash_insert(hp, tables, &key, fresh);
    if (kept != fresh)
        free_table(fresh);
    krv_forgive(hp);
    return static_cast<const scope_table *>(kept);
}

int krv_scope_of(krv_handle_t *hp, const krv_entry_t &entry, krv_entry_t *scope)
{
    const scope_table *table = get_table(hp, entry.unit);
    if (table == nullptr)
        return -1;
    const scoped *const last = table->rows + table->count;
    const scoped *found = std::lower_bound(table->rows, const_cast<scoped *>(last), entry.offset,
                                           [](const scoped &row, uint64_t offset) { return row.entry < offset; });
    if (found == last || found->entry != entry.offset)
        return 0;
    return krv_entry_load_at(hp, entry.unit, found->scope, scope) == 0 ? 1 : -1;
}
