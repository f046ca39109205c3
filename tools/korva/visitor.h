// SPDX-License-Identifier: Apache-2.0
//
// A visitor that may throw. An exception does not pass through the library: it stops the walk and is kept until after.
#pragma once

#include <exception>
#include <utility>

namespace korva::program
{

template <typename F>
class visitor
{
public:
    explicit visitor(F func) : m_func(std::move(func)) {}

    template <typename... T>
    bool operator()(T &&...args) noexcept
    {
        try {
            m_func(std::forward<T>(args)...);
            return true;
        } catch (...) {
            m_thrown = std::current_exception();
            return false;
        }
    }

    /** Throws what the visitor threw, if it did. Call it when the walk has returned. */
    void rethrow() const
    {
        if (m_thrown)
            std::rethrow_exception(m_thrown);
    }

private:
    F m_func;
    std::exception_ptr m_thrown;
};

} // namespace korva::program
