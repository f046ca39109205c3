// SPDX-License-Identifier: Apache-2.0
#include "frame_place.h"

#include "demangle.h"

namespace korva::program
{

std::string basename_of(const std::string &path)
{
    return path.substr(path.rfind('/') + 1); // npos + 1 is 0
}

std::string build_id_of(const krv_proc_module_t &module)
{
    std::string digits;
    for (size_t i = 0; i < module.build_id_size; ++i)
        digits += fmt::format("{:02x}", module.build_id[i]);
    return digits;
}

module_file open_module(const process &proc, const krv_proc_module_t &module, const cost_bounds &bounds,
                        const std::string &hint)
{
    module_file opened;
    const auto file = proc.file(module);
    if (!file) {
        const bool is_executable =
            (module.flags & KRV_PROC_MODULE_F_MAIN) != 0 && module.path[0] != '\0' && proc.info().kind == KRV_PROC_CORE;
        diagnose(file.error().text() + (is_executable ? hint : ""));
        return opened;
    }
    opened.file = std::make_unique<object>(*file, module.path, bounds);
    if (opened.file->has_debug_info())
        opened.lines = std::make_unique<locator>(opened.file.get());
    return opened;
}

std::string path_of(const krv_elf_frame_t &call, const place_request &wanted)
{
    return wanted.no_source ? "" : wanted.basenames ? basename_of(call.file) : call.file;
}

frame_place look_up(const module_file &opened, const stack_frame &f, const place_request &wanted)
{
    if (opened.file == nullptr)
        return {};
    return look_up(*opened.file, opened.lines.get(), f, f.lookup_pc - f.module->bias, wanted);
}

frame_place look_up(const object &file, locator *lines, const stack_frame &f, uint64_t address,
                    const place_request &wanted)
{
    frame_place at;
    if (const krv_elf_symbol_t *symbol = file.elf().symbol(address); symbol != nullptr) {
        at.function = function_name(symbol->name, wanted.demangle);
        at.offset = f.pc - f.lookup_pc + address - symbol->address;
    }
    if (lines == nullptr || (wanted.no_inlines && wanted.no_source))
        return at;
    const auto calls = lines->frames(address, wanted.demangle ? KRV_ELF_FRAMES_F_DEMANGLE : KRV_ELF_FRAMES_F_NONE,
                                     wanted.no_inlines ? 1 : MOST_CALLS);
    if (calls.empty())
        return at;
    at.path = path_of(calls[0], wanted);
    at.line = wanted.no_source ? 0 : calls[0].line;
    if (!wanted.no_inlines)
        at.calls.assign(calls.begin(), calls.end());
    return at;
}

} // namespace korva::program
