// SPDX-License-Identifier: Apache-2.0
#include "addr/files.h"

#include "addr/fields.h"
#include "addr/in_order.h"
#include "json_line.h"
#include "module_cache.h"
#include "text_input.h"

#include <optional>
#include <unordered_map>
#include <vector>

namespace korva::program
{

namespace
{

/** A line of the input. */
struct file_question {
    std::string id;    // JSON
    std::string input; // the address as it was written
    size_t module = 0; // number of what was asked for
    uint64_t address = 0;
    std::string problem{}; // why it cannot be asked; empty when it can
};

/** A file as questions name it. Either may be empty. */
struct file_name {
    std::string path, build_id;
};

class files_run
{
public:
    files_run(const common_options &options, const file_questions &asked)
        : m_asked(asked), m_cache(asked.most_open, options.flags(), options.search, for_each_alone(options.bounds)),
          m_out(options.format)
    {
    }

    int run();

private:
    void ask(std::string_view line);
    void answer_waiting();
    std::string read_question(file_question *q);
    size_t number_of(const std::string &path, const std::string &build_id);
    bool open(size_t module);
    const std::string &make(const file_question &q);
    void tell(const std::string &problem);

    const file_questions &m_asked;
    module_cache m_cache;
    answers m_out;
    tally m_done;
    json_line m_parsed;
    uint64_t m_line_number = 0;
    size_t m_told = 0;

    std::vector<file_question> m_waiting;
    size_t m_waiting_bytes = 0;
    std::vector<file_name> m_names; // of these
    std::unordered_map<std::string, size_t> m_numbers;

    std::optional<size_t> m_open; // the number of the module that is asked
    opened_module *m_module = nullptr;
    std::optional<record_error> m_refusal; // why there is none
    std::optional<address_fields> m_fields;
    std::string m_line; // that is being made
    ordered_answers m_ordered;
};

} // namespace

size_t files_run::number_of(const std::string &path, const std::string &build_id)
{
    std::string key = path;
    key += '\0';
    key += build_id;
    const auto [at, fresh] = m_numbers.try_emplace(std::move(key), m_names.size());
    if (fresh)
        m_names.push_back({path, build_id});
    return at->second;
}

static std::string to_lower(std::string text)
{
    for (char &c : text)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return text;
}

// Returns what is wrong with it, or "".
std::string files_run::read_question(file_question *q)
{
    const json_line::member *const module = m_parsed.find("module"), *const id = m_parsed.find("build_id"),
                                   *const address = m_parsed.find("addr");
    if (address == nullptr)
        return "no addr: a number, or a string of hexadecimal digits";
    q->input = address->text;
    const auto value = address->is_text ? parse_hex(address->text) : address->number;
    if (!value)
        return fmt::format("addr {} is no address", address->text);
    q->address = *value;
    const std::string build_id = id == nullptr ? "" : to_lower(id->text);
    if ((module == nullptr || !module->is_text || module->text.empty()) && id == nullptr)
        return "neither module nor build_id: a path, or a string of hexadecimal digits";
    if (id != nullptr && !is_build_id(build_id))
        return fmt::format("build_id {} is none", id->text);
    q->module = number_of(module == nullptr || !module->is_text ? "" : module->text, build_id);
    return "";
}

void files_run::tell(const std::string &problem)
{
    constexpr size_t MOST_TOLD = 100;
    if (m_told <= MOST_TOLD)
        diagnose(m_told < MOST_TOLD ? fmt::format("line {}: {}", m_line_number, problem)
                                    : "further lines that are no questions are not named");
    ++m_told;
}

// A blank line is no question.
void files_run::ask(std::string_view line)
{
    constexpr size_t MOST_WAITING = 8192, MOST_WAITING_BYTES = size_t{8} << 20;
    ++m_line_number;
    if (trim(line).empty())
        return;
    file_question q;
    q.problem = m_parsed.read(line) ? read_question(&q) : m_parsed.problem();
    q.id = m_parsed.id();
    if (!q.problem.empty())
        tell(q.problem);
    m_waiting.push_back(std::move(q));
    m_waiting_bytes += line.size();
    if (m_waiting.size() >= MOST_WAITING || m_waiting_bytes >= MOST_WAITING_BYTES)
        answer_waiting();
}

// False: it is not to be had.
bool files_run::open(size_t module)
{
    if (m_open == module)
        return m_module != nullptr;
    m_fields.reset();
    m_open = module;
    m_module = m_cache.find(m_names[module].path, m_names[module].build_id);
    m_refusal = m_cache.take_refusal();
    if (m_module == nullptr)
        return false;
    m_refusal.reset();
    m_fields.emplace(m_module->file(), m_asked.basenames);
    return true;
}

const std::string &files_run::make(const file_question &q)
{
    record_error problem;
    const record_error *why = nullptr;
    answer a;
    const bool is_open = q.problem.empty() && open(q.module);
    if (!q.problem.empty()) {
        problem = {.code = "KRV_ERR_INVALID", .messages = {q.problem}};
        why = &problem;
    } else if (is_open) {
        a = m_module->frames(q.address, m_asked.names, m_asked.most_frames);
        why = m_module->refusal();
    } else {
        why = m_refusal ? &*m_refusal : nullptr;
    }
    count(a, &m_done);

    m_line = "{";
    append_record_head(&m_line, a.empty() && why == nullptr ? record_status::not_found : status_of(why), why);
    m_line += ",\"id\":";
    m_line += q.id;
    if (!q.problem.empty())
        return m_line += '}';
    append_text(&m_line, ",\"input\":", q.input);
    append_text(&m_line, ",\"module\":", is_open ? std::optional<std::string_view>(m_module->path()) : std::nullopt);
    if (is_open)
        m_fields->append(&m_line, q.address, a);
    return m_line += '}';
}

void files_run::answer_waiting()
{
    m_open.reset(); // the numbers are others
    m_ordered.answer(
        m_waiting.size(),
        [this](uint32_t a, uint32_t b) {
            const file_question &one = m_waiting[a], &other = m_waiting[b];
            return one.module != other.module ? one.module < other.module : one.address < other.address;
        },
        [this](uint32_t number) -> const std::string & { return make(m_waiting[number]); },
        [this](std::string_view text) { m_out.record_text(text); });
    m_waiting.clear();
    m_waiting_bytes = 0;
    m_names.clear();
    m_numbers.clear();
}

int files_run::run()
{
    each_line(
        m_asked.input, &m_out, &m_done, [this](std::string_view line) { ask(line); },
        [this] {
            answer_waiting();
            m_out.flush();
        });
    m_out.finish();
    return m_done.status();
}

int answer_files(const common_options &options, const file_questions &asked)
{
    return files_run(options, asked).run();
}

} // namespace korva::program
