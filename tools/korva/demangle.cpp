// SPDX-License-Identifier: Apache-2.0
#include "demangle.h"

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <memory>
#include <string_view>
#include <vector>

namespace korva::program
{

namespace
{

constexpr size_t MAX_MANGLED = 32 << 10; // the runtime's demangler takes stack by the length of the name
constexpr size_t MAX_PLAIN = 64 << 10;
constexpr uint64_t MAX_UNFOLDED = 1 << 20;          // without what multiplies it: compilers write less
constexpr double MAX_MULTIPLIED = 32.0 * (1 << 20); // a rough bound

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

/**
 * Whether a mangled name unfolds into more than is shown. A name of 200 bytes may stand for gigabytes: a substitution
 * (S_, S0_, ...) repeats what was read before, substitutions included; a template parameter (T_, T0_, ...) an argument;
 * a pack expansion (Dp, sp) its pattern for each element. The demangler takes time and memory by what comes out, before
 * it returns anything.
 *
 * The bound needs no grammar. Substitution n was complete when one of that number or a higher one is first seen, so it
 * stands for no more than all of the name up to there, unfolded. The parameters of a function (_Z, and Z for local
 * names) have their arguments before them in the same way; functions within each other's arguments multiply.
 */
class unfolding
{
public:
    explicit unfolding(std::string_view name) : m_name(name) {}

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
            if (!is_digit(c) && !(c >= 'A' && c <= 'Z'))
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

} // namespace

std::string demangle(const char *name)
{
    // The runtime also demangles bare types, and would make "int" of a C function that is called i.
    const std::string_view text(name);
    if ((!text.starts_with("_Z") && !text.starts_with("_GLOBAL_")) || text.size() > MAX_MANGLED ||
        unfolding(text).is_too_long())
        return name;
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> plain(abi::__cxa_demangle(name, nullptr, nullptr, &status),
                                                            &std::free);
    return plain == nullptr || std::strlen(plain.get()) > MAX_PLAIN ? name : plain.get();
}

std::string_view unversioned(const char *symbol)
{
    const std::string_view whole(symbol);
    return whole.substr(0, whole.find('@'));
}

std::string function_name(const char *symbol, bool demangled)
{
    const std::string name(unversioned(symbol));
    return demangled ? demangle(name.c_str()) : name;
}

} // namespace korva::program
