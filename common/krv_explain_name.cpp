// SPDX-License-Identifier: Apache-2.0
//
// Where the names of a function stand, as krv_function_names finds them.
#include "krv_error.h"
#include "krv_function_names.h"

#include <algorithm>
#include <iterator>

int korva_explain_name(krv_handle_t *hp, const krv_entry_t *entryp, krv_name_why_t *whyp)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (entryp == nullptr || whyp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    *whyp = {};
    krv_function_names names;
    krv_names_trace trace = {};
    if (!krv_function_names_find(hp, *entryp, &names, &trace))
        return -1;
    if (trace.name != nullptr) {
        whyp->name_entry = trace.name->offset;
        whyp->name_is_alternate = trace.name->is_alternate;
    }
    if (trace.linkage_name != nullptr) {
        whyp->linkage_entry = trace.linkage_name->offset;
        whyp->linkage_is_alternate = trace.linkage_name->is_alternate;
    }
    whyp->steps = trace.count - 1;
    std::copy_n(trace.entries + 1, std::min<size_t>(whyp->steps, std::size(whyp->path)), whyp->path);
    return 0;
}
