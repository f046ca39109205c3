// SPDX-License-Identifier: Apache-2.0
#include "krv_function_names.h"

#include "krv_dwarf.h"
#include "krv_entry_seek.h"
#include "krv_error.h"
#include "krv_hash.h"
#include "krv_mem.h"

static uint32_t small_number(const krv_attr_t &attr)
{
    return attr.number <= UINT32_MAX ? static_cast<uint32_t>(attr.number) : 0;
}

static void take_name(const krv_attr_t &attr, const char **name, uint32_t *size)
{
    if (attr.kind != KRV_ATTR_STRING || *name != nullptr)
        return;
    *name = reinterpret_cast<const char *>(attr.bytes);
    *size = attr.size <= UINT32_MAX ? static_cast<uint32_t>(attr.size) : UINT32_MAX;
}

// Takes what an entry says, and moves on to the one that it leads to. 1, 0 where it leads nowhere, or -1.
static int read_names(krv_handle_t *hp, krv_entry_t *entry, krv_function_names *names)
{
    krv_place_t place;
    if (!krv_entry_place(hp, entry->unit, &place))
        return -1;
    krv_attr_t attr, origin = {};
    int read;
    while ((read = krv_entry_read_attr(hp, place, entry, &attr)) == 1) {
        switch (attr.attribute) {
        case DW_AT_name:
            take_name(attr, &names->name, &names->name_size);
            break;
        case DW_AT_linkage_name:
        case DW_AT_MIPS_linkage_name:
            take_name(attr, &names->linkage_name, &names->linkage_name_size);
            break;
        case DW_AT_decl_file:
            if (names->decl_unit == nullptr && !entry->is_alternate && attr.number <= UINT32_MAX) {
                names->decl_unit = entry->unit;
                names->decl_file = small_number(attr);
            }
            break;
        case DW_AT_decl_line:
            names->decl_line = names->decl_line == 0 ? small_number(attr) : names->decl_line;
            break;
        case DW_AT_abstract_origin:
        case DW_AT_specification:
            origin = attr.kind == KRV_ATTR_REFERENCE ? attr : origin;
            break;
        default:
            break;
        }
    }
    if (read != 0 || origin.kind == 0)
        return read;
    return krv_entry_follow(hp, entry, &origin, entry) == 0 ? 1 : -1;
}

// Notes the entry that was read, and what it had.
static void add_to_trace(krv_names_trace *trace, const krv_entry_t &read, const krv_function_names &names)
{
    krv_entry_t *kept = &trace->entries[trace->count++];
    *kept = read;
    if (names.name != nullptr && trace->name == nullptr)
        trace->name = kept;
    if (names.linkage_name != nullptr && trace->linkage_name == nullptr)
        trace->linkage_name = kept;
}

bool krv_function_names_find(krv_handle_t *hp, const krv_entry_t &of, krv_function_names *names, krv_names_trace *trace)
{
    *names = {};
    krv_entry_t entry = of;
    int read = 1;
    for (unsigned int i = 0; i < KRV_MOST_ORIGINS && read == 1; ++i) {
        const krv_entry_t begun = entry;
        read = read_names(hp, &entry, names);
        if (trace != nullptr)
            add_to_trace(trace, begun, *names);
    }
    return krv_forgive(hp);
}

const krv_function_names *krv_function_names_keep(krv_handle_t *hp, const krv_entry_t &entry, const krv_attr_t &origin)
{
    // No section in memory has an offset with the highest bit.
    const krv_hash_key_t key = {.dwhk_u = origin.is_alternate ? origin.number | uint64_t{1} << 63 : origin.number};
    krv_hash_t *kept = krv_hash_get(hp, krv_hash_slot(hp->sh_function_names, key.dwhk_u));
    if (kept == nullptr)
        return nullptr;
    if (const void *known = krv_hash_lookup(hp, kept, &key))
        return static_cast<const krv_function_names *>(known);
    krv_owner<krv_function_names> fresh(krv_new<krv_function_names>(hp));
    if (fresh == nullptr)
        return nullptr;
    krv_entry_t to;
    const bool found = krv_entry_follow(hp, &entry, &origin, &to) == 0 ? krv_function_names_find(hp, to, fresh.get())
                                                                       : krv_forgive(hp);
    void *stored = found ? krv_hash_insert(hp, kept, &key, fresh.get()) : nullptr;
    if (stored == fresh.get())
        static_cast<void>(fresh.release());
    krv_forgive(hp);
    return static_cast<const krv_function_names *>(stored);
}

static int free_names(void *names)
{
    krv_free(names);
    return 0;
}

void krv_function_names_destroy(krv_handle_t *hp)
{
    krv_hash_drop(hp->sh_function_names, free_names);
}
