// SPDX-License-Identifier: Apache-2.0
//
// Answers that are made in one order and written in another.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

namespace korva::program
{

/**
 * Questions about neighbours have their file, their unit, their function and most of their rows in common: one behind the
 * other these are at hand, and what was read of the file for those before is not needed again. The answers are written
 * in the order of the questions.
 */
class ordered_answers
{
public:
    /**
     * Answers @p count questions: @p before orders their numbers, @p make returns the text of one, valid until the next,
     * @p write takes them in their order. Of answers that are too long to be kept all, the rest is made when its turn comes.
     */
    template <typename Before, typename Make, typename Write>
    void answer(size_t count, Before before, Make make, Write write)
    {
        constexpr size_t MOST_TEXT = size_t{8} << 20;
        m_order.resize(count);
        std::iota(m_order.begin(), m_order.end(), 0U);
        std::sort(m_order.begin(), m_order.end(), before);
        m_pieces.assign(count, {});
        m_texts.clear();
        for (const uint32_t number : m_order) {
            if (m_texts.size() >= MOST_TEXT)
                break;
            const std::string_view text = make(number);
            m_pieces[number] = {m_texts.size(), text.size(), true};
            m_texts += text;
        }
        for (uint32_t number = 0; number < count; ++number) {
            const piece &p = m_pieces[number];
            write(p.is_made ? std::string_view(m_texts).substr(p.at, p.size) : std::string_view(make(number)));
        }
    }

private:
    struct piece {
        size_t at = 0, size = 0;
        bool is_made = false;
    };

    std::vector<uint32_t> m_order; // in which they are made
    std::vector<piece> m_pieces;   // by number
    std::string m_texts;
};

} // namespace korva::program
