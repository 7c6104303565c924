// Private multicast groups: up to 128 groups of applications and 128 of nodes per application, kept in its
// record, unknown to everybody else. The public operations stand in qel.h; here are the state and what the
// application's record calls.
#ifndef QEL_MC_H
#define QEL_MC_H

#include "qel_base.h"
#include "qel_dm.h"

template <class Group> struct qel_mc_record {
    qel_link link{};
    Group group{};
};
template <class Group> struct qel_mc_groups {
    using record = qel_mc_record<Group>;
    uint32_t count = 0;
    uint32_t next_id = 0;                          // where the search for the next ID starts
    qel_list<record, offsetof(record, link)> list; // in order of creation
};

// Guarded by the mutex of the application record that holds it.
struct qel_mc_state {
    qel_mc_groups<qel_app_mc_group> apps;
    qel_mc_groups<qel_node_mc_group> nodes;
};

void qel_mc_init(qel_mc_state *state) noexcept;
// Into the print buffer; the caller holds the record's mutex.
void qel_cli_print_mc_info(qel_mc_state *state) noexcept QEL_REQUIRES(g_print_mutex);

#endif
