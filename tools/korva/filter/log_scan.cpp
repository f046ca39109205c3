// SPDX-License-Identifier: Apache-2.0
#include "filter/log_scan.h"

#include <algorithm>
#include <optional>

namespace korva::program
{

namespace
{

constexpr size_t NPOS = std::string_view::npos;
constexpr size_t MOST_ADDRESSES = 64; // of a line
constexpr size_t MOST_NUMBERS = 256;  // likewise, that are looked at
constexpr size_t MOST_BEFORE = 4096;  // bytes before a number that are: a path may have so many

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_word(char c)
{
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

std::string_view without_blanks_behind(std::string_view text)
{
    while (!text.empty() && is_blank(text.back()))
        text.remove_suffix(1);
    return text;
}

std::string_view without_blanks_before(std::string_view text)
{
    text.remove_prefix(std::min(text.size(), text.find_first_not_of(" \t")));
    return text;
}

/** What stands before the first @p end in @p text, if that is there. */
std::optional<std::string_view> up_to(std::string_view text, std::string_view end)
{
    const size_t at = text.find(end);
    return at == NPOS ? std::nullopt : std::optional(text.substr(0, at));
}

std::string_view tail_of(std::string_view text, size_t most)
{
    return text.substr(text.size() - std::min(text.size(), most));
}

/** Whether it ends as a place does: x.c:5, x.c:5:3, "(x.c:5)". */
bool ends_with_place(std::string_view text)
{
    text = without_blanks_behind(text);
    if (text.ends_with(')'))
        text.remove_suffix(1);
    const size_t digits = text.find_last_not_of("0123456789");
    return digits != NPOS && digits + 1 < text.size() && digits > 0 && text[digits] == ':' &&
           !is_blank(text[digits - 1]);
}

/** Go writes the place, blank, +0x and the offset in the function. */
bool is_line_of_go(std::string_view text, size_t plus)
{
    return plus >= 2 && text[plus - 1] == ' ' && ends_with_place(text.substr(0, plus - 1));
}

/** The path that ends there. It may have blanks where it begins the line. */
std::string_view path_before(std::string_view line, size_t end)
{
    std::string_view path = tail_of(line.substr(0, end), MOST_BEFORE);
    if (path.starts_with('/') || path.starts_with("./") || path.starts_with("../"))
        return path;
    const size_t at = path.find_last_of(" \t\"'`,;|=");
    path.remove_prefix(at == NPOS ? 0 : at + 1);
    for (const std::string_view newline : {"\\n", "\\t"}) // of a text in JSON
        if (path.starts_with(newline))
            path.remove_prefix(2);
    return path;
}

/** The module of "(MODULE+0x10)" or "(MODULE + 0x10)", whose plus is there; a path may have blanks and parentheses. */
std::optional<std::string_view> module_in_parentheses(std::string_view line, size_t end)
{
    const std::string_view before = tail_of(line.substr(0, end), MOST_BEFORE);
    size_t open = before.rfind('(');
    if (open == NPOS)
        return {};
    const size_t path = before.rfind(" (/");
    if (path != NPOS && before.find(") ", path) == NPOS)
        open = path + 1;
    if (open != 0 && !is_blank(before[open - 1]))
        return {};
    return without_blanks_behind(before.substr(open + 1));
}

/** One number of a line, 0x and digits, and what stands around it. */
struct number_at {
    size_t begin, end;
    uint64_t value;
};

class line_scan
{
public:
    line_scan(const log_line &line, std::vector<log_address> *found)
        : m_line(line.text), m_previous(line.previous), m_triggers(line.triggers), m_found(*found)
    {
    }

    void run();

private:
    enum class outcome { none, found, known }; // known: the line has the place

    std::optional<number_at> next_number(size_t from) const;
    std::string_view text(size_t begin, size_t end) const { return m_line.substr(begin, end - begin); }
    bool has(size_t at, std::string_view what) const
    {
        return at <= m_line.size() && m_line.substr(at).starts_with(what);
    }
    char before(size_t at) const { return at == 0 ? ' ' : m_line[at - 1]; }
    /** The last such character before a place, in reach. */
    size_t find_before(size_t at, char c) const
    {
        const size_t from = at - std::min(at, MOST_BEFORE), found = text(from, at).rfind(c);
        return found == NPOS ? NPOS : from + found;
    }
    std::optional<size_t> frame_number() const;
    void add(log_address a) { m_found.push_back(a); }

    bool scan_fault();
    bool scan_perf();
    outcome scan_offset(const number_at &n);
    bool scan_module(const number_at &n, size_t plus);
    bool scan_kernel(const number_at &n, size_t plus);
    bool scan_backtrace(const number_at &n, size_t plus);
    bool scan_brackets(const number_at &n);
    void scan_old_kernel();
    void keep_frame();
    bool is_behind_signal() const;

    std::string_view m_line, m_previous;
    unsigned int m_triggers;
    std::vector<log_address> &m_found;
    size_t m_next = 0; // where to look on
    std::optional<number_at> m_first;
};

std::optional<number_at> line_scan::next_number(size_t from) const
{
    for (size_t at = from; (at = m_line.find("0x", at)) != NPOS; at += 2) {
        uint64_t value = 0;
        const size_t digits = read_hex(m_line.substr(at + 2), &value);
        const size_t end = at + 2 + digits;
        if (digits != 0 && !is_word(before(at)) && (end == m_line.size() || !is_word(m_line[end])))
            return number_at{at, end, value};
    }
    return {};
}

/** N of "#N  0x10": of the first number. */
std::optional<size_t> line_scan::frame_number() const
{
    const std::string_view head = tail_of(m_line.substr(0, m_first->begin), 32);
    const std::string_view prefix = without_blanks_behind(head);
    const size_t digits = prefix.find_last_not_of("0123456789");
    if (digits == NPOS || digits + 1 == prefix.size() || prefix[digits] != '#' || prefix.size() == head.size())
        return {};
    return prefix.find_first_not_of('0', digits + 1) == NPOS ? 0 : 1;
}

bool line_scan::is_behind_signal() const
{
    return m_previous.find("<signal handler called>") != NPOS;
}

// "prog[7]: segfault at 0 ip 000055f0 sp 00007ffd error 4 in prog[55f0000+1000]", since Linux 6.11 with the offset in the
// file: "in prog[139,55f0000+1000]".
bool line_scan::scan_fault()
{
    size_t at = m_line.find(" ip ");
    if (at == NPOS)
        at = m_line.find(" ip:");
    if (at == NPOS)
        return false;
    log_address a;
    const size_t digits = read_hex(m_line.substr(at + 4), &a.value);
    const size_t in = m_line.find(" in ", at);
    const size_t open = in == NPOS ? NPOS : m_line.find('[', in);
    if (digits == 0 || open == NPOS)
        return false;
    a.text = text(at + 4, at + 4 + digits);
    a.module = text(in + 4, open);
    const auto numbers = up_to(m_line.substr(open + 1), "]");
    uint64_t start = 0, offset = 0;
    std::string_view mapping = numbers.value_or("");
    if (const size_t comma = mapping.find(','); comma != NPOS) {
        if (read_hex(mapping, &offset) != comma)
            return false;
        a.of = log_address::kind::file_offset;
        mapping.remove_prefix(comma + 1);
    }
    const size_t plus = read_hex(mapping, &start);
    if (plus == 0 || plus == mapping.size() || mapping[plus] != '+')
        return false;
    mapping.remove_prefix(plus + 1);
    const size_t size = read_hex(mapping, &a.size);
    if (size == 0 || size != mapping.size() || a.value < start || a.value - start >= a.size)
        return false;
    if (a.of == log_address::kind::memory) {
        a.of = log_address::kind::mapping;
        a.value -= start;
    } else {
        a.value = offset;
    }
    add(a);
    return true;
}

bool is_line_of_perf(std::string_view line)
{
    if (line.empty() || !is_blank(line[0]) || !line.ends_with(')'))
        return false;
    line = without_blanks_before(line);
    uint64_t value = 0;
    const size_t digits = read_hex(line, &value);
    return digits != 0 && digits < line.size() && line[digits] == ' ' && line.find(" (") != NPOS;
}

// "	    1141 spin+0x18 (/path/prog)", "	    1141 [unknown] (/path/prog)": the number counts within the file or is that of the
// process. The first of several is where the processor was.
bool line_scan::scan_perf()
{
    if (!is_line_of_perf(m_line))
        return false;
    log_address a;
    const size_t begin = m_line.find_first_not_of(" \t");
    const size_t end = begin + read_hex(m_line.substr(begin), &a.value);
    const size_t path = m_line.find(" (/", end);
    const size_t open = path == NPOS ? m_line.rfind(" (") : path;
    const std::string_view name = open > end ? text(end + 1, open) : std::string_view();
    a.module = text(open + 2, m_line.size() - 1);
    a.text = text(begin, end);
    a.of = log_address::kind::file_offset;
    a.is_return = is_line_of_perf(m_previous);
    if (const size_t plus = a.module.rfind("+0x"); plus != NPOS) {
        read_hex(a.module.substr(plus + 3), &a.value);
        a.module = a.module.substr(0, plus);
    } else if (const size_t offset = name.rfind("+0x"); offset != NPOS) {
        a.of = log_address::kind::symbol;
        a.symbol = name.substr(0, offset);
        read_hex(name.substr(offset + 3), &a.value);
    } else if (name != "[unknown]") {
        return false;
    }
    add(a);
    return true;
}

// "prog(+0x10)[0x55f0]", "prog(main+0x10)[0x55f0]": glibc's backtrace_symbols.
bool line_scan::scan_backtrace(const number_at &n, size_t plus)
{
    if (!has(n.end, ")[0x") && !has(n.end, ") [0x"))
        return false;
    const size_t open = find_before(plus, '(');
    if (open == NPOS || open == 0 || is_blank(m_line[open - 1]))
        return false;
    log_address a;
    a.value = n.value;
    a.module = path_before(m_line, open);
    a.symbol = text(open + 1, plus);
    a.of = a.symbol.empty() ? log_address::kind::module : log_address::kind::symbol;
    a.is_return = true;
    a.text = text(static_cast<size_t>(a.module.data() - m_line.data()), n.end + 1);
    const auto behind = next_number(n.end);
    m_next = behind ? behind->end : n.end;
    if (a.module.empty())
        return false;
    add(a);
    return true;
}

// "? func+0x10/0x40 [module]", "RIP: 0010:func+0x10/0x40".
bool line_scan::scan_kernel(const number_at &n, size_t plus)
{
    if (!has(n.end, "/0x"))
        return false;
    const auto size = next_number(n.end);
    const std::string_view name = tail_of(m_line.substr(0, plus), MOST_BEFORE);
    const size_t begin = plus - name.size() + (name.find_last_of(" \t:(") + 1); // npos + 1 is 0
    if (!size || begin == plus)
        return false;
    log_address a;
    a.of = log_address::kind::symbol;
    a.value = n.value;
    a.size = size->value;
    a.symbol = text(begin, plus);
    a.text = text(begin, size->end);
    const std::string_view head = tail_of(m_line.substr(0, begin), 32);
    a.is_return = head.find("IP:") == NPOS && head.find("pc : ") == NPOS && head.find("IP is at") == NPOS;
    if (has(size->end, " ["))
        if (const auto inner = up_to(m_line.substr(size->end + 2), "]")) {
            a.module = *up_to(*inner, " ") == *inner ? *inner : inner->substr(0, inner->find(' '));
            if (a.module.size() != inner->size())
                a.build_id = inner->substr(a.module.size() + 1);
        }
    m_next = size->end;
    add(a);
    return true;
}

// "(/path/prog+0x10)", "(prog + 0x10)", "[libx.so+0x10]", "/path/prog+0x10".
bool line_scan::scan_module(const number_at &n, size_t plus)
{
    const bool is_apart = before(n.begin) == ' '; // as systemd writes it
    log_address a;
    a.of = log_address::kind::module;
    a.value = n.value;
    if (has(n.end, ")")) {
        const auto module = module_in_parentheses(m_line, plus);
        if (!module)
            return false;
        a.module = *module;
        // systemd and LLVM write what they found; the sanitizers look at the call. LLVM's innermost is a call, too.
        const auto frame = frame_number();
        const bool is_padded = m_first->end - m_first->begin == 18 && frame;
        a.is_return = is_apart ? frame == 1U : is_padded;
    } else if (is_apart) {
        return false;
    } else if (has(n.end, "]")) {
        const size_t open = find_before(plus, '[');
        if (open == NPOS || !is_blank(before(open)))
            return false;
        a.module = text(open + 1, plus);
        const std::string_view head = without_blanks_behind(m_line.substr(0, open));
        a.is_return = head == "C" || head == "V"; // of the Java machine; "# C" is where it failed
    } else {
        a.module = path_before(m_line, plus);
        if (a.module.find('/') == NPOS || a.module.find(' ') != NPOS)
            return false;
    }
    if (a.module.empty())
        return false;
    a.text = text(static_cast<size_t>(a.module.data() - m_line.data()), n.end);
    constexpr std::string_view BUILD_ID = " (BuildId: ";
    if (const size_t behind = n.end + 1; has(behind, BUILD_ID))
        a.build_id = up_to(m_line.substr(behind + BUILD_ID.size()), ")").value_or("");
    m_next = n.end;
    add(a);
    return true;
}

line_scan::outcome line_scan::scan_offset(const number_at &n)
{
    size_t plus = n.begin - 1;
    if (before(n.begin) == ' ' && n.begin >= 3 && m_line[n.begin - 2] == '+')
        plus = n.begin - 2;
    if (m_line[plus] != '+')
        return outcome::none;
    if (is_line_of_go(m_line, plus))
        return outcome::known;
    return scan_backtrace(n, plus) || scan_kernel(n, plus) || scan_module(n, plus) ? outcome::found : outcome::none;
}

// "prog[0x401136]", "prog() [0x401136]": backtrace_symbols of a program that is not moved.
bool line_scan::scan_brackets(const number_at &n)
{
    if (before(n.begin) != '[' || !has(n.end, "]") || n.begin < 2)
        return false;
    const bool has_parentheses = n.begin >= 4 && has(n.begin - 4, "() [");
    if (is_blank(m_line[n.begin - 2]) && !has_parentheses)
        return false;
    log_address a;
    a.of = log_address::kind::module;
    a.value = n.value;
    a.module = path_before(m_line, n.begin - (has_parentheses ? 4 : 1));
    a.is_return = true;
    const bool is_whole = a.module.data() == m_line.data() && without_blanks_behind(m_line).size() == n.end + 1;
    if (a.module.empty() || (!is_whole && !has_parentheses && a.module.find('/') == NPOS))
        return false;
    a.text = text(static_cast<size_t>(a.module.data() - m_line.data()), n.end + 1);
    add(a);
    return true;
}

// All that was found are addresses of a process: in a frame's line the first is the frame's, and the others arguments.
void line_scan::keep_frame()
{
    const std::string_view head = m_line.substr(0, m_first->begin), tail = m_line.substr(m_first->end);
    log_address &first = m_found.front();
    const auto frame = frame_number();
    const std::string_view word = without_blanks_behind(head);
    const bool is_rust =
        word.ends_with(':') && tail.starts_with(" - ") &&
        without_blanks_before(word).find_first_not_of("0123456789") == without_blanks_before(word).size() - 1;
    const bool is_valgrind = (head.ends_with("at ") || head.ends_with("by ")) && tail.starts_with(": ");
    const bool is_glog = word.ends_with('@');
    for (log_address &a : m_found) // of a sanitizer, where instrumented code called it
        a.is_return = m_line.substr(0, static_cast<size_t>(a.text.data() - m_line.data())).ends_with(" at pc ");
    if (!frame && !is_rust && !is_valgrind && !is_glog)
        return;
    if (ends_with_place(tail) || (is_rust && tail != " - <unknown>")) {
        m_found.clear();
        return;
    }
    m_found.resize(1);
    if (is_valgrind) {
        const size_t in = tail.find(" (in ");
        if (in != NPOS && tail.ends_with(')'))
            first.module = tail.substr(in + 5, tail.size() - in - 6);
    } else if (frame) {
        first.is_return = *frame != 0 && !is_behind_signal();
    } else {
        first.is_return = is_rust || head.find("PC:") == NPOS;
    }
}

// Of kernels before 4.10: "[<ffffffff810a1b2c>]".
void line_scan::scan_old_kernel()
{
    const size_t at = m_line.find("[<");
    log_address a;
    const size_t digits = at == NPOS ? 0 : read_hex(m_line.substr(at + 2), &a.value);
    if (digits == 0 || !has(at + 2 + digits, ">]"))
        return;
    a.text = text(at + 2, at + 2 + digits);
    a.is_return = true;
    add(a);
}

void line_scan::run()
{
    if (((m_triggers & TRIGGER_IP) != 0 && scan_fault()) || scan_perf())
        return;
    bool has_module = false;
    for (size_t i = 0; i < MOST_NUMBERS && m_found.size() < MOST_ADDRESSES; ++i) {
        const auto n = next_number(m_next);
        if (!n)
            break;
        if (!m_first)
            m_first = n;
        m_next = n->end;
        const outcome o = n->begin == 0 ? outcome::none : scan_offset(*n);
        if (o == outcome::known) {
            m_found.clear();
            return;
        }
        if (o == outcome::found || scan_brackets(*n))
            has_module = true;
        else if (before(n->begin) != '+' && before(n->begin) != '/')
            m_found.push_back({.value = n->value, .text = text(n->begin, n->end)});
    }
    if (has_module) // then the others tell the same, or are no addresses
        std::erase_if(m_found, [](const log_address &a) { return a.of == log_address::kind::memory; });
    else if (!m_found.empty())
        keep_frame();
    else if ((m_triggers & TRIGGER_BRACKET) != 0)
        scan_old_kernel();
}

} // namespace

size_t read_hex(std::string_view text, uint64_t *number)
{
    uint64_t value = 0;
    size_t digits = 0;
    for (; digits < text.size(); ++digits) {
        const char c = text[digits];
        const int digit = is_digit(c)              ? c - '0'
                          : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                          : (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                                   : -1;
        if (digit < 0)
            break;
        if (digits == 16)
            return 0;
        value = value << 4 | static_cast<uint64_t>(digit);
    }
    if (digits != 0)
        *number = value;
    return digits;
}

void scan_line(const log_line &line, std::vector<log_address> *found)
{
    found->clear();
    line_scan(line, found).run();
}

} // namespace korva::program
