// The library manager: the one state of the library in a process, its thread, and the presence of peers, as
// the other modules and the daemon see it. What the qel_mng files share among themselves is in qel_mng_int.h.
//
// Functions take g_lib_mutex themselves unless they are marked otherwise.
#ifndef QEL_MNG_H
#define QEL_MNG_H

#include "qel_base.h"
#include "qel_dm.h"
#include "qel_node_map.h"

struct qel_app_info;
struct qel_app_fc;
struct qel_rpc_wait_mgmt;

// Guards the library state and its lists. Lock order: the daemon's registry, the print buffer, this one, then
// one of {application record, flow control, RPC waits}, then the leaves {sequence counter, log file}. No code
// of the application and no wait for another thread ever runs under any of them.
extern qel_mutex g_lib_mutex;

// One application of this process. Slots fill from the front and never empty again, and the ID is stored last
// (release; it pairs with the acquire in qel_get_app_mng()), so a slot with an ID is complete without a lock.
struct qel_app_mng {
    std::atomic<uint32_t> app_id{0}; // 0: free, and the end of the table
    qel_app_info *info = nullptr;
    qel_app_fc *fc = nullptr;
    qel_rpc_wait_mgmt *rpc = nullptr;
};
constexpr uint32_t qel_app_slots = QEL_PROCESS_APPS_MAX + 1; // the last one stays free and ends every scan

// Registers an application; the first one starts the library. 0; -1 start-up failed or already running; the
// negated error of thread creation; -17 registered before; -105 table full; -11 a record cannot be made.
int qel_add_app_mng(uint32_t app_id, const char *name, uint8_t thread_flag, int32_t count,
                    const struct qel_dispatcher *dispatchers, qel_event_fun event_cb) noexcept;
// The slot of an application, or null. No lock.
qel_app_mng *qel_get_app_mng(uint32_t app_id) noexcept;
// Does nothing: registrations last as long as the process.
void qel_del_app_mng(qel_app_mng *slot) noexcept;

int qel_notify_running() noexcept; // returns 0
// Blocks until the process is running, feeding the watchdog of @name once a second.
void qel_wait_for_running(const char *name) noexcept;

// The blocked-resume switch of the process and of the configuration together.
int qel_blocked_resume_enabled() noexcept;

// A socket connected to the topology server, or -1. Takes no lock.
int32_t qel_create_subscription_socket() noexcept;

// ---- presence -------------------------------------------------------------------------------------------

// Declares that a local application talks to @peer_app. 0, or -2 when it is not registered here.
int qel_add_comm_app(uint32_t app_id, uint32_t peer_app) noexcept;
// The nodes with a usable server of @peer_app into @map.
void qel_get_app_server(uint32_t peer_app, qel_node_map *map) noexcept;
inline bool qel_has_app_server(const qel_node_map &map) noexcept { return map.any(); }
int qel_app_online(uint32_t peer_app, uint32_t node) noexcept;

void qel_cli_print_lib_info(uint32_t app_id) noexcept QEL_REQUIRES(g_print_mutex);
void qel_cli_print_app_comm(uint32_t app_id) noexcept QEL_REQUIRES(g_print_mutex);

#endif
