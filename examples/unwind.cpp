// SPDX-License-Identifier: Apache-2.0
// unwind: prints the functions on its own stack, the innermost first.
#include <cstdio>
#include <korva.hpp>

// Kept out of line, so that there is something to unwind, and with names that the symbol table shows as they are.
extern "C" {

[[gnu::noinline]] int inner()
{
    const auto process = korva::process::self();
    if (!process) {
        std::fprintf(stderr, "%s\n", process.error().text().c_str());
        return 1;
    }
    const krv_proc_end_t end = process->walk(0, [&](const krv_proc_frame_t &frame) {
        const krv_elf_symbol_t *function = nullptr;
        if (frame.module != nullptr)
            if (const auto file = process->file(*frame.module)) // the file knows addresses without the bias
                function = file->symbol(frame.lookup_pc - frame.module->bias);
        std::printf("#%u %s\n", frame.index, function != nullptr ? function->name : "??");
    });
    std::printf("%u frames: %s\n", end.frames, end.message);
    return end.reason == KRV_PROC_END_ERROR;
}

[[gnu::noinline]] int outer()
{
    const int rc = inner();
    return rc * 2; // not a tail call
}
}

int main()
{
    return outer();
}
