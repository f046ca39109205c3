// SPDX-License-Identifier: Apache-2.0
//
// Frames of a recording, looked up in the files of its modules.
#pragma once

#include "frame_place.h"
#include "record/walker.h"
#include "trace/trace.h"

#include <unordered_map>
#include <vector>

namespace korva::program
{

class place_finder
{
public:
    place_finder(const process *proc, const place_request &wanted, const cost_bounds &bounds)
        : m_proc(proc), m_wanted(wanted), m_bounds(bounds)
    {
    }

    /** The functions at a place, inlined calls first; one frame without a function when nothing is known. */
    std::vector<trace_frame> find(const sampled_frame &frame);

private:
    const process *m_proc;
    place_request m_wanted;
    cost_bounds m_bounds;
    std::unordered_map<const krv_proc_module_t *, module_file> m_files{};
};

} // namespace korva::program
