#include "qel_process.h"

#include <cerrno>
#include <utility>

#include "qel_app_info.h"
#include "qel_dm.h"
#include "qel_flow_ctrl.h"
#include "qel_mng_int.h"
#include "qel_rpc.h"

namespace {
thread_local bool t_task = false;
std::function<void()> g_at_deadline; // guarded by the lock of qel_time
const qel_sys *g_below = nullptr;
int timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex, const timespec *deadline) {
    const int ret = g_below->cond_timedwait(cond, mutex, deadline);
    if (ret != ETIMEDOUT || !t_task)
        return ret;
    qel_time::lock();
    const auto act = std::exchange(g_at_deadline, nullptr);
    qel_time::unlock();
    if (act) {
        pthread_mutex_unlock(mutex);
        act();
        pthread_mutex_lock(mutex);
    }
    return ret;
}
} // namespace

qel_process::qel_process() {
    static const qel_sys below = qel_sys_get();
    static const qel_sys table = [] {
        qel_sys t = below;
        t.cond_timedwait = timedwait;
        return t;
    }();
    g_below = &below;
    g_qel_sys.store(&table);
}

void qel_at_deadline(std::function<void()> act) {
    qel_time::lock();
    g_at_deadline = std::move(act);
    qel_time::unlock();
}

qel_task::qel_task(std::function<void()> fun) : state_(std::make_shared<state>()) {
    state_->fun = std::move(fun);
    auto *mine = new std::shared_ptr<state>(state_);
    const auto run = [](void *p) -> void * {
        const std::unique_ptr<std::shared_ptr<state>> s(static_cast<std::shared_ptr<state> *>(p));
        t_task = true;
        (*s)->fun();
        (*s)->ended = true;
        return nullptr;
    };
    if (qel_sys_get().thread_create(&thread_, run, mine) != 0)
        abort();
}
bool qel_task::join() {
    if (joined_)
        return true;
    const std::shared_ptr<state> s = state_;
    if (!qel_time::wait_for([s] { return s->ended.load(); }))
        return false;
    joined_ = true;
    return pthread_join(thread_, nullptr) == 0;
}
qel_task::~qel_task() {
    if (!join()) {
        fprintf(stderr, "a task of the test does not end\n");
        abort();
    }
}

void qel_process::serve(uint32_t app, uint32_t peer, const std::vector<uint32_t> &nodes) {
    ASSERT_EQ(qel_add_comm_app(app, peer), 0);
    qel_lock lock(g_lib_mutex);
    qel_comm_app *comm = __qel_find_comm_app(peer);
    for (const uint32_t node : nodes) {
        comm->servers.set(node);
        comm->online.set(node);
    }
}
void qel_process::vanish(uint32_t peer, const std::vector<uint32_t> &nodes) {
    qel_lock lock(g_lib_mutex);
    qel_comm_app *comm = __qel_find_comm_app(peer);
    for (const uint32_t node : nodes) {
        comm->servers.clear(node);
        comm->online.clear(node);
    }
}

static std::string printed(const std::function<void()> &print) {
    qel_lock lock(g_print_mutex);
    qel_buf_printf_reset();
    print();
    return static_cast<const char *>(qel_msg_const_data(g_print_msg));
}
std::string qel_process::fc_stat(uint32_t app) {
    return printed([app] { qel_cli_print_fc_stat(app); });
}
std::string qel_process::rpc_stat(uint32_t app) {
    return printed([app] { qel_cli_print_rpc_stat(app); });
}
std::string qel_process::mc_stat(uint32_t app) {
    return printed([app] {
        qel_app_info *info = qel_get_app_info(app);
        ASSERT_NE(info, nullptr);
        qel_lock lock(info->mutex);
        qel_cli_print_mc_info(&info->mc);
    });
}

std::string qel_process::only(const std::string &text, const std::string &module) {
    std::string found;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        if (text.compare(at, module.size() + 2, "<" + module + ">") == 0)
            found += text.substr(at, end - at);
        at = end;
    }
    return found;
}

std::vector<qel_process::sent> qel_process::take_sent() {
    std::vector<sent> all;
    for (const qel_fake::call &c : qel_fake::take_sent())
        all.push_back({qel_format("%u/%u", c.app(), c.node()), unwire(c.data)});
    return all;
}
std::vector<std::string> qel_process::take_destinations() {
    std::vector<std::string> all;
    for (const sent &s : take_sent())
        all.push_back(s.to);
    return all;
}
