#include "qel_mc.h"

#include <cerrno>

#define QEL_LOG_SRC "qel_mc"
#include "qel_app_info.h"
#include "qel_log.h"

// What differs between the two kinds of groups. The texts of lookups print the ID in decimal, all others in
// hexadecimal; known and kept.
struct app_kind {
    using group = qel_app_mc_group;
    static constexpr uint32_t first_id = QEL_APP_GROUP_MIN, last_id = QEL_APP_GROUP_MAX;
    static constexpr uint32_t empty_slot = 0, clear_byte = 0;
    static constexpr const char *name = "app";
    static bool is_member(uint32_t slot) noexcept { return slot != 0; }
    static bool valid(uint32_t member) noexcept { return qel_valid_app_id(member) != 0; }
    static void invalid(uint32_t member) noexcept { QEL_ERROR("QEL app ID %d invalid.\n", member); }
    static qel_mc_groups<group> &of(qel_mc_state &mc) noexcept { return mc.apps; }
};
struct node_kind {
    using group = qel_node_mc_group;
    static constexpr uint32_t first_id = QEL_NODE_GROUP_MIN, last_id = QEL_NODE_GROUP_MAX;
    static constexpr uint32_t empty_slot = 0xFFFFFFFF, clear_byte = 0xFF;
    static constexpr const char *name = "node";
    static bool is_member(uint32_t slot) noexcept { return qel_valid_node_id(slot) != 0; }
    static bool valid(uint32_t member) noexcept { return qel_valid_node_id(member) != 0; }
    static void invalid(uint32_t member) noexcept { QEL_ERROR("QEL node ID %d invalid.\n", member); }
    static qel_mc_groups<group> &of(qel_mc_state &mc) noexcept { return mc.nodes; }
};

void qel_mc_init(qel_mc_state *state) noexcept {
    state->apps.count = 0;
    state->apps.next_id = app_kind::first_id;
    state->nodes.count = 0;
    state->nodes.next_id = node_kind::first_id;
}

static qel_app_info *find_app(uint32_t app_id) noexcept {
    qel_app_info *app = qel_get_app_info(app_id);
    if (!app)
        QEL_ERROR("QEL app %d does not registered.\n", app_id);
    return app;
}

template <class Kind>
static qel_mc_record<typename Kind::group> *find(qel_mc_groups<typename Kind::group> &groups,
                                                 uint32_t id) noexcept {
    for (auto &record : groups.list)
        if (record.group.id == id)
            return &record;
    return nullptr;
}

// The group, or null after the error line.
template <class Kind>
static qel_mc_record<typename Kind::group> *find_told(qel_app_info *app, uint32_t id) noexcept
    QEL_REQUIRES(app->mutex) {
    auto *record = find<Kind>(Kind::of(app->mc), id);
    if (!record)
        QEL_ERROR("QEL app %d does not create %s-private-mcast 0x%x.\n", app->app_id, Kind::name, id);
    return record;
}

template <class Kind> static int32_t create(uint32_t app_id) noexcept {
    qel_app_info *app = find_app(app_id);
    if (!app)
        return -ENOENT;
    const auto wrap = [](uint32_t id) noexcept {
        if (id <= Kind::last_id)
            return id;
        QEL_WARN("QEL %s-private-mcast ID wrap-around to lower.\n", Kind::name);
        return Kind::first_id;
    };
    uint32_t id;
    {
        qel_lock lock(app->mutex);
        auto &groups = Kind::of(app->mc);
        if (groups.count >= QEL_GROUPS_MAX) {
            QEL_ERROR("QEL app %d %s-private-mcast creation reach to %d.\n", app_id, Kind::name,
                      QEL_GROUPS_MAX);
            return -ENOBUFS;
        }
        auto *record = qel_new<qel_mc_record<typename Kind::group>>();
        memset(&record->group, Kind::clear_byte, sizeof record->group);
        // The search goes on from the last ID handed out, so one that was just destroyed is not given out
        // again.
        id = wrap(groups.next_id);
        while (find<Kind>(groups, id))
            groups.next_id = id = wrap(id + 1);
        groups.next_id = id + 1;
        record->group.id = id;
        groups.list.push_back(record);
        groups.count++;
    }
    QEL_VERBOSE("QEL app %d create %s-private-mcast 0x%x.\n", app_id, Kind::name, id);
    return static_cast<int32_t>(id);
}

template <class Kind> static void clear_member(typename Kind::group &group, uint32_t member) noexcept {
    for (uint32_t &slot : group.members)
        if (slot == member)
            slot = Kind::empty_slot;
}

template <class Kind> static int add(uint32_t app_id, uint32_t group, uint32_t member) noexcept {
    if (!Kind::valid(member)) {
        Kind::invalid(member);
        return -EINVAL;
    }
    qel_app_info *app = find_app(app_id);
    if (!app)
        return -ENOENT;
    qel_lock lock(app->mutex);
    auto *record = find_told<Kind>(app, group);
    if (!record)
        return -ENOENT;
    clear_member<Kind>(record->group, member); // never listed twice
    for (uint32_t &slot : record->group.members) {
        if (Kind::is_member(slot))
            continue;
        slot = member;
        return 0;
    }
    QEL_ERROR("QEL app %d %s-private-mcast 0x%x member reach to %d.\n", app_id, Kind::name, group,
              static_cast<int>(std::size(record->group.members)));
    return -ENOBUFS;
}

template <class Kind> static int del(uint32_t app_id, uint32_t group, uint32_t member) noexcept {
    qel_app_info *app = find_app(app_id);
    if (!app)
        return -ENOENT;
    qel_lock lock(app->mutex);
    auto *record = find_told<Kind>(app, group);
    if (!record)
        return -ENOENT;
    clear_member<Kind>(record->group, member);
    return 0;
}

template <class Kind> static void destroy(uint32_t app_id, uint32_t group) noexcept {
    qel_app_info *app = find_app(app_id);
    if (!app)
        return;
    qel_lock lock(app->mutex);
    auto *record = find_told<Kind>(app, group);
    if (!record)
        return;
    auto &groups = Kind::of(app->mc);
    groups.list.unlink(record);
    groups.count--;
    qel_delete(record);
}

template <class Kind> static void get(uint32_t app_id, uint32_t group, typename Kind::group *out) noexcept {
    memset(out, Kind::clear_byte, sizeof *out);
    qel_app_info *app = find_app(app_id);
    if (!app)
        return;
    qel_lock lock(app->mutex);
    const auto *record = find<Kind>(Kind::of(app->mc), group);
    if (record)
        *out = record->group;
    else
        QEL_ERROR("QEL app %d does not create %s-private-mcast %d.\n", app_id, Kind::name, group);
}

int32_t qel_create_app_mcast(uint32_t app_id) noexcept { return create<app_kind>(app_id); }
int32_t qel_create_node_mcast(uint32_t app_id) noexcept { return create<node_kind>(app_id); }
int qel_add_app_mcast(uint32_t app_id, uint32_t group, uint32_t member) noexcept {
    return add<app_kind>(app_id, group, member);
}
int qel_add_node_mcast(uint32_t app_id, uint32_t group, uint32_t node) noexcept {
    return add<node_kind>(app_id, group, node);
}
int qel_del_app_mcast(uint32_t app_id, uint32_t group, uint32_t member) noexcept {
    return del<app_kind>(app_id, group, member);
}
int qel_del_node_mcast(uint32_t app_id, uint32_t group, uint32_t node) noexcept {
    return del<node_kind>(app_id, group, node);
}
void qel_destroy_app_mcast(uint32_t app_id, uint32_t group) noexcept { destroy<app_kind>(app_id, group); }
void qel_destroy_node_mcast(uint32_t app_id, uint32_t group) noexcept { destroy<node_kind>(app_id, group); }
void qel_get_app_mc_mbr(uint32_t app_id, uint32_t group, qel_app_mc_group *out) noexcept {
    get<app_kind>(app_id, group, out);
}
void qel_get_node_mc_mbr(uint32_t app_id, uint32_t group, qel_node_mc_group *out) noexcept {
    get<node_kind>(app_id, group, out);
}

template <class Kind>
static void print(qel_mc_groups<typename Kind::group> &groups) noexcept QEL_REQUIRES(g_print_mutex) {
    for (const auto &record : groups.list) {
        qel_buf_printf("    ID 0x%x, members:", record.group.id);
        for (const uint32_t slot : record.group.members)
            if (Kind::is_member(slot))
                qel_buf_printf(" %d", slot);
        qel_buf_printf("\n");
    }
}

void qel_cli_print_mc_info(qel_mc_state *state) noexcept {
    qel_buf_printf("  Private application multicast number %d:\n", state->apps.count);
    print<app_kind>(state->apps);
    qel_buf_printf("  Private node multicast number %d:\n", state->nodes.count);
    print<node_kind>(state->nodes);
}
