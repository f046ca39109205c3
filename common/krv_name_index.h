// SPDX-License-Identifier: Apache-2.0
//
// Which units need not be walked for a name, by what the indexes of the file say (krv_name_source). One that is damaged, or
// found to be wrong, is not asked again.
#ifndef KRV_NAME_INDEX_H
#define KRV_NAME_INDEX_H

#include "krv_name_source.h"

struct krv_name_index;

// NULL: KRV_ERR_NOMEM. Comes after the unit table is built, as units are told by their numbers in it.
krv_name_index *krv_name_index_make(krv_handle_t *hp);
void krv_name_index_free(krv_name_index *index);

// A function that an index lists by the name.
struct krv_listed_t {
    uint32_t unit;
    uint64_t entry;
};

// The units to walk.
struct krv_name_choice {
    uint8_t *units;       // owned: by number; not 0: walk it. NULL: no index tells, all of them
    krv_listed_t *listed; // owned: functions that have the name and code, if the index they are from is right
    size_t size, count;
};

struct krv_choice_deleter {
    void operator()(krv_name_choice *choice) const;
};

// Only indexes that list all functions are asked, or, with KRV_NAMED_INDEXED, any, and then also for variables. 0, or -1 with
// KRV_ERR_NOMEM.
int krv_name_index_choose(krv_handle_t *hp, krv_name_index *index, const char *name, unsigned int flags,
                          krv_name_choice *choice);

// The choice has been found wrong: `offset` in .debug_info shows it.
void krv_name_index_distrust(krv_handle_t *hp, krv_name_index *index, uint64_t offset);

#endif
