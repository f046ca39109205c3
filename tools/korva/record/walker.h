// SPDX-License-Identifier: Apache-2.0
//
// From registers and stack to the frames, by tables of all modules' rules, which are made before they are needed.
#pragma once

#include "record/memory.h"

#include <korva.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace korva::program
{

/** A place that means the same as long as the recording's modules are known. */
struct sampled_frame {
    const krv_proc_module_t *module; /**< NULL when it is in none */
    uint64_t address;                /**< in the module's file, inside the instruction; else as it is in memory */
    bool is_signal_frame;

    bool operator==(const sampled_frame &) const = default;
};

/** A walked stack as the walk has it; addresses[0] was interrupted. */
struct raw_stack {
    std::vector<uint64_t> addresses{};
    int end = 0; /**< KRV_STACK_* */
};

class stack_walker
{
public:
    /** @p proc is watched. Throws std::bad_alloc. */
    explicit stack_walker(process *proc);
    ~stack_walker();
    stack_walker(const stack_walker &) = delete;
    stack_walker &operator=(const stack_walker &) = delete;

    void walk(const thread_registers &from, stack_memory *memory, raw_stack *out) const;

    /** Whether the walk ended where no module is known, and it is time for another look. */
    bool needs_modules(const raw_stack &stack) const;
    /** Looks at the modules. Whether there are others: then another walk may get further. */
    bool refresh();
    /** Leaves frames of this module out of what is resolved. */
    void hide(const std::string &module) { m_hidden = module; }

    /** Changes whenever modules do: addresses mean something else then. */
    uint64_t generation() const { return m_generation; }
    /** What the addresses are now. */
    std::vector<sampled_frame> resolve(const raw_stack &stack);

private:
    struct table {
        krv_stack_module_t rules{}; // its handle is NULL when there are none
        std::unique_ptr<krv_activation_t, void (*)(krv_activation_t *)> activation{nullptr, nullptr};
    };

    void read_modules();
    table make_table(const krv_proc_module_t &module) const;
    bool is_signal_frame(const krv_proc_module_t *module, uint64_t pc);
    std::string mapped_code() const;

    process *m_proc;
    std::unordered_map<const krv_proc_module_t *, table> m_tables; // of all modules that ever were
    std::vector<krv_stack_module_t> m_modules;                     // of those that are
    std::unordered_map<uint64_t, bool> m_signal_frames;            // what was found out, by program counter
    uint64_t m_generation = 0;
    std::string m_hidden{};
    std::string m_code;                                  // mapped_code() when modules were read
    std::chrono::steady_clock::time_point m_next_look{}; // not before
};

} // namespace korva::program
