// SPDX-License-Identifier: Apache-2.0
#include "fetches.h"

#include "output.h"
#include "progress.h"

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace korva::program
{

namespace
{

using steady = std::chrono::steady_clock;

// Whoever made a core file or a log may have named any number of build-ids, and whoever serves may take any time.
constexpr unsigned int MOST_REQUESTS = 1000, MOST_SECONDS = 1800;

std::chrono::seconds most_seconds()
{
    const char *const text = std::getenv("KORVA_DEBUGINFOD_SECONDS");
    const std::string_view digits = text == nullptr ? "" : text;
    unsigned int count = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), count);
    const bool is_number = error == std::errc() && end == digits.data() + digits.size();
    return std::chrono::seconds(is_number ? count : MOST_SECONDS);
}

/** The requests of a run, one after the other. */
class fetches
{
public:
    bool watch(const krv_elf_fetch_t &fetch);

private:
    void begin(const krv_elf_fetch_t &fetch);
    void end(const krv_elf_fetch_t &fetch);
    bool has_left();

    const std::chrono::seconds m_most = most_seconds();
    unsigned int m_requests = 0;
    steady::duration m_taken{};                  // by those that are over
    std::optional<steady::time_point> m_begun{}; // the one that is not
    std::optional<progress> m_shown{};
    bool m_is_enough = false; // told
};

} // namespace

bool fetches::has_left()
{
    std::string why;
    if (m_requests > MOST_REQUESTS)
        why = fmt::format("servers were asked {} times", MOST_REQUESTS);
    else if (m_taken + (steady::now() - *m_begun) >= m_most)
        why = fmt::format("servers have taken {} s", m_most.count());
    else
        return true;
    m_shown.reset();
    if (!m_is_enough) // it is not one of the notes on modules, of which the first few are told
        write_error(
            fmt::format("korva: {}: for more they are not asked in this run; what came is in the cache\n", why));
    m_is_enough = true;
    return false;
}

void fetches::begin(const krv_elf_fetch_t &fetch)
{
    m_begun = steady::now();
    ++m_requests;
    if (!m_is_enough)
        m_shown.emplace(fmt::format("{} (KiB)", printable(fetch.url)), 0, progress::mode::silent);
}

void fetches::end(const krv_elf_fetch_t &fetch)
{
    m_shown.reset();
    if (m_begun)
        m_taken += steady::now() - *m_begun;
    m_begun.reset();
    if (fetch.error[0] != '\0' && !m_is_enough)
        diagnose(fmt::format("{}: {}", fetch.url, fetch.error));
}

bool fetches::watch(const krv_elf_fetch_t &fetch)
{
    constexpr uint64_t KIB = 1024;
    if (fetch.is_over != 0) {
        end(fetch);
        return true;
    }
    if (!m_begun)
        begin(fetch);
    else if (m_shown)
        m_shown->set(fetch.received / KIB, (fetch.size + KIB - 1) / KIB);
    return !m_is_enough && has_left();
}

bool watch_fetch(const krv_elf_fetch_t &fetch)
{
    static fetches all;
    return all.watch(fetch);
}

} // namespace korva::program
