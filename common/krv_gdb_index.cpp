// SPDX-License-Identifier: Apache-2.0
//
// .gdb_index, of the versions 7 to 9 that gdb documents ("Index Section Format"): a list of units and one of type units, a
// hash table of names as programmers write them, "ns::f" or "ns::f(int)", and for each a vector of units. One who asks for
// "f" does not know what stands before it, so that all names are looked at and none is hashed. It has no linkage names.
#include "krv_budget.h"
#include "krv_error.h"
#include "krv_name_source.h"
#include "krv_qualified.h"

namespace
{

struct gdb_index {
    krv_view_t view;
    uint64_t units, unit_count, symbols, symbol_count, pool;
};

constexpr unsigned int KIND_VARIABLE = 2, KIND_FUNCTION = 3, UNIT_BITS = 24, KIND_SHIFT = 28, KIND_MASK = 7;

} // namespace

static int refuse(krv_handle_t *hp, const char *what)
{
    return krv_fail(hp, KRV_ERR_CORRUPT, ".gdb_index %s", what);
}

// An index of another version has no units. The parts lie within, but for the pool's end.
static int read_header(krv_handle_t *hp, const krv_view_t &section, gdb_index *index)
{
    *index = {};
    index->view = section;
    uint64_t version, places[6]; // of units, type units, addresses, names, from version 9 on what main is, the pool
    if (!krv_view_read(index->view, 0, 4, &version))
        return refuse(hp, "is cut off");
    if (version < 7 || version > 9)
        return refuse(hp, "is of an unknown version");
    const unsigned int count = version == 9 ? 6 : 5;
    uint64_t before = 4 + 4 * count;
    for (unsigned int i = 0; i < count; ++i) {
        if (!krv_view_read(index->view, 4 + 4 * i, 4, &places[i]) || places[i] < before || places[i] > index->view.size)
            return refuse(hp, "has tables that lead out of it");
        before = places[i];
    }
    index->units = places[0];
    index->unit_count = (places[1] - places[0]) / 16;
    index->symbols = places[3];
    index->symbol_count = (places[4] - places[3]) / 8;
    index->pool = places[count - 1];
    return 0;
}

static krv_source_unit_t unit_at(const gdb_index &index, uint64_t number)
{
    krv_source_unit_t unit = {};
    krv_view_read(index.view, index.units + number * 16, 8, &unit.offset);
    krv_view_read(index.view, index.units + number * 16 + 8, 8, &unit.size);
    return unit;
}

static int visit_units(krv_handle_t *hp, const krv_view_t &section, krv_source_unit_f *fn, void *arg)
{
    gdb_index index;
    int result = read_header(hp, section, &index);
    if (result == 0 && !krv_spend(hp, index.unit_count))
        return -1;
    for (uint64_t i = 0; i < index.unit_count && result == 0; ++i) {
        const krv_source_unit_t unit = unit_at(index, i);
        result = fn(&unit, arg);
    }
    return result;
}

static bool is_wanted(uint64_t element, unsigned int kinds)
{
    const uint64_t kind = element >> KIND_SHIFT & KIND_MASK;
    return (kind == KIND_FUNCTION && (kinds & KRV_NAMED_FUNCTIONS) != 0) ||
           (kind == KIND_VARIABLE && (kinds & KRV_NAMED_VARIABLES) != 0);
}

// The units of a name. Type units count behind the others, and have no code.
static int visit_vector(krv_handle_t *hp, const gdb_index &index, uint64_t at, unsigned int kinds, uint64_t *budget,
                        krv_source_hit_f *fn, void *arg)
{
    uint64_t count, element;
    if (!krv_view_read(index.view, at, 4, &count) || count > (index.view.size - at - 4) / 4 || count > *budget)
        return refuse(hp, "has units of a name that lead out of it");
    *budget -= count;
    for (uint64_t i = 1; i <= count; ++i) {
        krv_view_read(index.view, at + 4 * i, 4, &element);
        const uint64_t number = element & ((uint64_t{1} << UNIT_BITS) - 1);
        if (number >= index.unit_count || !is_wanted(element, kinds))
            continue;
        const krv_source_hit_t hit = {.unit = unit_at(index, number).offset, .entry = 0};
        if (const int result = fn(&hit, arg))
            return result;
    }
    return 0;
}

static int find(krv_handle_t *hp, const krv_view_t &section, const char *name, unsigned int kinds, krv_source_hit_f *fn,
                void *arg)
{
    constexpr uint64_t MOST_PASSES = 4; // over the section: names may share their vectors and the ends of their texts
    gdb_index index;
    int result = read_header(hp, section, &index);
    const krv_wanted_name wanted(name);
    uint64_t budget = index.view.size * MOST_PASSES;
    for (uint64_t i = 0; i < index.symbol_count && result == 0; ++i) {
        if (!krv_spend(hp, 1))
            return -1;
        uint64_t text, vector;
        krv_view_read(index.view, index.symbols + i * 8, 4, &text);
        krv_view_read(index.view, index.symbols + i * 8 + 4, 4, &vector);
        if (text == 0 && vector == 0)
            continue; // an empty slot
        const char *symbol = krv_find_text(index.view, index.pool + text, &budget);
        if (symbol == nullptr)
            return refuse(hp, "has a name that leads out of it");
        if (wanted.is_end_of(symbol))
            result = visit_vector(hp, index, index.pool + vector, kinds, &budget, fn, arg);
    }
    return result;
}

const krv_name_source krv_gdb_index = {KRV_SEC_EXT_GDB_INDEX, visit_units, find};
