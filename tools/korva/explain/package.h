// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace korva::program::explanation
{

/**
 * The Debian package that the system's records (/var/lib/dpkg/info) say a file is of, without its architecture; empty when
 * none does, or the system has no such records.
 */
std::string debian_package_of(const std::string &path);

} // namespace korva::program::explanation
