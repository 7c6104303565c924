// The name table and the subscriptions: what the kernel's name table does, as plain data without sockets.
//
// Every question is asked for a viewer, the node that asks, because a node that is cut off sees its own names
// only and is not seen by others. Events are handed to one function; the table calls it while it walks, so it
// must not change the table.
#ifndef FABRIC_NAMES_H
#define FABRIC_NAMES_H

#include <cstdint>
#include <functional>
#include <linux/tipc.h>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

namespace fabric {

struct subscriber; // a topology connection; the table only hands it back

struct publication {
    uint64_t id = 0; // order of publication
    uint32_t type = 0, lower = 0, upper = 0;
    int32_t scope = TIPC_CLUSTER_SCOPE;
    uint32_t ref = 0, node = 0;
    bool leaving = false; // its socket is being closed: no lookup finds it, the withdrawal is still to come
};

struct subscription {
    subscriber *owner = nullptr;
    uint32_t viewer = 0;
    tipc_subscr record{}; // as sent, byte for byte
    bool swapped = false; // the other byte order
    uint32_t type = 0, lower = 0, upper = 0, timeout = 0, filter = 0;
    uint64_t timer = 0;                                         // of the server; 0: none
    std::list<std::unique_ptr<subscription>>::iterator place{}; // in the table
};

// What a subscription record asks for.
enum class subscr_kind { subscribe, cancel, illegal };
// Reads @record in either byte order into @out. Pure.
subscr_kind read_subscr(const tipc_subscr &record, subscription &out);
tipc_event make_event(const subscription &s, uint32_t event, uint32_t lower, uint32_t upper, uint32_t ref,
                      uint32_t node);

using event_fun = std::function<void(subscription &, const tipc_event &)>;

class name_table {
  public:
    explicit name_table(event_fun on_event) : on_event_(std::move(on_event)) {}

    publication *publish(uint32_t type, uint32_t lower, uint32_t upper, int32_t scope, uint32_t ref,
                         uint32_t node);
    void withdraw(publication *p);

    // The publications of the range that a sender on @viewer would choose from, its own node's if there are
    // any.
    // @domain: 0, or the node they must be on.
    void lookup(uint32_t type, uint32_t instance, uint32_t domain, uint32_t viewer,
                std::vector<publication *> &out);

    // Takes the subscription over and reports what is published already.
    subscription *subscribe(std::unique_ptr<subscription> s);
    void unsubscribe(subscription *s);
    [[nodiscard]] size_t subscriptions() const { return subscription_count_; }

    // Cuts a node off from the others, or joins it again, with all the events of that.
    void isolate(uint32_t node, bool cut);
    [[nodiscard]] bool reachable(uint32_t from, uint32_t to) const {
        return cut_off_.empty() || from == to || (!cut_off_.contains(from) && !cut_off_.contains(to));
    }

    void for_each(const std::function<void(const publication &)> &fun) const;
    void for_each_subscription(const std::function<void(const subscription &)> &fun) const;

  private:
    using range_key = std::pair<uint32_t, uint32_t>;
    struct range {
        std::vector<std::unique_ptr<publication>> all; // in order of publication
        size_t turn = 0;
    };
    struct service {
        std::map<range_key, range> ranges;
        std::set<range_key> wide;                               // the keys of more than one instance
        std::list<std::unique_ptr<subscription>> subscriptions; // newest first, as the kernel keeps them
    };
    [[nodiscard]] bool visible(const publication &p, uint32_t viewer) const {
        return p.scope == TIPC_NODE_SCOPE ? p.node == viewer || p.node == 0 : reachable(viewer, p.node);
    }
    size_t visible_count(const range &r, uint32_t viewer) const;
    void report(service &s, const range &r, const publication &p, uint32_t event);
    bool pick(const range &r, uint32_t domain, uint32_t viewer, std::vector<publication *> &out) const;

    std::map<uint32_t, service> services_;
    std::set<uint32_t> cut_off_;
    event_fun on_event_;
    uint64_t next_id_ = 1;
    size_t subscription_count_ = 0;
};

} // namespace fabric
#endif
