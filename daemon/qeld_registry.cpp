// What runs on this node: processes in ascending order, each with its applications in ascending order and the
// debug mask that it reported; and which nodes of the cluster are up.
#include <cerrno>
#include <cstdio>

#include "qel_dbg.h"
#include "qeld.h"

#define QEL_LOG_SRC "qeld"
#include "qel_log.h"

constinit qeld_app_mng g_app_mng;

void qeld_app_mng_lock() noexcept QEL_NO_TSA {
    const int ret = pthread_mutex_lock(&g_app_mng.mutex.m);
    if (ret != 0)
        QEL_ERROR("QELD lock app mgmt mutex failed: %s.\n", strerror(ret));
}

void qeld_app_mng_unlock() noexcept QEL_NO_TSA {
    const int ret = pthread_mutex_unlock(&g_app_mng.mutex.m);
    if (ret != 0)
        QEL_ERROR("QELD unlock app mgmt mutex failed: %s.\n", strerror(ret));
}

// ---- processes and applications -------------------------------------------------------------------------

qeld_proc_info *__qeld_get_proc_info(uint32_t pid) noexcept {
    qeld_proc_info *larger = g_app_mng.procs.front();
    while (larger && larger->pid < pid)
        larger = g_app_mng.procs.next(larger);
    if (larger && larger->pid == pid)
        return larger;
    if (g_app_mng.proc_count == qeld_records_max)
        return nullptr;

    QEL_VERBOSE("QELD add new process %d info.\n", static_cast<int>(pid));
    auto *proc = qel_new<qeld_proc_info>();
    proc->pid = pid;
    g_app_mng.procs.insert_before(larger, proc);
    g_app_mng.proc_count++;
    return proc;
}

qeld_app_id *__qeld_get_app_id(qeld_proc_info *proc, uint32_t app_id) noexcept {
    qeld_app_id *larger = proc->apps.front();
    while (larger && larger->app_id < app_id)
        larger = proc->apps.next(larger);
    if (larger && larger->app_id == app_id)
        return larger;
    if (g_app_mng.app_count == qeld_records_max)
        return nullptr;

    QEL_VERBOSE("QELD add new app %d id to process %d.\n", static_cast<int>(app_id),
                static_cast<int>(proc->pid));
    auto *app = qel_new<qeld_app_id>();
    app->app_id = app_id;
    proc->apps.insert_before(larger, app);
    g_app_mng.app_count++;
    return app;
}

static void __qeld_del_app_id(qeld_proc_info *proc, qeld_app_id *app) noexcept QEL_REQUIRES(g_app_mng.mutex) {
    proc->apps.unlink(app);
    qel_delete(app);
    g_app_mng.app_count--;
}

static void __qeld_del_proc_info(qeld_proc_info *proc) noexcept QEL_REQUIRES(g_app_mng.mutex) {
    g_app_mng.procs.unlink(proc);
    qel_delete(proc);
    g_app_mng.proc_count--;
}

static qeld_app_id *__qeld_find_app_id(qeld_proc_info *proc, uint32_t app_id) noexcept
    QEL_REQUIRES(g_app_mng.mutex) {
    for (qeld_app_id &app : proc->apps)
        if (app.app_id == app_id)
            return &app;
    return nullptr;
}

// The first process that holds @app_id.
static qeld_proc_info *__qeld_find_owner(uint32_t app_id) noexcept QEL_REQUIRES(g_app_mng.mutex) {
    for (qeld_proc_info &proc : g_app_mng.procs)
        if (__qeld_find_app_id(&proc, app_id))
            return &proc;
    return nullptr;
}

int qeld_add_app_id(uint32_t app_id, uint32_t pid) noexcept {
    qeld_app_mng_lock();
    qeld_proc_info *proc = __qeld_get_proc_info(pid);
    const qeld_app_id *app = proc ? __qeld_get_app_id(proc, app_id) : nullptr;
    if (proc && proc->apps.empty()) // no room for its first application
        __qeld_del_proc_info(proc);
    qeld_app_mng_unlock();
    return app ? 0 : -ENOMEM;
}

int qeld_update_dbg_status(uint32_t pid, uint32_t status) noexcept {
    qeld_app_mng_lock();
    qeld_proc_info *proc = __qeld_get_proc_info(pid);
    if (proc)
        proc->dbg_status = status;
    qeld_app_mng_unlock();
    return proc ? 0 : -ENOMEM;
}

int qeld_app_exist(uint32_t app_id) noexcept {
    qeld_app_mng_lock();
    const bool exists = __qeld_find_owner(app_id) != nullptr;
    qeld_app_mng_unlock();
    return exists ? 1 : 0;
}

// The walk ends at the process that loses its last application by it.
void qeld_clean_app_info(uint32_t app_id) noexcept {
    qeld_app_mng_lock();
    for (qeld_proc_info &proc : g_app_mng.procs) {
        if (qeld_app_id *app = __qeld_find_app_id(&proc, app_id))
            __qeld_del_app_id(&proc, app);
        if (proc.apps.empty()) {
            __qeld_del_proc_info(&proc);
            break;
        }
    }
    qeld_app_mng_unlock();
}

int qeld_update_dbg_level(uint32_t app_id, bool on, uint32_t level) noexcept {
    const uint32_t bits = qel_dbg_get_level_value(level);
    qeld_app_mng_lock();
    qeld_proc_info *proc = __qeld_find_owner(app_id);
    if (proc) {
        if (level == QEL_LEVEL_ALL)
            proc->dbg_status = on ? bits : 0;
        else if (on)
            proc->dbg_status |= bits;
        else
            proc->dbg_status &= ~bits;
    }
    qeld_app_mng_unlock();
    return proc ? 0 : -EEXIST;
}

void qeld_clean_registry() noexcept {
    qeld_app_mng_lock();
    for (qeld_proc_info &proc : g_app_mng.procs) {
        for (qeld_app_id &app : proc.apps)
            __qeld_del_app_id(&proc, &app);
        __qeld_del_proc_info(&proc);
    }
    qeld_app_mng_unlock();
}

// ---- copy -----------------------------------------------------------------------------------------------

constexpr size_t copy_head_words = 3; // pid, status, count

qeld_registry_copy::qeld_registry_copy() noexcept {
    qeld_app_mng_lock();
    const size_t room = g_app_mng.proc_count * copy_head_words + g_app_mng.app_count;
    words_ = static_cast<uint32_t *>(qel_zalloc((room ? room : 1) * sizeof *words_));
    for (qeld_proc_info &from : g_app_mng.procs) {
        uint32_t *head = words_ + size_;
        head[0] = from.pid;
        head[1] = from.dbg_status;
        size_ += copy_head_words;
        for (const qeld_app_id &app : from.apps) {
            words_[size_++] = app.app_id;
            head[2]++;
        }
    }
    qeld_app_mng_unlock();
}

bool qeld_registry_copy::next(proc *out) noexcept {
    if (at_ == size_)
        return false;
    const uint32_t *head = words_ + at_;
    *out = {.pid = head[0], .dbg_status = head[1], .app_count = head[2], .apps = head + copy_head_words};
    at_ += copy_head_words + head[2];
    return true;
}

// ---- nodes ----------------------------------------------------------------------------------------------

constexpr uint32_t node_count = 65536;
static_assert(sizeof g_app_mng.nodes_online * 8 == node_count);

void qeld_set_node(uint32_t node, bool online) noexcept {
    if (node >= node_count)
        return;
    const uint64_t bit = uint64_t{1} << node % 64;
    std::atomic<uint64_t> &word = g_app_mng.nodes_online[node / 64];
    if (online)
        word.fetch_or(bit, std::memory_order_relaxed);
    else
        word.fetch_and(~bit, std::memory_order_relaxed);
}

bool qeld_node_online(uint32_t node) noexcept {
    return node < node_count &&
           g_app_mng.nodes_online[node / 64].load(std::memory_order_relaxed) >> node % 64 & 1;
}

void qeld_clear_nodes() noexcept {
    for (std::atomic<uint64_t> &word : g_app_mng.nodes_online)
        word.store(0, std::memory_order_relaxed);
}
