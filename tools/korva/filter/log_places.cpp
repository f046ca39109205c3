// SPDX-License-Identifier: Apache-2.0
#include "filter/log_places.h"

#include <algorithm>

namespace korva::program
{

// Where a program that is moved lies, on AMD64: under valgrind; where the system does not choose, as under gdb.
static constexpr uint64_t VALGRIND_BASE = 0x108000, UNCHOSEN_BASE = 0x555555554000;
static constexpr std::string_view DELETED = " (deleted)";

log_places::log_places(const place_options &options)
    : m_options(options), m_cache(options.most_open, options.flags, options.search, options.bounds)
{
    for (const std::string &path : options.files) {
        const opened_module file(path, options.flags, options.search, options.bounds);
        const bool is_at_home = file.is_program() || !file.is_moved();
        m_files.push_back({path, std::string(name_of(path)), file.build_id(), file.is_moved() ? UNCHOSEN_BASE : 0,
                           is_at_home ? file.code() : std::vector<extent>()});
    }
}

// A module of the kernel is NAME.ko, the kernel vmlinux. Neither is looked for.
opened_module *log_places::find_kernel(std::string_view name)
{
    if (name.starts_with('[') && name.ends_with(']'))
        name = name.substr(1, name.size() - 2);
    const auto is_it = [name](const given_file &file) {
        const std::string_view known = std::string_view(file.name).substr(0, file.name.find('.'));
        if (name.empty() || name.starts_with("kernel.kallsyms"))
            return known.starts_with("vmlinux");
        return std::equal(known.begin(), known.end(), name.begin(), name.end(),
                          [](char a, char b) { return (a == '-' ? '_' : a) == (b == '-' ? '_' : b); });
    };
    const auto file = std::find_if(m_files.begin(), m_files.end(), is_it);
    return file == m_files.end() ? nullptr : m_cache.open(file->path);
}

// Files that the user gave come first: they are there to be asked in the place of others.
opened_module *log_places::find_module(std::string_view name, std::string_view build_id, bool may_open)
{
    const bool is_deleted = name.ends_with(DELETED); // another may stand in its place
    if (is_deleted)
        name.remove_suffix(DELETED.size());
    for (const given_file &file : m_files) {
        const bool has_id = !build_id.empty() && !file.build_id.empty();
        if (has_id ? file.build_id == build_id : !name.empty() && file.name == name_of(name))
            return m_cache.open(file.path);
    }
    if (!may_open || is_deleted || name.empty())
        return m_cache.open_build_id(name, build_id);
    return m_cache.find(name, build_id);
}

// A name alone may be that of a mapped file, or of one in the working directory.
opened_module *log_places::find_named(std::string_view name, std::string_view build_id)
{
    if (build_id.empty())
        build_id = m_seen.find_build_id(name_of(name));
    if (name.find('/') == std::string_view::npos) {
        if (const log_mapping *const mapping = m_given.find(name); mapping != nullptr)
            return find_module(mapping->path, build_id.empty() ? mapping->build_id : build_id, true);
        if (const log_mapping *const mapping = m_seen.find(name); mapping != nullptr)
            return find_module(mapping->path, build_id.empty() ? mapping->build_id : build_id, m_options.open_paths);
    }
    return find_module(name, build_id, m_options.open_paths);
}

std::optional<log_place> log_places::find_in_memory(uint64_t address, std::string_view module)
{
    const log_mapping *const given = m_given.find(address);
    const log_mapping *const mapping = given != nullptr ? given : m_seen.find(address);
    if (mapping != nullptr) {
        opened_module *const file =
            find_module(mapping->path, mapping->build_id, m_options.open_paths || given != nullptr);
        if (file == nullptr)
            return log_place();
        const auto at = mapping->bias ? std::optional(address - *mapping->bias)
                                      : file->address_of_offset(address - mapping->start + mapping->offset);
        return at ? log_place{file, *at} : log_place();
    }
    for (const given_file &file : m_files)
        for (const extent &code : file.code)
            if (address - file.bias - code.address < code.size)
                return log_place{m_cache.open(file.path), address - file.bias};
    if (module.empty())
        return {};
    opened_module *const file = find_module(module, {}, m_options.open_paths);
    if (file == nullptr)
        return log_place();
    const uint64_t at = file->is_moved() ? address - VALGRIND_BASE : address;
    const bool is_at_base = file->is_program() || !file->is_moved();
    return is_at_base && file->has_code_at(at) ? log_place{file, at} : log_place();
}

std::optional<uint64_t> log_places::address_in(opened_module *module, const log_address &a)
{
    switch (a.of) {
    case log_address::kind::module: // from where it begins, unless it is an address of a file that is not moved
        return a.value < module->first_address() ? a.value + module->first_address() : a.value;
    case log_address::kind::file_offset:
        return module->address_of_offset(a.value);
    case log_address::kind::mapping:
        if (const auto start = module->start_of_code(a.size))
            return *start + a.value;
        return {};
    case log_address::kind::symbol:
        if (const auto start = module->address_of_symbol(a.symbol, a.size))
            return *start + a.value;
        return {};
    case log_address::kind::memory:
        break;
    }
    return {};
}

std::optional<log_place> log_places::find(const log_address &a)
{
    if (a.of == log_address::kind::memory)
        return find_in_memory(a.value, a.module);
    const bool is_kernel = a.of == log_address::kind::symbol && (a.size != 0 || a.module.starts_with('['));
    if (a.module.starts_with('[') && !is_kernel)
        return {};
    opened_module *const module = is_kernel ? find_kernel(a.module) : find_named(a.module, a.build_id);
    if (module == nullptr)
        return is_kernel ? std::nullopt : std::optional(log_place());
    if (const auto at = address_in(module, a))
        return log_place{module, *at};
    // perf writes either.
    return a.of == log_address::kind::file_offset ? find_in_memory(a.value, {}) : log_place();
}

} // namespace korva::program
