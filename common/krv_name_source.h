// SPDX-License-Identifier: Apache-2.0
//
// What an index of names in a file says, whatever its format: which units it speaks of, and which of them have a name. It is
// read where it stands, at each question; nothing is kept. Its word is for others to test.
#ifndef KRV_NAME_SOURCE_H
#define KRV_NAME_SOURCE_H

#include "krv_fd.h"

// A unit that an index speaks of.
struct krv_source_unit_t {
    uint64_t offset;
    uint64_t size;    // 0: not told
    bool is_complete; // all of its functions that have code are in the index, by their names and linkage names
};

// A place that an index gives for a name.
struct krv_source_hit_t {
    uint64_t unit;  // offset
    uint64_t entry; // offset; 0: not told
};

// Non-zero stops and is returned.
typedef int krv_source_unit_f(const krv_source_unit_t *unit, void *arg);
typedef int krv_source_hit_f(const krv_source_hit_t *hit, void *arg);

// `units` visits all units. `find` visits the hits of a name, among functions or variables (KRV_NAMED_*), of which some may
// be of other things; it takes time linear in the section's size. Both: 0, fn's result, or -1: KRV_ERR_CORRUPT.
struct krv_name_source {
    krv_secidx_t section;
    int (*units)(krv_handle_t *hp, const krv_view_t &section, krv_source_unit_f *fn, void *arg);
    int (*find)(krv_handle_t *hp, const krv_view_t &section, const char *name, unsigned int kinds, krv_source_hit_f *fn,
                void *arg);
};

extern const krv_name_source krv_debug_names; // .debug_names
extern const krv_name_source krv_gdb_index;   // .gdb_index
extern const krv_name_source krv_gnu_pubnames, krv_pubnames;

#endif
