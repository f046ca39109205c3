// SPDX-License-Identifier: Apache-2.0
//
// What one thread was doing, without what differs from process to process: so that equal traces of threads, processes and
// core files become one, with a count and who had it.
#pragma once

#include "record.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace korva::program
{

/** One function at one place. A call that was inlined is a frame of its own. */
struct trace_frame {
    std::string function = {}, module = {}, build_id = {}, file = {}; /**< empty: not known */
    uint32_t line = 0, column = 0;                                    /**< 0: not known */
    /** In the module's file, as `korva addr` takes it. Nothing outside of modules: that differs by process. */
    std::optional<uint64_t> address = {};
    bool is_inlined = false, is_signal_frame = false;
};

/** Negative, 0 or positive; every field counts. */
int compare(const trace_frame &a, const trace_frame &b);

/** Who was there: a thread of a process ("4711") or of a core file (its path). */
struct trace_owner {
    std::string process = {};
    int tid = 0; /**< 0: the whole process, which could not be read */
    std::string name = {};

    auto operator<=>(const trace_owner &) const = default;
};

struct trace {
    std::vector<trace_frame> frames = {}; /**< the innermost first */
    std::string end = {};                 /**< why the walk ended: "outermost", "no-fde", ... */
    record_status status = record_status::ok;
    std::string message = {};                    /**< why it ended early; empty with status ok */
    std::map<trace_owner, uint64_t> owners = {}; /**< how often each was there: 1, or samples */

    /** How often anybody was there. A sum beyond 64 bits is 2^64 - 1. */
    uint64_t count() const;
};

/**
 * Traces, each once. Two are one when frames, end and status are equal: the counts of an owner add, the least message stays.
 * Adding is associative and commutative: what is in the set depends on what was added, not on order or grouping. A process
 * that could not be read is a trace without frames with status error, so that it is counted.
 */
class trace_set
{
public:
    /** Bytes of texts that are not UTF-8 become U+FFFD, as in a record. One that nobody had is nothing. */
    void add(trace t);
    void add(trace_set other);

    bool is_empty() const { return m_traces.empty(); }
    size_t size() const { return m_traces.size(); }
    /** In the order of their frames, the innermost first, whatever the order they came in. Valid until the next add(). */
    std::vector<const trace *> sorted() const;

private:
    struct by_path {
        bool operator()(const std::unique_ptr<trace> &a, const std::unique_ptr<trace> &b) const;
    };

    std::set<std::unique_ptr<trace>, by_path> m_traces;
};

/** A sum that ends at 2^64 - 1. */
uint64_t saturating_sum(uint64_t a, uint64_t b);

} // namespace korva::program
