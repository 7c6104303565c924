// A daemon in a world of the test's own (qel_world.h), with applications of its node that the test plays: a
// published one answers the daemon's questions as it is told to.
#ifndef QELD_WORLD_H
#define QELD_WORLD_H

#include <atomic>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "qel_app_info.h"
#include "qel_capture.h"
#include "qel_log.h"
#include "qel_mng.h"
#include "qel_world.h"
#include "qeld.h"
#include "qeld_msg.h"

struct qeld_world : qel_world {
    static constexpr uint32_t my_node = 1;

    struct played {
        uint32_t pid = 0, mask = 0;
        enum { answers, is_silent, answers_status, answers_data } how = answers;
        uint32_t status = 0;    // answers_status
        qel_fake::bytes data{}; // answers_data
        uint32_t reply_id = 0;  // instead of its own
    };

    // Registers the daemon's application; with_events starts its threads as well.
    void start(bool with_events = true) {
        static const qel_dispatcher table[] = {{1, qeld_msg_dispatch}, {0, nullptr}};
        qel_fake::on_sendto([this](const qel_fake::call &c) { take(c); });
        ASSERT_EQ(qel_register(1, "qel_daemon", table, nullptr), 0);
        if (!with_events)
            return;
        ASSERT_EQ(qeld_event_init(), 0);
        ASSERT_TRUE(run());
    }
    // The daemon's name is published: the daemon handshakes with itself and begins to read events.
    void come_up() {
        add(1, {.pid = static_cast<uint32_t>(getpid())}, false);
        qel_fake::publish(1, my_node);
        ASSERT_TRUE(qel_fake::settle());
        ASSERT_TRUE(qel_app_online(1, my_node));
        qel_time::advance(std::chrono::seconds(1));
        ASSERT_TRUE(qel_fake::settle());
    }
    ~qeld_world() override { qel_fake::on_sendto({}); }

    void add(uint32_t id, const played &what, bool publish = true) {
        {
            qel_lock lock(mutex_);
            apps_[id] = what;
        }
        if (publish)
            qel_fake::publish(id, my_node);
    }
    // The application's process is gone: its name, and then every send to it.
    void remove(uint32_t id) {
        {
            qel_lock lock(mutex_);
            apps_.erase(id);
        }
        qel_fake::withdraw(id, my_node);
    }
    void settle() { ASSERT_TRUE(qel_fake::settle()); }

    // What was sent to an application of this node by the daemon as a management message, oldest first.
    std::vector<qel_seen> sent_to(uint32_t id) {
        std::vector<qel_seen> found;
        for (const qel_fake::call &c : qel_fake::calls(qel_fake::op::sendto)) {
            const qel_seen s = unwire(c.data);
            if (c.app() == id && c.node() == my_node && s.hdr.src_app == 1 && s.hdr.flags & QEL_FLAG_MNG)
                found.push_back(s);
        }
        return found;
    }

    // "pid:mask:app,app" per process.
    static std::string registry() {
        std::string text;
        qeld_registry_copy copy;
        qeld_registry_copy::proc proc;
        while (copy.next(&proc)) {
            text += (text.empty() ? "" : " ") + std::to_string(proc.pid) + ":" +
                    std::to_string(proc.dbg_status) + ":";
            for (uint32_t i = 0; i < proc.app_count; i++)
                text += (i ? "," : "") + std::to_string(proc.apps[i]);
        }
        return text;
    }

    // The same without the daemon's own process.
    static std::string others() {
        std::string text = registry();
        const size_t own = text.find(std::to_string(getpid()) + ":");
        if (own == std::string::npos)
            return text;
        const size_t end = text.find(' ', own);
        text.erase(own, end == std::string::npos ? end : end + 1 - own);
        if (!text.empty() && text.back() == ' ')
            text.pop_back();
        return text;
    }

    static qel_fake::bytes host_tlv(uint16_t type, const std::vector<uint32_t> &words) {
        qel_fake::bytes b(4 + words.size() * 4);
        (void)qel_tlv_set(b.data(), type, words.data(), static_cast<uint32_t>(words.size() * 4));
        return b;
    }
    static qel_fake::bytes event_record(uint32_t event, uint32_t type, uint32_t lower, uint32_t upper) {
        tipc_event e{};
        e.event = event;
        e.found_lower = lower;
        e.found_upper = upper;
        e.s.seq.type = type;
        qel_fake::bytes b(sizeof e);
        memcpy(b.data(), &e, sizeof e);
        return b;
    }

  private:
    // On the sending thread.
    void take(const qel_fake::call &c) {
        if (c.node() != my_node)
            return;
        if (c.app() == 1) { // to itself
            qel_fake::push(qel_get_app_sd(1), c.data, 1, my_node);
            return;
        }
        const qel_seen s = unwire(c.data);
        if (s.hdr.flags != (QEL_FLAG_MNG | QEL_FLAG_REQUEST))
            return;
        played found;
        {
            qel_lock lock(mutex_);
            const auto it = apps_.find(c.app());
            if (it == apps_.end()) {
                qel_fake::fail_to(c.app(), my_node, EHOSTUNREACH);
                return;
            }
            found = it->second;
        }
        if (found.how == played::is_silent)
            return;
        qel_fake::bytes data = found.data;
        if (found.how == played::answers)
            data = host_tlv(4, {found.reply_id ? found.reply_id : c.app(), found.pid, found.mask});
        deliver(1, wire({.flags = 0x0E,
                         .src_app = c.app(),
                         .src_node = my_node,
                         .dst_app = 1,
                         .seq = s.hdr.seq,
                         .status = found.how == played::answers_status ? found.status : 0},
                        data));
    }

    qel_mutex mutex_;
    std::map<uint32_t, played> apps_;
};

#endif
