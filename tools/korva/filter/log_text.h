// SPDX-License-Identifier: Apache-2.0
//
// The text of a log as it flows: read in blocks, looked at only where an address may stand, lines handed on whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace korva::program
{

/** Longer lines are not looked at. */
constexpr size_t MOST_LINE = size_t{1} << 16;

/** What a line with an address has, and others have seldom. */
enum trigger : unsigned int {
    TRIGGER_NONE = 0,
    TRIGGER_NUMBER = 1,   /**< 0x */
    TRIGGER_MAPPING = 2,  /**< -x, of r-xp */
    TRIGGER_BUILD_ID = 4, /**< -i, of build-id */
    TRIGGER_BRACKET = 8,  /**< [<, of old kernels */
    TRIGGER_UNKNOWN = 16, /**< [u, of perf's [unknown] */
    TRIGGER_IP = 32       /**< " ip", of a kernel's line about a fault */
};

/** The first place of a trigger in @p text, from @p from on, or npos. */
size_t find_trigger(std::string_view text, size_t from);
/** All triggers of a text. */
unsigned int triggers_of(std::string_view text);

/** A line that may speak of addresses. */
struct log_line {
    std::string_view text;     /**< without its end */
    std::string_view previous; /**< the line before it; empty when that is too long */
    unsigned int triggers;     /**< that it has */
    uint64_t number;           /**< counted from 1; 0 unless lines are counted */
};

class log_flow
{
public:
    struct handler {
        /** Text that no line call had. */
        std::function<void(std::string_view)> pass{};
        /** A line that may speak of addresses, and how much of it was passed before: that is not to be written again. */
        std::function<void(const log_line &, size_t passed)> line{};
        /** Reading may wait. */
        std::function<void()> wait{};
    };

    /**
     * With @p pass_partly, what there is of a line goes to pass() before reading waits for the rest of it. Lines are
     * counted only with @p count_lines.
     */
    log_flow(handler to, bool pass_partly, bool count_lines);

    /** Reads a file to its end. Returns 0 or the errno of what failed. */
    int read_all(int fd);

private:
    bool wait_for_more(int fd);
    void take_lines(size_t end);
    void take_rest();
    bool end_long_line();
    void forget_lines(size_t end);
    void pass(size_t from, size_t to);
    std::string_view line_before(size_t begin) const;

    handler m_to;
    bool m_pass_partly;
    bool m_count_lines;
    std::vector<char> m_data;
    size_t m_at = 0;     // where the first line begins that was not taken; before it stands the one that was taken last
    size_t m_passed = 0; // what was passed ends here
    size_t m_size = 0;
    bool m_in_long_line = false;
    uint64_t m_line = 1; // number of the line at m_at
};

} // namespace korva::program
