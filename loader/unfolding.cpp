// SPDX-License-Identifier: Apache-2.0
#include "unfolding.h"

#include <charconv>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace krv_elf_loader
{

namespace
{

constexpr uint64_t MAX_UNFOLDED = 1 << 20;          // without what multiplies it: compilers write less
constexpr double MAX_MULTIPLIED = 32.0 * (1 << 20); // a rough bound

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool is_upper(char c)
{
    return c >= 'A' && c <= 'Z';
}

bool is_lower(char c)
{
    return c >= 'a' && c <= 'z';
}

/**
 * C++: a substitution (S_, S0_, ...) repeats what was read before, substitutions included; a template parameter (T_, T0_,
 * ...) an argument; a pack expansion (Dp, sp) its pattern for each element.
 *
 * The bound needs no grammar. Substitution n was complete when one of that number or a higher one is first seen, so it
 * stands for no more than all of the name up to there, unfolded. The parameters of a function (_Z, and Z for local
 * names) have their arguments before them in the same way; functions within each other's arguments multiply.
 */
class cxx_name
{
public:
    explicit cxx_name(std::string_view name) : m_name(name) {}

    bool is_too_long()
    {
        for (m_at = 0; m_at < m_name.size() && m_size <= MAX_UNFOLDED; ++m_at, ++m_size)
            step();
        double whole = static_cast<double>(m_size) * (m_has_expansion ? m_elements : 1);
        for (unsigned inner = 1; inner < m_functions && whole <= MAX_MULTIPLIED; ++inner)
            whole *= 1 + m_parameters / m_functions; // at worst: as many for each
        return m_size > MAX_UNFOLDED || whole > MAX_MULTIPLIED;
    }

private:
    void step()
    {
        const char c = m_name[m_at];
        m_elements += m_has_pack ? 1 : 0;
        if (is_digit(c))
            skip_identifier();
        else if (c == 'S')
            substitution();
        else if (c == 'T')
            parameter();
        else if (c == 'Z')
            begin_function();
        else if (c == 'J')
            m_has_pack = true;
        else if (c == 'p' && m_at > 0 && (m_name[m_at - 1] == 'D' || m_name[m_at - 1] == 's'))
            m_has_expansion = true;
    }

    void begin_function()
    {
        ++m_functions;
        m_is_first_parameter = true;
    }

    // An identifier stands behind its length. Another number is passed over digit by digit.
    void skip_identifier()
    {
        size_t length = 0;
        const auto [end, error] = std::from_chars(m_name.data() + m_at, m_name.data() + m_name.size(), length);
        const auto behind = static_cast<size_t>(end - m_name.data());
        if (error != std::errc() || length == 0 || length > m_name.size() - behind)
            return;
        m_size += behind + length - 1 - m_at;
        m_at = behind + length - 1;
    }

    void substitution()
    {
        size_t end = m_at + 1, number = 0;
        for (; end < m_name.size() && number <= m_at; ++end) {
            const char c = m_name[end];
            if (!is_digit(c) && !is_upper(c))
                break;
            number = number * 36 + static_cast<size_t>(is_digit(c) ? c - '0' : c - 'A' + 10);
        }
        number += end == m_at + 1 ? 0 : 1;
        if (end == m_name.size() || m_name[end] != '_' || number > m_at) // each takes a byte at least: no reference
            return;
        if (m_substitutions.size() <= number)
            m_substitutions.resize(number + 1, m_size);
        m_size += m_substitutions[number];
        m_at = end;
    }

    void parameter()
    {
        size_t end = m_at + 1;
        while (end < m_name.size() && is_digit(m_name[end]))
            ++end;
        if (end == m_name.size() || m_name[end] != '_')
            return;
        if (m_is_first_parameter)
            m_argument = m_size;
        m_is_first_parameter = false;
        ++m_parameters;
        m_size += m_argument;
        m_at = end;
    }

    std::string_view m_name;
    size_t m_at = 0;
    uint64_t m_size = 0; // of what was read, unfolded
    std::vector<uint64_t> m_substitutions;
    uint64_t m_argument = 0;
    double m_elements = 1; // of a pack, at most
    double m_parameters = 0, m_functions = 0;
    bool m_is_first_parameter = true, m_has_pack = false, m_has_expansion = false;
};

/**
 * Rust: the grammar of mangling v0 (RFC 2603), read for its sizes alone. A back reference (B) leads to where a path, type or
 * constant begins, and stands for that; a binder (G) for as many lifetimes as it says.
 */
class rust_name
{
public:
    explicit rust_name(std::string_view name) : m_name(name) {}

    // What stands behind the path, as the crate that instantiates it, is not shown.
    bool is_readable()
    {
        m_at = 2; // _R
        return path() && m_size <= MAX_UNFOLDED;
    }

private:
    static constexpr unsigned MAX_DEPTH = 300; // compilers nest less; the demangler's own limit is 1024

    bool is_next(char c)
    {
        if (m_at >= m_name.size() || m_name[m_at] != c)
            return false;
        ++m_at;
        ++m_size;
        return true;
    }

    // Digits 0-9a-zA-Z up to an underscore; without any it is 0, else one more than they say.
    bool base_62(uint64_t *value)
    {
        *value = 0;
        if (is_next('_'))
            return true;
        for (; m_at < m_name.size() && *value <= MAX_UNFOLDED; ++m_at) {
            const char c = m_name[m_at];
            if (is_next('_')) {
                ++*value;
                return true;
            }
            if (!is_digit(c) && !is_lower(c) && !is_upper(c))
                return false;
            *value = *value * 62 + static_cast<uint64_t>(is_digit(c)   ? c - '0'
                                                         : is_lower(c) ? c - 'a' + 10
                                                                       : c - 'A' + 36);
        }
        return false;
    }

    // A number that counts for nothing, as one that tells crates apart: it may be any.
    bool skip_base_62()
    {
        const size_t end = m_name.find('_', m_at);
        m_at = end == std::string_view::npos ? m_name.size() : end + 1;
        return end != std::string_view::npos;
    }

    bool plain_identifier()
    {
        is_next('u');
        size_t length = 0;
        if (!is_next('0')) { // a number that begins so ends so
            const auto [end, error] = std::from_chars(m_name.data() + m_at, m_name.data() + m_name.size(), length);
            if (error != std::errc())
                return false;
            m_at = static_cast<size_t>(end - m_name.data());
        }
        is_next('_');
        if (length > m_name.size() - m_at)
            return false;
        m_at += length;
        m_size += length;
        return true;
    }

    bool disambiguator() { return !is_next('s') || skip_base_62(); }
    bool identifier() { return disambiguator() && plain_identifier(); }

    bool binder()
    {
        uint64_t lifetimes = 0;
        if (is_next('G') && !base_62(&lifetimes))
            return false;
        m_size += lifetimes;
        return true;
    }

    // Of what is still being read the size is not known: no compiler refers to it.
    bool back_reference()
    {
        uint64_t to = 0;
        if (!base_62(&to))
            return false;
        const auto found = m_nodes.find(to + 2);
        if (found == m_nodes.end())
            return false;
        m_size += found->second;
        return true;
    }

    // Reads what begins here by one of the three functions, and remembers its size.
    bool node(bool (rust_name::*read)(char))
    {
        const size_t start = m_at;
        const uint64_t before = m_size;
        if (m_at >= m_name.size() || m_depth == MAX_DEPTH || m_size > MAX_UNFOLDED)
            return false;
        ++m_depth;
        ++m_size;
        const bool whole = (this->*read)(m_name[m_at++]);
        --m_depth;
        m_nodes[start] = m_size - before;
        return whole;
    }

    bool path() { return node(&rust_name::path_of); }
    bool type() { return node(&rust_name::type_of); }
    bool constant() { return node(&rust_name::constant_of); }

    template <typename F>
    bool until_end(F &&element)
    {
        while (!is_next('E'))
            if (!element())
                return false;
        return true;
    }

    bool generic_argument()
    {
        if (is_next('L'))
            return skip_base_62();
        return is_next('K') ? constant() : type();
    }

    bool path_of(char kind)
    {
        switch (kind) {
        case 'C':
            return identifier();
        case 'N':
            ++m_at; // the kind of name
            return path() && identifier();
        case 'M':
            return disambiguator() && path() && type();
        case 'X':
            return disambiguator() && path() && type() && path();
        case 'Y':
            return type() && path();
        case 'I':
            return path() && until_end([this] { return generic_argument(); });
        case 'B':
            return back_reference();
        default:
            return false;
        }
    }

    bool function_type()
    {
        if (!binder())
            return false;
        is_next('U');
        if (is_next('K') && !is_next('C') && !plain_identifier())
            return false;
        return until_end([this] { return type(); }) && type();
    }

    bool dynamic_trait()
    {
        if (!path())
            return false;
        while (is_next('p'))
            if (!plain_identifier() || !type())
                return false;
        return true;
    }

    bool type_of(char kind)
    {
        switch (kind) {
        case 'A':
            return type() && constant();
        case 'S':
        case 'P':
        case 'O':
            return type();
        case 'T':
            return until_end([this] { return type(); });
        case 'R':
        case 'Q':
            return (!is_next('L') || skip_base_62()) && type();
        case 'F':
            return function_type();
        case 'D':
            return binder() && until_end([this] { return dynamic_trait(); }) && is_next('L') && skip_base_62();
        case 'B':
            return back_reference();
        default:
            return is_lower(kind) || path_of(kind);
        }
    }

    bool constant_of(char kind)
    {
        if (kind == 'B')
            return back_reference();
        return kind == 'p' || (is_lower(kind) && skip_base_62()); // a value in hexadecimal digits
    }

    std::string_view m_name;
    size_t m_at = 0;
    uint64_t m_size = 0; // of what was read, unfolded
    unsigned m_depth = 0;
    std::unordered_map<uint64_t, uint64_t> m_nodes; // sizes of what has been read, by where it begins
};

} // namespace

bool unfolds_too_far_cxx(std::string_view name)
{
    return cxx_name(name).is_too_long();
}

bool unfolds_too_far_rust(std::string_view name)
{
    return !rust_name(name).is_readable();
}

// Behind the identifier that begins at `at` with its length, or at `limit`.
static size_t end_of_identifier(std::string_view name, size_t at, size_t limit)
{
    size_t length = 0;
    const auto [end, error] = std::from_chars(name.data() + at, name.data() + limit, length);
    const auto behind = static_cast<size_t>(end - name.data());
    return error != std::errc() || length > limit - behind ? limit : behind + length;
}

/*
 * A back reference is Q, and how far back in base 26, the last digit in lower case. It stands for an identifier, which
 * begins with its length, or for a type, which is no more than all from there on. What looks like a reference within an
 * identifier counts as one.
 */
bool unfolds_too_far_d(std::string_view name)
{
    constexpr uint64_t MAX_UNFOLDED_D = 64 << 10; // the demangler has no limit of its own to how deep it nests
    std::vector<uint64_t> size(name.size() + 1);  // of what stands before each byte, unfolded
    for (size_t at = 0; at < name.size(); ++at) {
        uint64_t stands_for = 1;
        size_t back = 0, end = at + 1;
        if (name[at] == 'Q') {
            for (; end < name.size() && is_upper(name[end]) && back <= at; ++end)
                back = back * 26 + static_cast<size_t>(name[end] - 'A');
            if (end < name.size() && is_lower(name[end]))
                back = back * 26 + static_cast<size_t>(name[end] - 'a');
            if (back <= at) {
                const size_t to = at - back;
                stands_for += size[is_digit(name[to]) ? end_of_identifier(name, to, at) : at] - size[to];
            }
        }
        size[at + 1] = size[at] + stands_for;
        if (size[at + 1] > MAX_UNFOLDED_D)
            return true;
    }
    return false;
}

} // namespace krv_elf_loader
