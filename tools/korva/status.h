// SPDX-License-Identifier: Apache-2.0
//
// The exit status of every verb, in one place.
#pragma once

namespace korva::program
{

enum exit_status : int {
    ANSWERED = 0, /**< everything that was asked was answered */
    PARTLY = 1,   /**< some of it could not be */
    NOTHING = 2,  /**< nothing could be, or standard output cannot be written */
    FAULTY = 3,   /**< check: faults were found */
    USAGE = 64    /**< the command line is wrong */
};

/** Counts what was asked, and tells how much of it was answered. */
class tally
{
public:
    void answered() { m_some = true; }
    void missed() { m_missed = true; }
    /** Something is known of it, but not all. */
    void partly() { m_some = m_missed = true; }
    void add(bool was_answered) { was_answered ? answered() : missed(); }

    exit_status status() const { return !m_missed ? ANSWERED : m_some ? PARTLY : NOTHING; }

private:
    bool m_some = false;
    bool m_missed = false;
};

} // namespace korva::program
