// SPDX-License-Identifier: Apache-2.0
#include "json_line.h"

#include "text_input.h"

#include <cstring>

namespace korva::program
{

// Takes what the parser meets. Nothing is kept of a nested value but where it begins and ends, or, of the id, its text: how deep
// it is does not matter.
class json_line::reader
{
public:
    explicit reader(json_line *line) : m_line(*line) {}

    bool null() { return scalar("null"); }
    bool boolean(bool value) { return scalar(value ? "true" : "false"); }
    bool number_integer(int64_t value) { return number(std::to_string(value), std::nullopt); }
    bool number_unsigned(uint64_t value) { return number(std::to_string(value), value); }
    bool number_float(double, const std::string &text) { return number(text, std::nullopt); }
    bool string(std::string &text)
    {
        if (m_depth == 0)
            return refuse();
        if (is_member())
            m_line.m_members[m_name] = {text, text.starts_with("0x") ? parse_hex(text) : std::nullopt, true};
        if (m_is_id) {
            separate();
            append_json(&m_line.m_id, text);
        }
        return true;
    }
    static bool binary(nlohmann::json::binary_t &) { return false; } // not of text
    bool key(std::string &name)
    {
        if (m_depth == 1) {
            m_name = name;
            m_is_id = name == "id";
            m_is_first = true;
            m_line.m_members.erase(name);
            if (m_is_id)
                m_line.m_id.clear();
        } else if (m_is_id) {
            separate();
            append_json(&m_line.m_id, name);
            m_line.m_id += ':';
            m_is_first = true;
        }
        return true;
    }
    bool start_object(size_t) { return open('{'); }
    bool start_array(size_t) { return open('['); }
    bool end_object() { return close('}'); }
    bool end_array() { return close(']'); }
    bool parse_error(size_t, const std::string &, const nlohmann::json::exception &why)
    {
        const std::string_view text(why.what());
        m_line.m_problem = fmt::format("no JSON: {}", text.substr(text.find("] ") + 2)); // behind the error's number
        return false;
    }

private:
    bool is_member() const { return m_depth == 1; }

    bool scalar(const char *text)
    {
        if (m_depth == 0)
            return refuse();
        if (m_is_id) {
            separate();
            m_line.m_id += text;
        }
        return true;
    }

    bool number(const std::string &text, std::optional<uint64_t> value)
    {
        if (is_member())
            m_line.m_members[m_name] = {text, value, false};
        return scalar(text.c_str());
    }

    bool open(char bracket)
    {
        if (m_depth == 0 && bracket != '{')
            return refuse();
        ++m_depth;
        if (m_is_id) {
            separate();
            m_line.m_id += bracket;
            m_is_first = true;
        }
        return true;
    }

    bool close(char bracket)
    {
        m_is_id = m_is_id && m_depth > 1;
        if (m_is_id)
            m_line.m_id += bracket;
        m_is_first = false;
        --m_depth;
        return true;
    }

    void separate()
    {
        if (!m_is_first)
            m_line.m_id += ',';
        m_is_first = false;
    }

    bool refuse()
    {
        m_line.m_problem = "no JSON object";
        return false;
    }

    json_line &m_line;
    std::string m_name; // of the member
    size_t m_depth = 0;
    bool m_is_id = false;    // it is the id
    bool m_is_first = false; // nothing stands before the next value of the object or list
};

bool json_line::read(std::string_view line)
{
    m_id = "null";
    m_problem.clear();
    m_members.clear();
    reader taker(this);
    if (nlohmann::json::sax_parse(line, &taker))
        return true;
    m_id = "null";
    m_members.clear();
    if (m_problem.empty())
        m_problem = "no JSON object";
    return false;
}

const json_line::member *json_line::find(const std::string &name) const
{
    const auto at = m_members.find(name);
    return at == m_members.end() ? nullptr : &at->second;
}

void each_line(const std::string &path, answers *out, tally *done, const std::function<void(std::string_view)> &line,
               const std::function<void()> &before_waiting)
{
    const text_input input(path.empty() ? "-" : path);
    line_reader lines(input.fd());
    while (const auto next = lines.next([&] {
        if (!lines.is_ready())
            before_waiting();
    }))
        line(*next);
    before_waiting();
    if (lines.error() == 0)
        return;
    const record_error why = {.code = "KRV_ELF_ERR_SYSTEM",
                              .messages = {fmt::format("{}: {}", input.name(), std::strerror(lines.error()))}};
    done->missed();
    out->record_failure(why);
    diagnose(why.messages[0]);
}

} // namespace korva::program
