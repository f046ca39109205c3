// SPDX-License-Identifier: Apache-2.0
#include "filter/log_maps.h"

#include "filter/log_scan.h"
#include "input.h"

#include <iterator>

namespace korva::program
{

namespace
{

constexpr size_t MOST_MAPPINGS = 65536;

/** Takes what texts are made of from their beginning. */
class text_reader
{
public:
    explicit text_reader(std::string_view text) : m_text(text) {}

    bool take(std::string_view what)
    {
        if (!m_text.starts_with(what))
            return false;
        m_text.remove_prefix(what.size());
        return true;
    }
    bool take_blanks()
    {
        const size_t blanks = std::min(m_text.size(), m_text.find_first_not_of(" \t"));
        m_text.remove_prefix(blanks);
        return blanks != 0;
    }
    bool take_hex(uint64_t *number)
    {
        const size_t digits = read_hex(m_text, number);
        m_text.remove_prefix(digits);
        return digits != 0;
    }
    bool take_word()
    {
        const size_t size = std::min(m_text.size(), m_text.find_first_of(" \t"));
        m_text.remove_prefix(size);
        return size != 0;
    }
    std::string_view rest() const { return m_text; }

private:
    std::string_view m_text;
};

std::optional<log_mapping> with_path(log_mapping m, std::string_view path)
{
    m.path = trim(path);
    if (m.start >= m.end || !m.path.starts_with('/'))
        return {};
    return m;
}

// "55f000-55f100 r-xp 00001000 08:01 1234   /path".
std::optional<log_mapping> read_proc_mapping(std::string_view line, size_t permissions)
{
    log_mapping m;
    const size_t begin = line.substr(0, permissions).find_last_of(" \t|") + 1; // npos + 1 is 0
    text_reader range(line.substr(begin, permissions - begin));
    text_reader rest(line.substr(permissions + 6));
    if (!range.take_hex(&m.start) || !range.take("-") || !range.take_hex(&m.end) || !range.rest().empty() ||
        !rest.take_hex(&m.offset) || !rest.take_blanks() || !rest.take_word() || !rest.take_blanks() ||
        !rest.take_word() || !rest.take_blanks())
        return {};
    return with_path(std::move(m), rest.rest());
}

// "0x55f000  0x55f100  0x1000  0x1000  r-xp  /path": start, end, size, offset.
std::optional<log_mapping> read_gdb_mapping(std::string_view line, size_t permissions)
{
    log_mapping m;
    text_reader head(line.substr(0, permissions));
    head.take_blanks();
    uint64_t size = 0;
    if (!head.take("0x") || !head.take_hex(&m.start) || !head.take_blanks() || !head.take("0x") ||
        !head.take_hex(&m.end) || !head.take_blanks() || !head.take("0x") || !head.take_hex(&size) ||
        !head.take_blanks() || !head.take("0x") || !head.take_hex(&m.offset))
        return {};
    return with_path(std::move(m), line.substr(permissions + 6));
}

// "PERF_RECORD_MMAP2 7/7: [0x55f000(0x1000) @ 0x1000 08:01 1234 0]: r-xp /path", with a build-id "@ 0x1000 <0123>]".
std::optional<log_mapping> read_perf_mapping(std::string_view line, size_t event)
{
    log_mapping m;
    m.is_event = true;
    const size_t open = line.find("[0x", event), close = line.find("]: ", event);
    if (open == std::string_view::npos || close == std::string_view::npos)
        return {};
    text_reader inner(line.substr(open + 3));
    uint64_t size = 0;
    if (!inner.take_hex(&m.start) || !inner.take("(0x") || !inner.take_hex(&size) || !inner.take(") @ ") ||
        !(inner.take("0x"), inner.take_hex(&m.offset)))
        return {};
    m.end = size > UINT64_MAX - m.start ? UINT64_MAX : m.start + size;
    if (inner.take(" <"))
        m.build_id = inner.rest().substr(0, inner.rest().find('>'));
    text_reader behind(line.substr(close + 3));
    behind.take_word();
    return with_path(std::move(m), behind.rest());
}

std::optional<uint64_t> number_of(const json_value &record, const char *key)
{
    const auto found = record.find(key);
    if (found == record.end() || found->is_null())
        return {};
    if (found->is_number_unsigned())
        return found->get<uint64_t>();
    const auto number = found->is_string() ? parse_hex(found->get_ref<const std::string &>()) : std::nullopt;
    if (!number || !found->get_ref<const std::string &>().starts_with("0x"))
        throw failure(fmt::format("\"{}\" is no number and no \"0x...\"", key));
    return number;
}

std::string text_of(const json_value &record, const char *key)
{
    const auto found = record.find(key);
    if (found == record.end() || found->is_null())
        return {};
    if (!found->is_string())
        throw failure(fmt::format("\"{}\" is no text", key));
    return found->get<std::string>();
}

} // namespace

std::optional<log_mapping> read_mapping(std::string_view line)
{
    if (const size_t event = line.find("PERF_RECORD_MMAP"); event != std::string_view::npos)
        return read_perf_mapping(line, event);
    const size_t permissions = line.find(" r-xp ");
    if (permissions == std::string_view::npos)
        return {};
    const auto found = read_proc_mapping(line, permissions);
    return found ? found : read_gdb_mapping(line, permissions);
}

log_mapping read_module_record(const std::string &line)
{
    const json_value record = json_value::parse(line, nullptr, false);
    if (!record.is_object())
        throw failure("is no JSON object");
    log_mapping m;
    m.path = text_of(record, "path");
    m.build_id = text_of(record, "build_id");
    m.bias = number_of(record, "bias");
    m.offset = number_of(record, "offset").value_or(0);
    const auto start = number_of(record, "start"), size = number_of(record, "size");
    if (m.path.empty() && m.build_id.empty())
        throw failure("has no \"path\" and no \"build_id\"");
    if (!start || !size || *size == 0)
        throw failure("has no \"start\" or no \"size\"");
    m.start = *start;
    m.end = *size > UINT64_MAX - *start ? UINT64_MAX : *start + *size;
    m.is_event = true; // in any order
    return m;
}

std::optional<log_build_id> read_build_id(std::string_view line)
{
    constexpr std::string_view MODULE = "Module ", WITH = "with build-id ";
    const size_t with = line.find(WITH);
    const size_t module = with == std::string_view::npos ? with : line.substr(0, with).rfind(MODULE);
    if (module == std::string_view::npos)
        return {};
    const std::string_view name = trim(line.substr(module + MODULE.size(), with - module - MODULE.size()));
    const std::string_view id = line.substr(with + WITH.size());
    return log_build_id{name, id.substr(0, id.find_first_not_of("0123456789abcdef"))};
}

std::string_view name_of(std::string_view path)
{
    return path.substr(path.rfind('/') + 1); // npos + 1 is 0
}

void log_maps::forget_mappings()
{
    m_all.clear();
    m_starts.clear();
    m_last = 0;
}

void log_maps::clear()
{
    forget_mappings();
    m_build_ids.clear();
}

void log_maps::add(const log_build_id &module)
{
    if (m_build_ids.size() >= MOST_MAPPINGS)
        m_build_ids.clear();
    m_build_ids.insert_or_assign(std::string(name_of(module.module)), module.build_id);
}

std::string_view log_maps::find_build_id(std::string_view name) const
{
    const auto found = m_build_ids.find(name);
    return found == m_build_ids.end() ? std::string_view() : std::string_view(found->second);
}

void log_maps::add(log_mapping mapping)
{
    if (m_starts.size() >= MOST_MAPPINGS || m_all.size() >= MOST_MAPPINGS ||
        (!mapping.is_event && mapping.start <= m_last))
        forget_mappings();
    if (!mapping.is_event)
        m_last = mapping.start;
    auto first = m_all.lower_bound(mapping.start);
    if (first != m_all.begin() && std::prev(first)->second.end > mapping.start)
        --first;
    auto last = first;
    while (last != m_all.end() && last->first < mapping.end)
        ++last;
    m_all.erase(first, last);
    m_starts.insert_or_assign(std::string(name_of(mapping.path)), mapping.start);
    const uint64_t start = mapping.start;
    m_all.emplace(start, std::move(mapping));
}

const log_mapping *log_maps::find(uint64_t address) const
{
    auto next = m_all.upper_bound(address);
    if (next == m_all.begin() || address >= (--next)->second.end)
        return nullptr;
    return &next->second;
}

const log_mapping *log_maps::find(std::string_view name) const
{
    const auto start = m_starts.find(name);
    const auto found = start == m_starts.end() ? m_all.end() : m_all.find(start->second);
    return found == m_all.end() || name_of(found->second.path) != name ? nullptr : &found->second;
}

} // namespace korva::program
