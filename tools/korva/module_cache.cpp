// SPDX-License-Identifier: Apache-2.0
#include "module_cache.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gelf.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace korva::program
{

static constexpr size_t MOST_PATHS = 4096;       // paths
static constexpr size_t MOST_MODULES_TOLD = 100; // diagnostics
static constexpr size_t ANSWERS_TO_TRIM = 4096;
static constexpr uint64_t PAGE = 4096;

opened_module::opened_module(const std::string &path, unsigned int flags, const korva::search &where,
                             const cost_bounds &bounds)
    : m_file(path, flags, where, bounds), m_lines(&m_file), m_symbols(m_file, false)
{
    const krv_elf_info_t info = m_file.elf().info();
    if (info.type == ET_CORE)
        throw failure(fmt::format("{}: a core file is no module", path), {.code = "KRV_ELF_ERR_UNSUPPORTED"});
    for (size_t i = 0; i < info.build_id_size; ++i)
        m_build_id += fmt::format("{:02x}", info.build_id[i]);
    m_is_moved = info.type != ET_EXEC;
    read_segments();
}

void opened_module::read_segments()
{
    const int fd = ::open(path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return;
    elf_version(EV_CURRENT);
    Elf *const elf = elf_begin(fd, ELF_C_READ, nullptr);
    size_t count = 0;
    if (elf != nullptr && elf_getphdrnum(elf, &count) == 0)
        for (size_t i = 0; i < count; ++i) {
            GElf_Phdr header;
            if (gelf_getphdr(elf, static_cast<int>(i), &header) == nullptr)
                break;
            if (header.p_type == PT_LOAD)
                m_segments.push_back(
                    {header.p_vaddr, header.p_memsz, header.p_offset, header.p_filesz, (header.p_flags & PF_X) != 0});
            m_is_program = m_is_program || header.p_type == PT_INTERP;
        }
    elf_end(elf);
    ::close(fd);
}

uint64_t opened_module::first_address() const
{
    uint64_t first = UINT64_MAX;
    for (const segment &s : m_segments)
        first = std::min(first, s.address / PAGE * PAGE);
    return m_segments.empty() ? 0 : first;
}

// Whole pages are mapped. Of a file with debugging information alone nothing of a segment may be there but its place.
std::optional<uint64_t> opened_module::address_of_offset(uint64_t file_offset) const
{
    for (const bool code : {true, false})
        for (const segment &s : m_segments) {
            const uint64_t within = file_offset - std::min(file_offset, s.offset);
            if (s.is_code == code && file_offset >= s.offset / PAGE * PAGE && within < std::max(s.size, s.file_size))
                return s.address - (s.offset - file_offset);
        }
    return {};
}

std::optional<uint64_t> opened_module::start_of_code(uint64_t size) const
{
    for (const segment &s : m_segments) {
        const uint64_t before = s.address % PAGE, room = size - std::min(size, before);
        if (s.is_code && s.size <= room && room - s.size < PAGE)
            return s.address - before;
    }
    return {};
}

bool opened_module::has_code_at(uint64_t address) const
{
    return std::any_of(m_segments.begin(), m_segments.end(), [address](const segment &s) {
        return s.is_code && address >= s.address && address - s.address < s.size;
    });
}

bool opened_module::has_code() const
{
    bool has_none = false;
    for (const krv_elf_section_t &section : m_file.elf().sections())
        if (section.executable != 0 && section.size != 0) {
            if (section.file_size != 0)
                return true;
            has_none = true;
        }
    return !has_none; // a file without sections has segments all the same
}

std::vector<extent> opened_module::code() const
{
    std::vector<extent> all;
    for (const segment &s : m_segments)
        if (s.is_code)
            all.push_back({s.address, s.size});
    return all;
}

// The kernel counts a function's bytes up to the next symbol.
std::optional<uint64_t> opened_module::address_of_symbol(std::string_view name, uint64_t size)
{
    std::optional<uint64_t> best;
    uint64_t fewest = UINT64_MAX;
    for (const input_address &found : m_symbols.read(fmt::format("{}+0", name))) {
        const krv_elf_symbol_t *const symbol = m_file.elf().symbol(found.value);
        const uint64_t more = size == 0                                  ? 0
                              : symbol == nullptr || symbol->size > size ? UINT64_MAX
                                                                         : size - symbol->size;
        if (more < fewest) {
            fewest = more;
            best = found.value;
        }
    }
    return best;
}

std::span<const krv_elf_frame_t> opened_module::frames(uint64_t address, unsigned int flags, size_t most)
{
    if (++m_asked % ANSWERS_TO_TRIM == 0)
        m_file.elf().trim();
    return m_lines.frames(address, flags, most);
}

void module_cache::tell(const std::string &text)
{
    if (m_told <= MOST_MODULES_TOLD)
        diagnose(m_told < MOST_MODULES_TOLD ? text : "further modules that cannot be read are not named");
    ++m_told;
}

void module_cache::refuse(std::string_view name, std::string_view what)
{
    const std::string text = fmt::format("{}: {}", name, what);
    m_refusal = {.code = "KRV_ELF_ERR_NOTFOUND", .messages = {text}};
    forget_some();
    if (m_entries.try_emplace(text).second) // no path that is opened
        tell(text);
}

void module_cache::forget_some()
{
    if (m_entries.size() - m_open >= MOST_PATHS)
        std::erase_if(m_entries, [](const auto &each) { return each.second.file == nullptr; });
}

void module_cache::close_oldest()
{
    const auto oldest = std::min_element(m_entries.begin(), m_entries.end(), [](const auto &a, const auto &b) {
        return (a.second.file == nullptr ? UINT64_MAX : a.second.used) <
               (b.second.file == nullptr ? UINT64_MAX : b.second.used);
    });
    m_entries.erase(oldest);
    --m_open;
}

// Others than regular files are not even opened: that may wait, rewind a tape or worse.
std::unique_ptr<opened_module> module_cache::open_file(const std::string &path, bool is_guess)
{
    struct stat st = {};
    errno = ENOENT;
    if (path.find('\0') != std::string::npos || stat(path.c_str(), &st) != 0) {
        if (is_guess)
            return nullptr;
        throw failure(fmt::format("{}: {}", path, std::strerror(errno)), {.code = "KRV_ELF_ERR_SYSTEM"});
    }
    if (!S_ISREG(st.st_mode))
        throw failure(fmt::format("{}: not a regular file", path), {.code = "KRV_ELF_ERR_FORMAT"});
    if (m_open == m_most)
        close_oldest();
    auto file = std::make_unique<opened_module>(path, m_flags, m_search, m_bounds);
    ++m_open;
    return file;
}

opened_module *module_cache::open(std::string_view path, bool is_guess)
{
    auto at = m_entries.find(path);
    if (at != m_entries.end() && !is_guess && at->second.file == nullptr &&
        !at->second.refusal) { // then it was a guess
        m_entries.erase(at);
        at = m_entries.end();
    }
    if (at == m_entries.end()) {
        forget_some();
        entry made;
        try {
            made.file = open_file(std::string(path), is_guess);
        } catch (const failure &f) {
            tell(f.what());
            made.refusal = f.why;
        }
        at = m_entries.emplace(path, std::move(made)).first;
    }
    at->second.used = ++m_time;
    if (at->second.file == nullptr && !is_guess)
        m_refusal = at->second.refusal;
    return at->second.file.get();
}

// Of a build-id where a file of it is, empty where none is.
const std::string &module_cache::path_of(std::string_view build_id, int kind)
{
    if (m_paths.size() >= MOST_PATHS)
        m_paths.clear();
    const auto [at, fresh] = m_paths.try_emplace(fmt::format("{} {}", kind, build_id));
    if (!fresh)
        return at->second;
    std::vector<uint8_t> id;
    for (size_t i = 0; i + 1 < build_id.size(); i += 2)
        id.push_back(static_cast<uint8_t>(parse_hex(build_id.substr(i, 2)).value_or(0)));
    if (const auto found = elf::find(id, kind, m_flags, m_search))
        at->second = *found;
    else if (const std::string why = found.error().text(); why.find("; ") != std::string::npos)
        tell(why); // something was refused
    return at->second;
}

opened_module *module_cache::open_build_id(std::string_view name, std::string_view build_id, int kind)
{
    if (!is_build_id(build_id))
        return nullptr;
    std::string path = path_of(build_id, kind);
    if (path.empty() && kind == KRV_ELF_FIND_EXECUTABLE) // names and lines are something
        path = path_of(build_id, KRV_ELF_FIND_DEBUG);
    if (!path.empty())
        return open(path);
    refuse(name.empty() ? build_id : name, fmt::format("no file of build-id {} is here", build_id));
    return nullptr;
}

opened_module *module_cache::find(std::string_view name, std::string_view build_id, int kind)
{
    const std::string path = name.starts_with('/') ? m_search.sysroot + std::string(name) : std::string(name);
    if (path.empty())
        return open_build_id(path, build_id, kind);
    opened_module *const found = open(path, is_build_id(build_id));
    if (found == nullptr && !is_build_id(build_id))
        return nullptr;
    if (found != nullptr && (build_id.empty() || found->build_id().empty() || found->build_id() == build_id))
        return found;
    if (found != nullptr)
        refuse(path, fmt::format("its build-id is {}, not {} as was asked for", found->build_id(), build_id));
    return open_build_id(path, build_id, kind);
}

} // namespace korva::program
