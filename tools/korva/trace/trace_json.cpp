// SPDX-License-Identifier: Apache-2.0
#include "trace/trace_json.h"

#include "text_input.h"

#include <array>
#include <charconv>
#include <climits>
#include <cstring>
#include <utility>
#include <variant>

namespace korva::program
{

namespace
{

/** What stands for an owner, and for all but the lists of a trace, in a record. */
struct owner_fields {
    std::string process = {};
    int tid = 0;
    std::string name = {};
    uint64_t count = 0;
};
struct record_fields {
    uint64_t v = 0;
    std::string status = {};
    uint64_t count = 0;
    std::string end = {};
};

/** A field of a record and where its value is kept; std::monostate: it is an object or a list. */
template <typename T>
struct field {
    std::string_view name;
    std::variant<std::monostate, std::string T::*, bool T::*, int T::*, uint32_t T::*, uint64_t T::*,
                 std::optional<uint64_t> T::*>
        member = {};
};

constexpr std::array<field<trace_frame>, 9> FRAME = {{{"function", &trace_frame::function},
                                                      {"file", &trace_frame::file},
                                                      {"line", &trace_frame::line},
                                                      {"column", &trace_frame::column},
                                                      {"inlined", &trace_frame::is_inlined},
                                                      {"signal_frame", &trace_frame::is_signal_frame},
                                                      {"module", &trace_frame::module},
                                                      {"build_id", &trace_frame::build_id},
                                                      {"address", &trace_frame::address}}};
constexpr std::array<field<owner_fields>, 4> OWNER = {{{"process", &owner_fields::process},
                                                       {"tid", &owner_fields::tid},
                                                       {"name", &owner_fields::name},
                                                       {"count", &owner_fields::count}}};
constexpr std::array<field<record_fields>, 7> RECORD = {{{"v", &record_fields::v},
                                                         {"status", &record_fields::status},
                                                         {"error"},
                                                         {"count", &record_fields::count},
                                                         {"frames"},
                                                         {"end", &record_fields::end},
                                                         {"owners"}}};
constexpr unsigned int HAS_FRAMES = 1U << 4; // of the fields of RECORD
static_assert(RECORD[4].name == "frames");
constexpr std::array<field<record_fields>, 5> FAILURE = {{{"code"}, {"section"}, {"offset"}, {"unit"}, {"messages"}}};

// How values are written.

void append_value(std::string *line, const std::string &text)
{
    if (text.empty())
        line->append("null");
    else
        append_json(line, text);
}

void append_value(std::string *line, bool flag)
{
    line->append(flag ? "true" : "false");
}

void append_value(std::string *line, uint32_t number)
{
    if (number == 0)
        line->append("null");
    else
        append_decimal(line, number);
}

void append_value(std::string *line, std::optional<uint64_t> address)
{
    if (!address) {
        line->append("null");
        return;
    }
    *line += '"';
    append_hex(line, *address, 1);
    *line += '"';
}

// Numbers beyond 2^53 are texts, as in every record.
void append_count(std::string *line, uint64_t count)
{
    const char *quote = count > uint64_t{1} << 53 ? "\"" : "";
    line->append(quote);
    append_decimal(line, count);
    line->append(quote);
}

void append_frame(std::string *line, const trace_frame &f)
{
    char before = '{';
    for (const field<trace_frame> &each : FRAME) {
        *line += std::exchange(before, ',');
        line->append("\"").append(each.name).append("\":");
        std::visit(
            [line, &f](auto member) {
                if constexpr (requires { append_value(line, f.*member); })
                    append_value(line, f.*member);
            },
            each.member);
    }
    *line += '}';
}

/** A value that is neither object nor list, as the parser gives it. */
struct scalar {
    enum kind { null, flag, number, text, other } is = null;
    uint64_t value = 0;             // of a number, or a flag
    std::string *text_is = nullptr; // may be taken
};

// How values are read; false: this is none.

bool take(std::string *into, const scalar &from)
{
    if (from.is == scalar::text)
        *into = std::move(*from.text_is);
    return from.is == scalar::text || from.is == scalar::null;
}

bool take(bool *into, const scalar &from)
{
    *into = from.value != 0;
    return from.is == scalar::flag;
}

bool take(uint64_t *into, const scalar &from)
{
    *into = from.value;
    if (from.is != scalar::text)
        return from.is == scalar::number;
    const char *const end = from.text_is->data() + from.text_is->size();
    const auto read = std::from_chars(from.text_is->data(), end, *into);
    return read.ec == std::errc() && read.ptr == end;
}

bool take(int *into, const scalar &from)
{
    *into = static_cast<int>(from.value);
    return from.is == scalar::number && from.value <= INT_MAX;
}

bool take(uint32_t *into, const scalar &from)
{
    *into = static_cast<uint32_t>(from.value);
    return from.is == scalar::null || (from.is == scalar::number && from.value <= UINT32_MAX);
}

bool take(std::optional<uint64_t> *into, const scalar &from)
{
    if (from.is == scalar::text && from.text_is->starts_with("0x"))
        *into = parse_hex(*from.text_is);
    return from.is == scalar::null || into->has_value();
}

/**
 * Takes a trace from what the parser meets: nothing is kept of a line but its trace. Fields that are not known are passed
 * over, of the known ones each has to be there, once: so a line can make no more frames than it has room for.
 */
class trace_reader final : public nlohmann::json_sax<nlohmann::json>
{
public:
    bool null() override { return meet({}); }
    bool boolean(bool value) override { return meet({scalar::flag, value ? 1U : 0U}); }
    bool number_integer(number_integer_t) override { return meet({scalar::other}); } // a negative one
    bool number_unsigned(number_unsigned_t value) override { return meet({scalar::number, value}); }
    bool number_float(number_float_t, const string_t &) override { return meet({scalar::other}); }
    bool string(string_t &value) override { return meet({scalar::text, 0, &value}); }
    bool binary(binary_t &) override { return false; }
    bool start_object(size_t) override { return open(true); }
    bool key(string_t &name) override;
    bool end_object() override { return close(); }
    bool start_array(size_t) override { return open(false); }
    bool end_array() override { return close(); }
    bool parse_error(size_t position, const std::string &, const nlohmann::detail::exception &) override
    {
        return fail(fmt::format("no JSON at column {}", position));
    }

    /** What was read, once the parser came to the end. */
    std::optional<trace> finish();
    const std::string &fault() const { return m_fault; }

private:
    enum class place { outside, record, error, messages, frames, frame, owners, owner, unknown };

    bool fail(const std::string &what);
    bool meet(scalar value);
    bool open(bool is_object);
    place inside(bool is_object);
    bool close();
    bool finish_owner();
    template <typename T, size_t N>
    bool choose(const std::array<field<T>, N> &fields, std::string_view name);
    template <typename T, size_t N>
    bool keep(const std::array<field<T>, N> &fields, T *in, const scalar &value);
    template <typename T, size_t N>
    bool have_all(const std::array<field<T>, N> &fields, const char *of, unsigned int seen);

    static constexpr size_t DEEPEST = 64; // objects and lists
    static constexpr size_t NO_FIELD = SIZE_MAX;

    trace m_trace;
    record_fields m_record;
    owner_fields m_owner;
    std::vector<place> m_places = {place::outside};
    size_t m_field = NO_FIELD;         // of the object that is being read; unknown ones are none
    std::string m_name;                // of an unknown one too
    unsigned int m_seen = 0;           // fields of that object
    unsigned int m_seen_of_record = 0; // likewise, while its lists are read
    std::string m_fault;
};

bool trace_reader::fail(const std::string &what)
{
    if (m_fault.empty())
        m_fault = what;
    return false;
}

template <typename T, size_t N>
bool trace_reader::choose(const std::array<field<T>, N> &fields, std::string_view name)
{
    for (size_t i = 0; i < N; ++i) {
        if (fields[i].name != name)
            continue;
        if ((m_seen >> i & 1) != 0)
            return fail(fmt::format("\"{}\" is there twice", name));
        m_seen |= 1U << i;
        m_field = i;
        return true;
    }
    m_field = NO_FIELD;
    return true;
}

bool trace_reader::key(string_t &name)
{
    m_name = name;
    switch (m_places.back()) {
    case place::record:
        return choose(RECORD, name);
    case place::error:
        return choose(FAILURE, name);
    case place::frame:
        return choose(FRAME, name);
    case place::owner:
        return choose(OWNER, name);
    default:
        return true;
    }
}

template <typename T, size_t N>
bool trace_reader::keep(const std::array<field<T>, N> &fields, T *in, const scalar &value)
{
    if (m_field == NO_FIELD)
        return true;
    const bool is_right = std::visit(
        [in, &value](auto member) {
            if constexpr (std::is_same_v<decltype(member), std::monostate>)
                return value.is == scalar::null;
            else
                return take(&(in->*member), value);
        },
        fields[m_field].member);
    return is_right || fail(fmt::format("\"{}\" has a value of a wrong kind or size", m_name));
}

bool trace_reader::meet(scalar value)
{
    switch (m_places.back()) {
    case place::record:
        if (m_name == "frames" || m_name == "owners")
            return fail(fmt::format("\"{}\" is no list", m_name));
        return keep(RECORD, &m_record, value);
    case place::frame:
        return keep(FRAME, &m_trace.frames.back(), value);
    case place::owner:
        return keep(OWNER, &m_owner, value);
    case place::messages:
        if (value.is != scalar::text)
            return fail("a message is no text");
        m_trace.message += (m_trace.message.empty() ? "" : "; ") + *value.text_is;
        return true;
    case place::outside:
    case place::frames:
    case place::owners:
        return fail("a record, a frame or an owner is no object");
    default: // code, section, offset and unit of an error, and what is not known
        return true;
    }
}

trace_reader::place trace_reader::inside(bool is_object)
{
    const bool is_list = !is_object;
    switch (m_places.back()) {
    case place::outside:
        return is_object ? place::record : place::outside;
    case place::record:
        return m_field == NO_FIELD              ? place::unknown
               : is_object && m_name == "error" ? place::error
               : is_list && m_name == "frames"  ? place::frames
               : is_list && m_name == "owners"  ? place::owners
                                                : place::outside;
    case place::error:
        return m_field == NO_FIELD               ? place::unknown
               : is_list && m_name == "messages" ? place::messages
                                                 : place::outside;
    case place::frames:
        return is_object ? place::frame : place::outside;
    case place::owners:
        return is_object ? place::owner : place::outside;
    case place::frame:
    case place::owner:
        return m_field == NO_FIELD ? place::unknown : place::outside;
    case place::messages:
        return place::outside;
    default:
        return place::unknown;
    }
}

// outside stands for what is not to be there.
bool trace_reader::open(bool is_object)
{
    const place next = inside(is_object);
    if (next == place::outside)
        return fail(m_places.size() == 1 ? "a record is no object"
                                         : fmt::format("\"{}\" has a value of a wrong kind or size", m_name));
    if (m_places.size() > DEEPEST)
        return fail(fmt::format("nested more than {} deep", DEEPEST));
    if (m_places.back() == place::record)
        m_seen_of_record = m_seen;
    if (next != place::unknown)
        m_seen = 0;
    if (next == place::frame)
        m_trace.frames.emplace_back();
    if (next == place::owner)
        m_owner = {};
    m_places.push_back(next);
    return true;
}

template <typename T, size_t N>
bool trace_reader::have_all(const std::array<field<T>, N> &fields, const char *of, unsigned int seen)
{
    for (size_t i = 0; i < N; ++i)
        if ((seen >> i & 1) == 0)
            return fail(fmt::format("no \"{}\" in {}", fields[i].name, of));
    return true;
}

bool trace_reader::finish_owner()
{
    if (!have_all(OWNER, "an owner", m_seen))
        return false;
    if (m_owner.count == 0)
        return fail("an owner's \"count\" is 0");
    uint64_t &sum = m_trace.owners[{std::move(m_owner.process), m_owner.tid, std::move(m_owner.name)}];
    sum = saturating_sum(sum, m_owner.count);
    return true;
}

bool trace_reader::close()
{
    const place left = m_places.back();
    m_places.pop_back();
    if ((left == place::frame && !have_all(FRAME, "a frame", m_seen)) || (left == place::owner && !finish_owner()))
        return false;
    if (m_places.back() == place::record)
        m_seen = m_seen_of_record;
    return true;
}

std::optional<trace> trace_reader::finish()
{
    static constexpr record_status STATUSES[] = {record_status::ok, record_status::not_found, record_status::error,
                                                 record_status::limit};
    if (!m_fault.empty())
        return {};
    const record_status *status = nullptr;
    for (const record_status &each : STATUSES)
        if (name_of(each) == m_record.status)
            status = &each;
    if (m_record.v != 1)
        fail("\"v\" is not 1: no record of this program, or of a newer one");
    else if (status == nullptr)
        fail("\"status\" is none that a record has");
    else if (*status != record_status::ok && (m_seen & HAS_FRAMES) == 0)
        fail("the run that wrote it failed: " + m_trace.message);
    else if (have_all(RECORD, "the record", m_seen) && m_record.count != m_trace.count())
        fail("\"count\" is not the sum of the owners' counts");
    else if (m_trace.owners.empty())
        fail("nobody had the trace: \"owners\" is empty");
    if (!m_fault.empty())
        return {};
    m_trace.status = *status;
    m_trace.end = std::move(m_record.end);
    return std::move(m_trace);
}

} // namespace

void append_trace(std::string *line, const trace &t)
{
    const record_error why = {.messages = {t.message}};
    *line += '{';
    append_record_head(line, t.status, t.status == record_status::ok ? nullptr : &why);
    line->append(",\"count\":");
    append_count(line, t.count());
    line->append(",\"frames\":");
    char before = '[';
    for (const trace_frame &f : t.frames) {
        *line += std::exchange(before, ',');
        append_frame(line, f);
    }
    line->append(t.frames.empty() ? "[]" : "]").append(",\"end\":");
    append_value(line, t.end);
    line->append(",\"owners\":");
    before = '[';
    for (const auto &[owner, count] : t.owners) {
        *line += std::exchange(before, ',');
        line->append("{\"process\":");
        append_json(line, owner.process);
        line->append(",\"tid\":");
        append_decimal(line, static_cast<uint64_t>(owner.tid));
        line->append(",\"name\":");
        append_json(line, owner.name);
        line->append(",\"count\":");
        append_count(line, count);
        *line += '}';
    }
    line->append(t.owners.empty() ? "[]}" : "]}");
}

std::optional<trace> read_trace(std::string_view line, std::string *fault)
{
    trace_reader reader;
    nlohmann::json::sax_parse(line.begin(), line.end(), &reader);
    auto read = reader.finish();
    *fault = reader.fault();
    return read;
}

void write_records(answers *out, const trace_set &traces)
{
    std::string line;
    for (const trace *each : traces.sorted()) {
        line.clear();
        append_trace(&line, *each);
        out->record_text(line);
    }
}

void read_traces(const std::string &path, trace_set *into, tally *done)
{
    constexpr size_t LINES_TOLD = 10; // of a file
    const text_input input(path);
    line_reader lines(input.fd());
    size_t number = 0, damaged = 0;
    while (const auto line = lines.next([] {})) {
        ++number;
        if (trim(*line).empty())
            continue;
        std::string fault;
        std::optional<trace> read = read_trace(*line, &fault);
        done->add(read.has_value());
        if (read)
            into->add(std::move(*read));
        else if (++damaged <= LINES_TOLD)
            diagnose(fmt::format("{}: line {}: {}", input.name(), number, fault));
    }
    if (damaged > LINES_TOLD)
        diagnose(fmt::format("{}: {} further lines are no traces", input.name(), damaged - LINES_TOLD));
    if (lines.error() != 0)
        throw failure(fmt::format("{}: {}", input.name(), std::strerror(lines.error())),
                      {.code = "KRV_ELF_ERR_SYSTEM"});
}

} // namespace korva::program
