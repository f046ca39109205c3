// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <span>

namespace korva::program
{

/** A register of both targets; NULL where a target has none. */
struct register_name {
    unsigned int host; /**< KRV_HOST_* */
    const char *amd64;
    const char *i386;
};
std::span<const register_name> register_names();

} // namespace korva::program
