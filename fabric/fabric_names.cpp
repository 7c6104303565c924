#include "fabric_names.h"

#include <algorithm>
#include <cstring>

namespace fabric {

constexpr uint32_t filter_known = TIPC_SUB_PORTS | TIPC_SUB_SERVICE | TIPC_SUB_CANCEL;

static uint32_t in_order(uint32_t value, bool swapped) { return swapped ? __builtin_bswap32(value) : value; }

// The byte order is told by the filter: no known bit in host order means the other one.
subscr_kind read_subscr(const tipc_subscr &record, subscription &out) {
    out.record = record;
    out.swapped = (record.filter & filter_known) == 0;
    out.type = in_order(record.seq.type, out.swapped);
    out.lower = in_order(record.seq.lower, out.swapped);
    out.upper = in_order(record.seq.upper, out.swapped);
    out.timeout = in_order(record.timeout, out.swapped);
    out.filter = in_order(record.filter, out.swapped);
    if (out.filter & TIPC_SUB_CANCEL) {
        // What is cancelled is found by its bytes, so the record becomes what was once subscribed.
        out.filter &= ~static_cast<uint32_t>(TIPC_SUB_CANCEL);
        out.record.filter = in_order(out.filter, out.swapped);
        return subscr_kind::cancel;
    }
    if (((out.filter & TIPC_SUB_PORTS) && (out.filter & TIPC_SUB_SERVICE)) || out.lower > out.upper)
        return subscr_kind::illegal;
    return subscr_kind::subscribe;
}

tipc_event make_event(const subscription &s, uint32_t event, uint32_t lower, uint32_t upper, uint32_t ref,
                      uint32_t node) {
    tipc_event e{};
    e.event = in_order(event, s.swapped);
    e.found_lower = in_order(lower, s.swapped);
    e.found_upper = in_order(upper, s.swapped);
    e.port.ref = in_order(ref, s.swapped);
    e.port.node = in_order(node, s.swapped);
    e.s = s.record;
    return e;
}

static bool overlaps(const subscription &s, uint32_t lower, uint32_t upper) {
    return s.lower <= upper && lower <= s.upper;
}
static tipc_event event_of(const subscription &s, const publication &p, uint32_t event) {
    return make_event(s, event, p.lower, p.upper, p.ref, p.node);
}

size_t name_table::visible_count(const range &r, uint32_t viewer) const {
    size_t count = 0;
    for (const auto &p : r.all)
        count += visible(*p, viewer);
    return count;
}

// @p is in @r at this time. A service subscriber hears of the first and of the last one it can see only.
void name_table::report(service &s, const range &r, const publication &p, uint32_t event) {
    for (auto &sub : s.subscriptions) {
        if (!overlaps(*sub, p.lower, p.upper) || !visible(p, sub->viewer))
            continue;
        if ((sub->filter & TIPC_SUB_PORTS) || r.all.size() == 1 || visible_count(r, sub->viewer) == 1)
            on_event_(*sub, event_of(*sub, p, event));
    }
}

publication *name_table::publish(uint32_t type, uint32_t lower, uint32_t upper, int32_t scope, uint32_t ref,
                                 uint32_t node) {
    service &s = services_[type];
    range &r = s.ranges[{lower, upper}];
    if (lower != upper)
        s.wide.insert({lower, upper});
    auto p = std::make_unique<publication>();
    p->id = next_id_++;
    p->type = type;
    p->lower = lower;
    p->upper = upper;
    p->scope = scope;
    p->ref = ref;
    p->node = node;
    publication *raw = p.get();
    r.all.push_back(std::move(p));
    report(s, r, *raw, TIPC_PUBLISHED);
    return raw;
}

void name_table::withdraw(publication *p) {
    service &s = services_[p->type];
    const range_key key{p->lower, p->upper};
    range &r = s.ranges[key];
    report(s, r, *p, TIPC_WITHDRAWN);
    const uint32_t type = p->type;
    r.all.erase(std::find_if(r.all.begin(), r.all.end(), [p](const auto &x) { return x.get() == p; }));
    if (r.all.empty()) {
        s.ranges.erase(key);
        s.wide.erase(key);
    }
    if (s.ranges.empty() && s.subscriptions.empty())
        services_.erase(type);
}

bool name_table::pick(const range &r, uint32_t domain, uint32_t viewer,
                      std::vector<publication *> &out) const {
    out.clear();
    const auto collect = [&](uint32_t node) {
        for (const auto &p : r.all)
            if (!p->leaving && visible(*p, viewer) && (node == 0 || p->node == node))
                out.push_back(p.get());
        return !out.empty();
    };
    if (domain)
        return collect(domain);
    return (viewer && collect(viewer)) || collect(0);
}

// Of several ranges that hold the instance the first one counts, by lower and then by upper bound.
void name_table::lookup(uint32_t type, uint32_t instance, uint32_t domain, uint32_t viewer,
                        std::vector<publication *> &out) {
    out.clear();
    const auto at = services_.find(type);
    if (at == services_.end())
        return;
    service &s = at->second;
    std::vector<range_key> candidates;
    for (const range_key &key : s.wide) {
        if (key.first > instance)
            break;
        if (key.second >= instance)
            candidates.push_back(key);
    }
    const range_key single{instance, instance};
    if (s.ranges.contains(single))
        candidates.push_back(single);
    std::sort(candidates.begin(), candidates.end());
    for (const range_key &key : candidates) {
        range &r = s.ranges[key];
        if (!pick(r, domain, viewer, out))
            continue;
        // Whoever asks at every send gets another one each time.
        std::rotate(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(r.turn++ % out.size()), out.end());
        return;
    }
}

subscription *name_table::subscribe(std::unique_ptr<subscription> sub) {
    service &s = services_[sub->type];
    subscription *raw = sub.get();
    s.subscriptions.push_front(std::move(sub));
    raw->place = s.subscriptions.begin();
    subscription_count_++;
    std::vector<const publication *> found;
    for (const auto &[key, r] : s.ranges) {
        if (!overlaps(*raw, key.first, key.second))
            continue;
        for (const auto &p : r.all) {
            if (!visible(*p, raw->viewer))
                continue;
            found.push_back(p.get());
            if (!(raw->filter & TIPC_SUB_PORTS))
                break; // the first one stands for all
        }
    }
    std::sort(found.begin(), found.end(),
              [](const publication *a, const publication *b) { return a->id < b->id; });
    for (const publication *p : found)
        on_event_(*raw, event_of(*raw, *p, TIPC_PUBLISHED));
    return raw;
}

void name_table::unsubscribe(subscription *sub) {
    const uint32_t type = sub->type;
    service &s = services_[type];
    s.subscriptions.erase(sub->place);
    subscription_count_--;
    if (s.ranges.empty() && s.subscriptions.empty())
        services_.erase(type);
}

void name_table::isolate(uint32_t node, bool cut) {
    if (cut == cut_off_.contains(node))
        return;
    std::set<uint32_t> before = cut_off_;
    if (cut)
        cut_off_.insert(node);
    else
        cut_off_.erase(node);
    std::set<uint32_t> after = cut_off_;
    for (auto &[type, s] : services_) {
        for (auto &sub : s.subscriptions) {
            struct change {
                const publication *p;
                bool gone;
            };
            std::vector<change> changes;
            for (const auto &[key, r] : s.ranges) {
                if (!overlaps(*sub, key.first, key.second))
                    continue;
                size_t seen_before = 0, seen_after = 0;
                std::vector<change> here;
                for (const auto &p : r.all) {
                    cut_off_ = before;
                    const bool was = visible(*p, sub->viewer);
                    cut_off_ = after;
                    const bool is = visible(*p, sub->viewer);
                    seen_before += was;
                    seen_after += is;
                    if (was != is)
                        here.push_back({p.get(), was});
                }
                if (sub->filter & TIPC_SUB_PORTS)
                    changes.insert(changes.end(), here.begin(), here.end());
                else if (!here.empty() && (seen_before == 0 || seen_after == 0))
                    changes.push_back(here.front());
            }
            std::sort(changes.begin(), changes.end(),
                      [](const change &a, const change &b) { return a.p->id < b.p->id; });
            for (const change &c : changes)
                on_event_(*sub, event_of(*sub, *c.p, c.gone ? TIPC_WITHDRAWN : TIPC_PUBLISHED));
        }
    }
}

void name_table::for_each(const std::function<void(const publication &)> &fun) const {
    for (const auto &[type, s] : services_)
        for (const auto &[key, r] : s.ranges)
            for (const auto &p : r.all)
                fun(*p);
}
void name_table::for_each_subscription(const std::function<void(const subscription &)> &fun) const {
    for (const auto &[type, s] : services_)
        for (const auto &sub : s.subscriptions)
            fun(*sub);
}

} // namespace fabric
