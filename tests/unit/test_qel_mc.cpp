// Private groups: their numbers, their members, their limits, and that they are private.
#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <set>

#include "qel_app_info.h"
#include "qel_mc.h"
#include "qel_process.h"

namespace {

#define MC(level, ...) qel_line("qel_mc", level, __VA_ARGS__)

// The two kinds of groups under one set of names, so that each test holds for both.
struct app_groups {
    static constexpr const char *kind = "app";
    static constexpr uint32_t first = 0x3000, last = 0x3FFF, slots = 16, empty = 0;
    using group = qel_app_mc_group;
    static int32_t create(uint32_t app) { return qel_create_app_mcast(app); }
    static int add(uint32_t app, uint32_t id, uint32_t member) { return qel_add_app_mcast(app, id, member); }
    static int del(uint32_t app, uint32_t id, uint32_t member) { return qel_del_app_mcast(app, id, member); }
    static void destroy(uint32_t app, uint32_t id) { qel_destroy_app_mcast(app, id); }
    static void get(uint32_t app, uint32_t id, group *out) { qel_get_app_mc_mbr(app, id, out); }
    static qel_mc_groups<group> &of(qel_mc_state &mc) { return mc.apps; }
    static constexpr uint32_t valid[] = {1, 8191, 16384, 20479};
    static constexpr uint32_t invalid[] = {0, 8192, 0x3000, 16383, 20480, 0x10005, 0xFFFFFFFF};
    static constexpr const char *invalid_text = "QEL app ID %d invalid.\n";
};
struct node_groups {
    static constexpr const char *kind = "node";
    static constexpr uint32_t first = 0x80000, last = 0x8FFFF, slots = 64, empty = 0xFFFFFFFF;
    using group = qel_node_mc_group;
    static int32_t create(uint32_t app) { return qel_create_node_mcast(app); }
    static int add(uint32_t app, uint32_t id, uint32_t member) { return qel_add_node_mcast(app, id, member); }
    static int del(uint32_t app, uint32_t id, uint32_t member) { return qel_del_node_mcast(app, id, member); }
    static void destroy(uint32_t app, uint32_t id) { qel_destroy_node_mcast(app, id); }
    static void get(uint32_t app, uint32_t id, group *out) { qel_get_node_mc_mbr(app, id, out); }
    static qel_mc_groups<group> &of(qel_mc_state &mc) { return mc.nodes; }
    static constexpr uint32_t valid[] = {0, 1, 65535};
    static constexpr uint32_t invalid[] = {65536, 0x80000, 0xFFFFFFFE, 0xFFFFFFFF};
    static constexpr const char *invalid_text = "QEL node ID %d invalid.\n";
};

template <class Kind> struct groups : qel_process {
    static constexpr uint32_t me = 5;
    groups() {
        if (add_app(me, false) != 0 || add_app(6, false) != 0)
            abort();
        qel_set_masks(0);
    }
    // The members in slot order, up to the last that is there; an empty slot before it is 0xFFFFFFFF.
    static std::vector<uint32_t> members(uint32_t id, uint32_t app = me) {
        typename Kind::group g;
        Kind::get(app, id, &g);
        std::vector<uint32_t> all;
        for (const uint32_t m : g.members)
            all.push_back(m == Kind::empty ? 0xFFFFFFFF : m);
        while (!all.empty() && all.back() == 0xFFFFFFFF)
            all.pop_back();
        return all;
    }
    static uint32_t new_group() { return static_cast<uint32_t>(Kind::create(me)); }
    // What the next search begins with, as if so many groups had been made before.
    static void set_next(uint32_t id) {
        qel_app_info *app = qel_get_app_info(me);
        qel_lock lock(app->mutex);
        Kind::of(app->mc).next_id = id;
    }
};
using kinds = testing::Types<app_groups, node_groups>;
struct kind_names {
    template <class Kind> static std::string GetName(int) { return Kind::kind; }
};
TYPED_TEST_SUITE(groups, kinds, kind_names);

using ids = std::vector<uint32_t>;
constexpr uint32_t hole = 0xFFFFFFFF;

// ---- numbers --------------------------------------------------------------------------------------------

TYPED_TEST(groups, the_first_group_has_the_first_number_of_the_range_and_the_next_the_next) {
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(TypeParam::create(this->me), static_cast<int32_t>(TypeParam::first));
    EXPECT_EQ(out.take(),
              MC(V, "QEL app 5 create %s-private-mcast 0x%x.\n", TypeParam::kind, TypeParam::first));
    EXPECT_EQ(TypeParam::create(this->me), static_cast<int32_t>(TypeParam::first + 1));
    EXPECT_EQ(out.take(),
              MC(V, "QEL app 5 create %s-private-mcast 0x%x.\n", TypeParam::kind, TypeParam::first + 1));
}

TYPED_TEST(groups, a_number_is_not_given_out_again_after_its_group_was_destroyed) {
    EXPECT_EQ(this->new_group(), TypeParam::first);
    TypeParam::destroy(this->me, TypeParam::first);
    EXPECT_EQ(this->new_group(), TypeParam::first + 1);
    TypeParam::destroy(this->me, TypeParam::first + 1);
    EXPECT_EQ(this->new_group(), TypeParam::first + 2);
}

TYPED_TEST(groups, each_application_counts_for_itself) {
    EXPECT_EQ(this->new_group(), TypeParam::first);
    EXPECT_EQ(TypeParam::create(6), static_cast<int32_t>(TypeParam::first));
    EXPECT_EQ(this->new_group(), TypeParam::first + 1);
}

TYPED_TEST(groups, of_128_groups_the_129th_is_refused_until_one_is_destroyed) {
    for (uint32_t i = 0; i < 128; i++)
        ASSERT_EQ(this->new_group(), TypeParam::first + i);
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(TypeParam::create(this->me), -ENOBUFS);
    EXPECT_EQ(out.take(), MC(X, "QEL app 5 %s-private-mcast creation reach to 128.\n", TypeParam::kind));
    qel_set_masks(0);
    EXPECT_EQ(TypeParam::create(6), static_cast<int32_t>(TypeParam::first)) << "another application's limit";
    TypeParam::destroy(this->me, TypeParam::first + 7);
    EXPECT_EQ(this->new_group(), TypeParam::first + 128);
    EXPECT_EQ(TypeParam::create(this->me), -ENOBUFS);
}

TYPED_TEST(groups, after_the_last_number_the_search_goes_on_from_the_first_that_no_living_group_has) {
    EXPECT_EQ(this->new_group(), TypeParam::first);
    EXPECT_EQ(this->new_group(), TypeParam::first + 1);
    EXPECT_EQ(this->new_group(), TypeParam::first + 2);
    TypeParam::destroy(this->me, TypeParam::first + 1);
    this->set_next(TypeParam::last);
    qel_capture out;
    qel_set_masks(0xE);
    EXPECT_EQ(this->new_group(), TypeParam::last);
    EXPECT_EQ(out.take(), "");
    const std::string wrap = MC(W, "QEL %s-private-mcast ID wrap-around to lower.\n", TypeParam::kind);
    EXPECT_EQ(this->new_group(), TypeParam::first + 1);
    EXPECT_EQ(out.take(), wrap);
    EXPECT_EQ(this->new_group(), TypeParam::first + 3);
    EXPECT_EQ(out.take(), "");
}

TYPED_TEST(groups, a_search_that_meets_a_living_group_at_the_last_number_wraps_within) {
    this->set_next(TypeParam::last);
    EXPECT_EQ(this->new_group(), TypeParam::last);
    this->set_next(TypeParam::last);
    qel_capture out;
    qel_set_masks(0xE);
    EXPECT_EQ(this->new_group(), TypeParam::first);
    EXPECT_EQ(out.take(), MC(W, "QEL %s-private-mcast ID wrap-around to lower.\n", TypeParam::kind));
    EXPECT_EQ(this->new_group(), TypeParam::first + 1);
}

TYPED_TEST(groups, a_whole_turn_through_the_range_of_numbers_meets_every_one_once) {
    std::set<uint32_t> seen;
    for (uint32_t i = TypeParam::first; i <= TypeParam::last; i++) {
        const uint32_t id = this->new_group();
        ASSERT_EQ(id, i);
        TypeParam::destroy(this->me, id);
    }
    EXPECT_EQ(this->new_group(), TypeParam::first);
}

// ---- members --------------------------------------------------------------------------------------------

TYPED_TEST(groups, a_new_group_has_its_number_and_no_member) {
    const uint32_t id = this->new_group();
    typename TypeParam::group g;
    memset(&g, 0x55, sizeof g);
    TypeParam::get(this->me, id, &g);
    EXPECT_EQ(g.id, id);
    EXPECT_EQ(std::size(g.members), TypeParam::slots);
    for (const uint32_t m : g.members)
        EXPECT_EQ(m, TypeParam::empty);
}

TYPED_TEST(groups, members_take_the_first_empty_slot) {
    const uint32_t id = this->new_group();
    for (const uint32_t m : {10u, 20u, 30u, 40u})
        EXPECT_EQ(TypeParam::add(this->me, id, m), 0);
    EXPECT_EQ(this->members(id), (ids{10, 20, 30, 40}));
    EXPECT_EQ(TypeParam::del(this->me, id, 20), 0);
    EXPECT_EQ(this->members(id), (ids{10, hole, 30, 40}));
    EXPECT_EQ(TypeParam::add(this->me, id, 50), 0);
    EXPECT_EQ(this->members(id), (ids{10, 50, 30, 40}));
    EXPECT_EQ(TypeParam::del(this->me, id, 40), 0);
    EXPECT_EQ(this->members(id), (ids{10, 50, 30}));
}

TYPED_TEST(groups, a_member_added_again_stays_in_one_slot_and_may_move_to_an_earlier_one) {
    const uint32_t id = this->new_group();
    for (const uint32_t m : {10u, 20u, 30u})
        EXPECT_EQ(TypeParam::add(this->me, id, m), 0);
    EXPECT_EQ(TypeParam::add(this->me, id, 20), 0);
    EXPECT_EQ(this->members(id), (ids{10, 20, 30}));
    EXPECT_EQ(TypeParam::del(this->me, id, 10), 0);
    EXPECT_EQ(TypeParam::add(this->me, id, 30), 0);
    EXPECT_EQ(this->members(id), (ids{30, 20}));
}

TYPED_TEST(groups, a_full_group_refuses_a_stranger_but_not_a_member_it_has) {
    const uint32_t id = this->new_group();
    for (uint32_t i = 0; i < TypeParam::slots; i++)
        ASSERT_EQ(TypeParam::add(this->me, id, 100 + i), 0);
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(TypeParam::add(this->me, id, 99), -ENOBUFS);
    EXPECT_EQ(out.take(), MC(X, "QEL app 5 %s-private-mcast 0x%x member reach to %u.\n", TypeParam::kind, id,
                             TypeParam::slots));
    EXPECT_EQ(TypeParam::add(this->me, id, 100 + TypeParam::slots - 1), 0);
    qel_set_masks(0);
    const ids before = this->members(id);
    EXPECT_EQ(before.size(), TypeParam::slots);
    EXPECT_EQ(TypeParam::add(this->me, id, 99), -ENOBUFS);
    EXPECT_EQ(this->members(id), before) << "a refusal changes nothing";
    EXPECT_EQ(TypeParam::del(this->me, id, 103), 0);
    EXPECT_EQ(TypeParam::add(this->me, id, 99), 0);
    EXPECT_EQ(this->members(id)[3], 99u);
}

TYPED_TEST(groups, the_ends_of_the_ranges_are_members_and_what_is_beside_them_is_invalid) {
    const uint32_t id = this->new_group();
    for (const uint32_t m : TypeParam::valid)
        EXPECT_EQ(TypeParam::add(this->me, id, m), 0);
    EXPECT_EQ(this->members(id), ids(std::begin(TypeParam::valid), std::end(TypeParam::valid)));
    qel_capture out;
    for (const uint32_t m : TypeParam::invalid) {
        const std::string wanted = MC(X, "%s", "") + qel_format(TypeParam::invalid_text, static_cast<int>(m));
        qel_set_masks();
        EXPECT_EQ(TypeParam::add(this->me, id, m), -EINVAL);
        EXPECT_EQ(out.take(), wanted);
        EXPECT_EQ(TypeParam::add(9, 12345, m), -EINVAL) << "the member is judged first";
        EXPECT_EQ(out.take(), wanted);
        qel_set_masks(0);
    }
    EXPECT_EQ(this->members(id), ids(std::begin(TypeParam::valid), std::end(TypeParam::valid)));
}

TYPED_TEST(groups, deleting_what_is_no_member_or_no_possible_one_succeeds) {
    const uint32_t id = this->new_group();
    EXPECT_EQ(TypeParam::add(this->me, id, 10), 0);
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(TypeParam::del(this->me, id, 11), 0);
    EXPECT_EQ(TypeParam::del(this->me, id, TypeParam::empty), 0);
    EXPECT_EQ(TypeParam::del(this->me, id, 99999), 0);
    EXPECT_EQ(TypeParam::del(this->me, id, 10), 0);
    EXPECT_EQ(out.take(), "") << "success says nothing";
    EXPECT_TRUE(this->members(id).empty());
}

TYPED_TEST(groups, a_destroyed_group_is_unknown_and_nothing_else_changes) {
    const uint32_t a = this->new_group(), b = this->new_group(), c = this->new_group();
    for (const uint32_t id : {a, b, c})
        EXPECT_EQ(TypeParam::add(this->me, id, id - TypeParam::first + 1), 0);
    qel_capture out;
    qel_set_masks();
    TypeParam::destroy(this->me, b);
    EXPECT_EQ(out.take(), "") << "success says nothing";
    qel_set_masks(0);
    EXPECT_EQ(this->members(a), (ids{1}));
    EXPECT_TRUE(this->members(b).empty());
    EXPECT_EQ(this->members(c), (ids{3}));
    EXPECT_EQ(TypeParam::add(this->me, b, 1), -ENOENT);
}

TYPED_TEST(groups, a_lookup_gives_a_copy) {
    const uint32_t id = this->new_group();
    EXPECT_EQ(TypeParam::add(this->me, id, 10), 0);
    typename TypeParam::group g;
    TypeParam::get(this->me, id, &g);
    g.members[0] = 77;
    EXPECT_EQ(this->members(id), (ids{10}));
    EXPECT_EQ(TypeParam::add(this->me, id, 20), 0);
    EXPECT_EQ(g.members[1], TypeParam::empty);
}

// ---- unknown --------------------------------------------------------------------------------------------

TYPED_TEST(groups, of_an_application_that_is_not_here_everything_is_unknown) {
    const std::string unknown = MC(X, "QEL app 9 does not registered.\n");
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(TypeParam::create(9), -ENOENT);
    EXPECT_EQ(out.take(), unknown);
    EXPECT_EQ(TypeParam::add(9, TypeParam::first, 1), -ENOENT);
    EXPECT_EQ(out.take(), unknown);
    EXPECT_EQ(TypeParam::del(9, TypeParam::first, 1), -ENOENT);
    EXPECT_EQ(out.take(), unknown);
    TypeParam::destroy(9, TypeParam::first);
    EXPECT_EQ(out.take(), unknown);
    typename TypeParam::group g;
    memset(&g, 0x55, sizeof g);
    TypeParam::get(9, TypeParam::first, &g);
    EXPECT_EQ(out.take(), unknown);
    EXPECT_EQ(g.id, TypeParam::empty);
    for (const uint32_t m : g.members)
        EXPECT_EQ(m, TypeParam::empty);
    EXPECT_EQ(TypeParam::create(0), -ENOENT);
    EXPECT_EQ(out.take(), MC(X, "QEL app 0 does not registered.\n"));
}

TYPED_TEST(groups, an_unknown_group_is_named_in_hexadecimal_but_by_the_lookup_in_decimal) {
    const uint32_t id = TypeParam::first + 0xA;
    const std::string hexadecimal =
        MC(X, "QEL app 5 does not create %s-private-mcast 0x%x.\n", TypeParam::kind, id);
    qel_capture out;
    qel_set_masks();
    EXPECT_EQ(TypeParam::add(this->me, id, 1), -ENOENT);
    EXPECT_EQ(out.take(), hexadecimal);
    EXPECT_EQ(TypeParam::del(this->me, id, 1), -ENOENT);
    EXPECT_EQ(out.take(), hexadecimal);
    TypeParam::destroy(this->me, id);
    EXPECT_EQ(out.take(), hexadecimal);
    typename TypeParam::group g;
    memset(&g, 0x55, sizeof g);
    TypeParam::get(this->me, id, &g);
    EXPECT_EQ(out.take(), MC(X, "QEL app 5 does not create %s-private-mcast %u.\n", TypeParam::kind, id));
    EXPECT_EQ(g.id, TypeParam::empty);
    for (const uint32_t m : g.members)
        EXPECT_EQ(m, TypeParam::empty);
}

TYPED_TEST(groups, the_groups_of_one_application_are_unknown_to_another_of_the_same_process) {
    const uint32_t id = this->new_group();
    EXPECT_EQ(TypeParam::add(this->me, id, 10), 0);
    EXPECT_TRUE(this->members(id, 6).empty());
    EXPECT_EQ(TypeParam::add(6, id, 11), -ENOENT);
    EXPECT_EQ(TypeParam::del(6, id, 10), -ENOENT);
    TypeParam::destroy(6, id);
    EXPECT_EQ(this->members(id), (ids{10}));
    EXPECT_EQ(TypeParam::create(6), static_cast<int32_t>(id));
    EXPECT_EQ(TypeParam::add(6, id, 11), 0);
    EXPECT_EQ(this->members(id), (ids{10}));
    EXPECT_EQ(this->members(id, 6), (ids{11}));
}

TYPED_TEST(groups, a_group_of_the_other_kind_is_unknown) {
    ASSERT_GT(qel_create_app_mcast(this->me), 0);
    ASSERT_GT(qel_create_node_mcast(this->me), 0);
    const uint32_t other = TypeParam::first == 0x3000 ? 0x80000 : 0x3000;
    EXPECT_EQ(TypeParam::add(this->me, other, 1), -ENOENT);
}

// ---- configured -----------------------------------------------------------------------------------------

struct mc_conf : qel_process {};

TEST_F(mc_conf, groups_of_the_configuration_are_read_by_whoever_asks_and_made_by_nobody) {
    set_conf("[APP_MCAST_TBL]\n3000, one, 7 8, comment\n3001, two, 9, comment\n");
    ASSERT_EQ(add_app(5, false), 0);
    qel_set_masks(0);
    uint32_t members[QEL_APP_GROUP_MBRS];
    EXPECT_EQ(qel_get_app_mc_members(0x3000, members), 2);
    EXPECT_EQ(members[0], 7u);
    EXPECT_EQ(mc_stat(5), "  Private application multicast number 0:\n  Private node multicast number 0:\n");
    EXPECT_EQ(qel_add_app_mcast(5, 0x3000, 10), -ENOENT);
    EXPECT_EQ(qel_create_app_mcast(5), 0x3000);
    qel_app_mc_group g;
    qel_get_app_mc_mbr(5, 0x3000, &g);
    EXPECT_EQ(g.members[0], 0u) << "made by the application, so empty";
}

// ---- print ----------------------------------------------------------------------------------------------

struct mc_print : qel_process {
    mc_print() {
        if (add_app(5, false) != 0)
            abort();
    }
};

TEST_F(mc_print, a_fresh_state_is_two_lines) {
    EXPECT_EQ(mc_stat(5), "  Private application multicast number 0:\n  Private node multicast number 0:\n");
}

TEST_F(mc_print, groups_are_printed_in_the_order_of_creation_with_their_members_in_the_order_of_slots) {
    for (int i = 0; i < 3; i++) {
        ASSERT_GT(qel_create_app_mcast(5), 0);
        ASSERT_GT(qel_create_node_mcast(5), 0);
    }
    for (const uint32_t m : {20479u, 7u, 1u})
        EXPECT_EQ(qel_add_app_mcast(5, 0x3000, m), 0);
    EXPECT_EQ(qel_del_app_mcast(5, 0x3000, 7), 0);
    EXPECT_EQ(qel_add_app_mcast(5, 0x3002, 8), 0);
    for (const uint32_t n : {65535u, 0u, 4u})
        EXPECT_EQ(qel_add_node_mcast(5, 0x80002, n), 0);
    qel_destroy_app_mcast(5, 0x3001);
    qel_destroy_node_mcast(5, 0x80000);
    EXPECT_EQ(mc_stat(5), "  Private application multicast number 2:\n"
                          "    ID 0x3000, members: 20479 1\n"
                          "    ID 0x3002, members: 8\n"
                          "  Private node multicast number 2:\n"
                          "    ID 0x80001, members:\n"
                          "    ID 0x80002, members: 65535 0 4\n");
}

// ---- many threads ---------------------------------------------------------------------------------------

TEST_F(mc_print, eight_threads_that_make_and_destroy_groups_at_once_never_get_the_same_one) {
    constexpr int threads = 8, rounds = 200;
    qel_set_masks(0);
    std::atomic<int> wrong{0};
    {
        std::vector<std::unique_ptr<qel_task>> tasks;
        for (uint32_t t = 1; t <= threads; t++)
            tasks.push_back(std::make_unique<qel_task>([&wrong, t] {
                for (int i = 0; i < rounds; i++) {
                    const auto id = static_cast<uint32_t>(qel_create_app_mcast(5));
                    wrong += qel_add_app_mcast(5, id, t) != 0;
                    wrong += qel_add_app_mcast(5, id, 100 + t) != 0;
                    qel_app_mc_group g;
                    qel_get_app_mc_mbr(5, id, &g);
                    wrong += g.id != id || g.members[0] != t || g.members[1] != 100 + t || g.members[2] != 0;
                    qel_destroy_app_mcast(5, id);
                }
            }));
        for (auto &t : tasks)
            ASSERT_TRUE(t->join());
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(mc_stat(5), "  Private application multicast number 0:\n  Private node multicast number 0:\n");
    EXPECT_EQ(qel_create_app_mcast(5), 0x3000 + threads * rounds);
}

} // namespace
