// SPDX-License-Identifier: Apache-2.0
//
// How failures leave the loader: thrown as `failure`, turned into a krv_elf_error_t at the C interface.
#ifndef KRV_ELF_FAILURE_H
#define KRV_ELF_FAILURE_H

#include "libkorva-elf.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

namespace krv_elf_loader
{

class failure : public std::runtime_error
{
public:
    failure(int error_code, const std::string &text) : std::runtime_error(text), code(error_code) {}
    const int code; // KRV_ELF_ERR_*
};

// One line of text, whatever is in the path that it names.
inline void tell(krv_elf_error_t *errorp, int code, const char *message) noexcept
{
    if (errorp == nullptr)
        return;
    errorp->code = code;
    std::snprintf(errorp->message, sizeof(errorp->message), "%s", message);
    std::replace(errorp->message, errorp->message + std::strlen(errorp->message), '\n', '?');
}

// Runs the body of an exported function that may throw; tells what it threw, and returns `failed`.
template <typename R, typename F>
R guarded(krv_elf_error_t *errorp, R failed, const F &body) noexcept
{
    try {
        return body();
    } catch (const failure &f) {
        tell(errorp, f.code, f.what());
    } catch (const std::bad_alloc &) {
        tell(errorp, KRV_ELF_ERR_NOMEM, "out of memory");
    } catch (const std::exception &e) {
        tell(errorp, KRV_ELF_ERR_FORMAT, e.what());
    }
    return failed;
}

} // namespace krv_elf_loader

#endif
