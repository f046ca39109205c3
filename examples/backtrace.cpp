// SPDX-License-Identifier: Apache-2.0
// backtrace: prints the calls on its own stack, the innermost first, also those that were inlined.
#include <cstdio>
#include <korva.hpp>

static void print_frame(const korva::process &process, const krv_proc_frame_t &frame)
{
    const auto elf =
        frame.module == nullptr ? korva::result<korva::elf_view>(korva::error{}) : process.file(*frame.module);
    if (!elf) {
        std::printf("#%u ??\n", frame.index);
        return;
    }
    const std::uint64_t address = frame.lookup_pc - frame.module->bias; // as the file knows it
    const auto calls = korva::calls_at(elf->handle(), address);
    if (!calls) {
        const krv_elf_symbol_t *function = elf->symbol(address);
        std::printf("#%u %s\n", frame.index, function != nullptr ? function->name : "??");
        return;
    }
    const auto source = elf->source(address);
    std::string path = source ? source->path : "??";
    std::uint32_t line = source ? source->line : 0;
    for (const krv_call_t &call : *calls) {
        std::printf("#%u %s at %s:%u%s\n", frame.index, call.name != nullptr ? call.name : "??", path.c_str(), line,
                    call.is_inlined != 0 ? " (inlined)" : "");
        if (call.is_inlined == 0)
            break;
        // The next one has it, at:
        const korva::unit unit(elf->handle().get(), call.call_unit);
        const auto file = korva::file_of(elf->handle(), unit, call.call_file);
        path = file ? file->path : "??";
        line = call.call_line;
    }
}

// The compiler puts inner into outer: there is one frame for both.
[[gnu::always_inline]] inline int inner()
{
    const auto process = korva::process::self();
    if (!process) {
        std::fprintf(stderr, "%s\n", process.error().text().c_str());
        return 1;
    }
    const krv_proc_end_t end = process->walk(0, [&](const krv_proc_frame_t &frame) { print_frame(*process, frame); });
    std::printf("%u frames: %s\n", end.frames, end.message);
    return end.reason == KRV_PROC_END_ERROR;
}

[[gnu::noinline]] int outer()
{
    const int rc = inner();
    return rc * 2; // not a tail call
}

int main()
{
    return outer();
}
