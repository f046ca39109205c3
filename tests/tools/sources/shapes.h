// SPDX-License-Identifier: Apache-2.0
#ifndef SHAPES_H
#define SHAPES_H

#include <memory>
#include <string>
#include <vector>

namespace shapes
{

// Instantiated in every unit that uses it: all but one copy is dropped when the program is linked.
template <typename T>
T clamp(T value, T low, T high)
{
    if (value < low)
        return low;
    return high < value ? high : value;
}

class shape
{
public:
    explicit shape(std::string name) : m_name(std::move(name)) {}
    virtual ~shape() = default;
    virtual double area() const = 0;
    const std::string &name() const { return m_name; }

private:
    std::string m_name;
};

using shape_list = std::vector<std::unique_ptr<shape>>;

std::unique_ptr<shape> make_square(double side);
std::unique_ptr<shape> make_circle(double radius);

namespace detail
{
int count_calls(int more);
}

} // namespace shapes

#endif
