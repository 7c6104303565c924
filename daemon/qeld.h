// The daemon's heart: its start (qeld.cpp), the registry of what runs on this node (qeld_registry.cpp), and
// the threads that keep it (qeld_event.cpp).
//
// Threads, beside those of the library:
//   main                the console (qel_cli.h); reads the registry
//   qeld_event_process  reads the topology server, keeps the node bitmap, hands application events on
//   qeld_app_info       takes those events in order: asks who joined, forgets who quit; writes the registry
// An application that does not answer holds up qeld_app_info only. When its withdrawal is read meanwhile, the
// reader ends the wait.
#ifndef QELD_H
#define QELD_H

#include "qel_base.h"

struct tipc_event;

// ---- start (qeld.cpp) -----------------------------------------------------------------------------------

// Takes the lock on the PID file and holds it as long as the process lives. 0 when this process is the node's
// daemon now, else 1.
uint32_t qeld_already_run() noexcept;

// ---- registry (qeld_registry.cpp) -----------------------------------------------------------------------

// Replies name any application and any process ID: more records than a node can have are refused.
constexpr uint32_t qeld_records_max = 16384;

struct qeld_app_id {
    qel_link link{};
    uint32_t app_id = 0;
};

// A process that reported itself. It is listed as long as it holds an application.
struct qeld_proc_info {
    qel_link link{};
    uint32_t pid = 0;
    uint32_t dbg_status = 0;                                 // debug mask, as reported or as commanded since
    qel_list<qeld_app_id, offsetof(qeld_app_id, link)> apps; // ascending
};

struct qeld_app_mng {
    std::atomic<int32_t> sd{-1}; // connection to the topology server; the event thread's
    // Bit n % 64 of word n / 64: node n is up. Written by the event thread, read by the console, without a
    // lock: each bit stands for itself.
    std::atomic<uint64_t> nodes_online[1024]{};
    qel_mutex mutex;
    qel_list<qeld_proc_info, offsetof(qeld_proc_info, link)> procs QEL_GUARDED_BY(mutex); // ascending by pid
    uint32_t proc_count QEL_GUARDED_BY(mutex) = 0;
    uint32_t app_count QEL_GUARDED_BY(mutex) = 0;
};
extern qeld_app_mng g_app_mng;

// The registry's lock. Failures are logged and otherwise ignored.
void qeld_app_mng_lock() noexcept QEL_ACQUIRE(g_app_mng.mutex);
void qeld_app_mng_unlock() noexcept QEL_RELEASE(g_app_mng.mutex);

// The record, made when missing; null when the registry is full.
qeld_proc_info *__qeld_get_proc_info(uint32_t pid) noexcept QEL_REQUIRES(g_app_mng.mutex);
qeld_app_id *__qeld_get_app_id(qeld_proc_info *proc, uint32_t app_id) noexcept QEL_REQUIRES(g_app_mng.mutex);

// All of these take the lock themselves.
int qeld_add_app_id(uint32_t app_id, uint32_t pid) noexcept;        // 0, or -12
int qeld_update_dbg_status(uint32_t pid, uint32_t status) noexcept; // 0, or -12
int qeld_app_exist(uint32_t app_id) noexcept;                       // 1 or 0
void qeld_clean_app_info(uint32_t app_id) noexcept;
// The registry's copy of a debug command: 0, or -17 when no process holds @app_id.
int qeld_update_dbg_level(uint32_t app_id, bool on, uint32_t level) noexcept;
void qeld_clean_registry() noexcept;

void qeld_set_node(uint32_t node, bool online) noexcept;
bool qeld_node_online(uint32_t node) noexcept;
void qeld_clear_nodes() noexcept;

// A copy of the process list, for printing: a terminal may be stopped for hours, the registry's lock may not.
class qeld_registry_copy {
  public:
    qeld_registry_copy() noexcept;
    ~qeld_registry_copy() { free(words_); }
    qeld_registry_copy(const qeld_registry_copy &) = delete;
    qeld_registry_copy &operator=(const qeld_registry_copy &) = delete;

    struct proc {
        uint32_t pid, dbg_status, app_count;
        const uint32_t *apps;
    };
    // The processes one after the other; false behind the last.
    bool next(proc *out) noexcept;

  private:
    uint32_t *words_; // per process: pid, status, count, applications
    size_t size_ = 0, at_ = 0;
};

// ---- events (qeld_event.cpp) ----------------------------------------------------------------------------

// Starts the threads. 0, or the negated error of their creation.
int qeld_event_init() noexcept;

// The threads' steps, one by one, for tests.
void *qeld_event_process(void *) noexcept;  // the reader's thread
int qeld_subscr_event(int32_t sd) noexcept; // 0 or -1
int socket_wait_readable(int32_t sd) noexcept;
void qeld_event_step() noexcept; // one turn of the reader: at most one event
void qeld_process_event(const tipc_event *event) noexcept;
void qeld_process_tipc_node_event(const tipc_event *event) noexcept;
void qeld_process_qel_app_event(const tipc_event *event) noexcept;
// One application event, if one is to be handled or comes within @wait_s seconds.
bool qeld_work_step(uint32_t wait_s) noexcept;
size_t qeld_work_pending() noexcept;
// Asks application @app_id of this node who it is and records the answer. 0, or a negative error.
int qeld_get_app_info(uint32_t app_id) noexcept;

// More waiting application events than this are condensed: per application its last withdrawal and what
// follows.
constexpr size_t qeld_work_verbatim_max = 4096;

#endif
