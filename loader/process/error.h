// SPDX-License-Identifier: Apache-2.0
//
// How failures of the process layer leave it: thrown as `failure`, turned into a krv_elf_error_t at the C interface.
#ifndef KRV_PROC_ERROR_H
#define KRV_PROC_ERROR_H

#include "elf/file.h"

#include <cstdio>
#include <new>

namespace krv_elf_loader
{

inline void report(krv_elf_error_t *errorp, int code, const char *text) noexcept
{
    if (errorp == nullptr)
        return;
    errorp->code = code;
    std::snprintf(errorp->message, sizeof(errorp->message), "%s", text);
}

// Runs the body of an exported function. Whatever it throws is reported, and `failed` returned instead.
template <typename R, typename F>
R guarded(krv_elf_error_t *errorp, R failed, F body) noexcept
{
    try {
        return body();
    } catch (const failure &e) {
        report(errorp, e.code, e.what());
    } catch (const std::bad_alloc &) {
        report(errorp, KRV_ELF_ERR_NOMEM, "out of memory");
    } catch (const std::exception &e) {
        report(errorp, KRV_ELF_ERR_SYSTEM, e.what());
    }
    return failed;
}

} // namespace krv_elf_loader

#endif
