// SPDX-License-Identifier: Apache-2.0
#include "shapes.h"

#include <algorithm>
#include <cstdio>

struct registry {
    registry() { shapes::detail::count_calls(1); }
    ~registry() { std::puts("done"); }
};

static registry s_registry; // a constructor that runs before main

int main()
{
    shapes::shape_list list;
    for (int i = 1; i < 6; ++i)
        list.push_back(i % 2 == 0 ? shapes::make_square(i) : shapes::make_circle(i));
    std::sort(list.begin(), list.end(), [](const auto &a, const auto &b) { return a->area() < b->area(); });
    try {
        std::printf("%s\n", list.at(99)->name().c_str());
    } catch (const std::exception &e) {
        std::printf("%d %s\n", shapes::clamp(7, 1, 5), e.what());
    }
    return 0;
}
