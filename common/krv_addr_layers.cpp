// SPDX-License-Identifier: Apache-2.0
#include "krv_addr_layers.h"

#include <algorithm>
#include <utility>

namespace
{

struct layers_deleter {
    void operator()(krv_addr_layers *layers) const { krv_addr_layers_free(layers); }
};

} // namespace

// Calls visit(node) for the fewest nodes that have the pieces of a range below them, and no others.
template <typename Visit>
static void visit_nodes(const krv_addr_map *map, const krv_addr_range &range, const Visit &visit)
{
    size_t first = map->sam_pieces + krv_addr_map_count(map, range.start) - 1;
    size_t behind = map->sam_pieces + krv_addr_map_count(map, range.end) - 1;
    for (; first < behind; first /= 2, behind /= 2) {
        if (first % 2 != 0)
            visit(first++);
        if (behind % 2 != 0)
            visit(--behind);
    }
}

// Calls visit(node, owner) for the owners of each node, ascending, each once: one owner may have many ranges there.
template <typename Visit>
static void visit_owners(const krv_addr_map *map, const krv_addr_ranges &ranges, uint32_t *latest, const Visit &visit)
{
    std::fill_n(latest, 2 * map->sam_pieces, KRV_ADDR_NOTHING);
    for (size_t i = 0; i < ranges.entries; ++i) {
        const uint32_t owner = ranges.ranges[i].owner;
        visit_nodes(map, ranges.ranges[i], [&](size_t node) {
            if (std::exchange(latest[node], owner) != owner)
                visit(node, owner);
        });
    }
}

krv_addr_layers *krv_addr_layers_make(krv_handle_t *hp, const krv_addr_map *map, const krv_addr_ranges &ranges)
{
    std::unique_ptr<krv_addr_layers, layers_deleter> layers(krv_new<krv_addr_layers>(hp));
    if (layers == nullptr)
        return nullptr;
    const size_t nodes = 2 * map->sam_pieces;
    layers->sal_map = map;
    layers->sal_begins = static_cast<size_t *>(krv_zalloc(hp, (nodes + 1) * sizeof(size_t)));
    const krv_owner<uint32_t> latest(static_cast<uint32_t *>(krv_alloc(hp, nodes * sizeof(uint32_t))));
    if (layers->sal_begins == nullptr || latest == nullptr)
        return nullptr;
    // One element further on each node is counted, then filled up from its begin: so it ends where the next one begins.
    size_t *const begins = layers->sal_begins + 1;
    visit_owners(map, ranges, latest.get(), [&](size_t node, uint32_t) { ++begins[node]; });
    size_t count = 0;
    for (size_t node = 0; node < nodes; ++node)
        count += std::exchange(begins[node], count);
    layers->sal_owners = static_cast<uint32_t *>(krv_alloc(hp, count * sizeof(uint32_t)));
    if (layers->sal_owners == nullptr)
        return nullptr;
    visit_owners(map, ranges, latest.get(),
                 [&](size_t node, uint32_t owner) { layers->sal_owners[begins[node]++] = owner; });
    return layers.release();
}

void krv_addr_layers_free(krv_addr_layers *layers)
{
    krv_free(layers->sal_begins);
    krv_free(layers->sal_owners);
    krv_free(layers);
}

uint32_t krv_addr_layers_find(const krv_addr_layers *layers, uint64_t address, uint32_t first)
{
    const size_t begun = krv_addr_map_count(layers->sal_map, address);
    uint32_t least = KRV_ADDR_NOTHING;
    for (size_t node = begun == 0 ? 0 : layers->sal_map->sam_pieces + begun - 1; node != 0; node /= 2) {
        const uint32_t *const owners = layers->sal_owners, *const end = owners + layers->sal_begins[node + 1];
        const uint32_t *const owner = std::lower_bound(owners + layers->sal_begins[node], end, first);
        if (owner != end && *owner < least)
            least = *owner;
    }
    return least;
}
