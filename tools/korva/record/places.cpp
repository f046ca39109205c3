// SPDX-License-Identifier: Apache-2.0
#include "record/places.h"

#include "trace/process_traces.h"

namespace korva::program
{

std::vector<trace_frame> place_finder::find(const sampled_frame &frame)
{
    const uint64_t pc = frame.address + (frame.module == nullptr ? 0 : frame.module->bias);
    const stack_frame shown = {.pc = pc,
                               .lookup_pc = pc,
                               .module = frame.module,
                               .is_signal_frame = frame.is_signal_frame,
                               .arguments = {},
                               .variables = {}};
    frame_place at;
    if (frame.module != nullptr) {
        const auto [opened, fresh] = m_files.try_emplace(frame.module);
        if (fresh)
            opened->second = open_module(*m_proc, *frame.module, m_bounds, "");
        at = look_up(opened->second, shown, m_wanted);
    }
    std::vector<trace_frame> frames;
    append_frames(&frames, shown, at, m_wanted);
    return frames;
}

} // namespace korva::program
