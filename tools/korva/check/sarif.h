// SPDX-License-Identifier: Apache-2.0
//
// Findings as a log of the Static Analysis Results Interchange Format (SARIF 2.1.0), which CI systems show.
#pragma once

#include "check/findings.h"
#include "output.h"
#include "status.h"

#include <string>

namespace korva::program::check
{

class sarif_log
{
public:
    /** The findings of a file that was checked. */
    void add(const std::string &path, const findings &found);
    /** A file that could not be opened. */
    void add_failure(const std::string &path, const std::string &why);

    /** The whole log. */
    json_value finish(exit_status status) const;

private:
    json_value m_results = json_value::array();
    json_value m_notifications = json_value::array();
};

} // namespace korva::program::check
