#include <bitset>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <vector>

#include "qel_node_map.h"

namespace {

using model = std::bitset<qel_node_count>;

std::vector<uint32_t> nodes(const qel_node_map &map) {
    std::vector<uint32_t> v;
    for (uint32_t n = map.next(0); n < qel_node_count; n = map.next(n + 1))
        v.push_back(n);
    return v;
}
std::vector<uint32_t> nodes(const model &m) {
    std::vector<uint32_t> v;
    for (uint32_t n = 0; n < qel_node_count; n++)
        if (m[n])
            v.push_back(n);
    return v;
}

// A map in memory full of rubbish: words that do not count yet must not be believed.
struct map_in_rubbish {
    alignas(qel_node_map) unsigned char memory[sizeof(qel_node_map)];
    qel_node_map *map;
    explicit map_in_rubbish(unsigned char rubbish = 0xFF) {
        memset(memory, rubbish, sizeof memory);
        map = ::new (memory) qel_node_map;
    }
};

TEST(node_map, a_new_map_is_empty_whatever_was_in_its_memory) {
    const map_in_rubbish r;
    EXPECT_FALSE(r.map->any());
    EXPECT_EQ(r.map->next(0), qel_node_count);
    for (uint32_t n = 0; n < qel_node_count; n++)
        ASSERT_FALSE(r.map->test(n));
}

TEST(node_map, the_lowest_and_the_highest_node_and_word_borders_count) {
    for (const uint32_t n : {0u, 63u, 64u, 4095u, 4096u, 65535u}) {
        const map_in_rubbish r;
        r.map->set(n);
        EXPECT_TRUE(r.map->test(n));
        EXPECT_TRUE(r.map->any());
        EXPECT_EQ(nodes(*r.map), std::vector<uint32_t>{n});
        r.map->clear(n);
        EXPECT_FALSE(r.map->any());
        EXPECT_EQ(nodes(*r.map), std::vector<uint32_t>{});
    }
}

TEST(node_map, nodes_above_65535_are_never_in_it) {
    const map_in_rubbish r;
    for (const uint32_t n : {65536u, 65537u, 0x10000u * 5 + 3, 0x7FFFFFFFu, UINT32_MAX}) {
        r.map->set(n);
        EXPECT_FALSE(r.map->test(n));
        r.map->clear(n);
        EXPECT_EQ(r.map->next(n), qel_node_count);
    }
    EXPECT_FALSE(r.map->any());
}

TEST(node_map, all_nodes_fit) {
    const auto map = std::make_unique<qel_node_map>();
    for (uint32_t n = 0; n < qel_node_count; n++)
        map->set(n);
    EXPECT_EQ(nodes(*map).size(), qel_node_count);
    map->reset();
    EXPECT_FALSE(map->any());
    EXPECT_EQ(map->next(0), qel_node_count);
}

TEST(node_map, behaves_like_a_bitset_under_random_operations) {
    std::mt19937 random(3);
    const map_in_rubbish ra(0x5A), rb(0xC3), rc(0x96);
    qel_node_map *maps[2] = {ra.map, rb.map};
    auto models = std::make_unique<model[]>(2);
    for (int step = 0; step < 100'000; step++) {
        const size_t which = random() % 2;
        // few nodes close together, so that both maps meet; sometimes anywhere
        const uint32_t n = random() % 4 ? 4000 + random() % 200 : random() % qel_node_count;
        switch (random() % 8) {
        case 0:
        case 1:
        case 2:
            maps[which]->set(n);
            models[which].set(n);
            break;
        case 3:
        case 4:
            maps[which]->clear(n);
            models[which].reset(n);
            break;
        case 5:
            ASSERT_EQ(maps[which]->test(n), models[which].test(n)) << "step " << step;
            break;
        case 6: {
            uint32_t expected = n;
            while (expected < qel_node_count && !models[which].test(expected))
                expected++;
            ASSERT_EQ(maps[which]->next(n), expected) << "step " << step;
            break;
        }
        default:
            if (step % 500 == 7) {
                maps[which]->reset();
                models[which].reset();
            }
            ASSERT_EQ(maps[which]->any(), models[which].any()) << "step " << step;
        }
        if (step % 1000 == 0) {
            ASSERT_EQ(nodes(*maps[which]), nodes(models[which])) << "step " << step;
            rc.map->assign_and(*maps[0], *maps[1]);
            ASSERT_EQ(nodes(*rc.map), nodes(models[0] & models[1])) << "step " << step;
            const qel_node_map copy = *maps[which];
            ASSERT_EQ(nodes(copy), nodes(models[which]));
        }
    }
}

TEST(node_map, an_and_replaces_what_the_target_held) {
    const map_in_rubbish a, b, target;
    target.map->set(1);
    a.map->set(2);
    a.map->set(3);
    b.map->set(3);
    target.map->assign_and(*a.map, *b.map);
    EXPECT_EQ(nodes(*target.map), std::vector<uint32_t>{3});
    target.map->assign_and(*a.map, *target.map);
    EXPECT_EQ(nodes(*target.map), std::vector<uint32_t>{3}) << "the target may be an operand";
}

} // namespace
