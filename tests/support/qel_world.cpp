#include "qel_world.h"

#include "qel_app_info.h"
#include "qel_cfg.h"

using qel_fake::bytes;

// ---- wire -----------------------------------------------------------------------------------------------

static void put_be32(bytes &b, uint32_t v) {
    uint8_t four[4];
    qel_store_be32(four, v);
    b.insert(b.end(), four, four + 4);
}

bytes wire(const qel_head &h, const bytes &data) {
    bytes b = {h.version, 0, h.flags, h.qos};
    put_be32(b,
             h.len < 0 ? static_cast<uint32_t>(QEL_MSG_HDR_LEN + data.size()) : static_cast<uint32_t>(h.len));
    for (const uint32_t v : {h.src_node, h.dst_node, h.src_app, h.dst_app, h.app_ver, h.seq, h.status})
        put_be32(b, v);
    b.insert(b.end(), data.begin(), data.end());
    return b;
}
bytes wire(const qel_head &head, const std::string &data) { return wire(head, to_bytes(data)); }
bytes to_bytes(const std::string &text) { return {text.begin(), text.end()}; }

qel_seen unwire(const bytes &b) {
    qel_seen s;
    if (b.size() < QEL_MSG_HDR_LEN)
        return s;
    s.hdr.version = b[0];
    s.hdr.reserved = b[1];
    s.hdr.flags = b[2];
    s.hdr.qos = b[3];
    uint32_t *const fields[] = {&s.hdr.len,     &s.hdr.src_node, &s.hdr.dst_node, &s.hdr.src_app,
                                &s.hdr.dst_app, &s.hdr.app_ver,  &s.hdr.seq,      &s.hdr.rpc_status};
    for (size_t i = 0; i < std::size(fields); i++)
        *fields[i] = be32_at(b, 4 + i * 4);
    s.data.assign(b.begin() + QEL_MSG_HDR_LEN, b.end());
    return s;
}

bytes tlv(uint16_t type, const std::vector<uint32_t> &words) {
    bytes b(4);
    qel_store_be16(b.data(), static_cast<uint16_t>(4 + words.size() * 4));
    qel_store_be16(b.data() + 2, type);
    for (const uint32_t v : words)
        put_be32(b, v);
    return b;
}
uint32_t be32_at(const bytes &b, size_t offset) { return qel_load_be32(&b.at(offset + 3) - 3); }
uint32_t host32_at(const bytes &b, size_t offset) { return qel_load_host32(&b.at(offset + 3) - 3); }

// ---- a process of the bus -------------------------------------------------------------------------------

namespace {
// Filled by threads of the library. Never destroyed: they outlive main().
struct seen {
    std::vector<qel_world::kept> messages;
    std::vector<qel_app_event> events;
};
seen &all_seen() {
    static seen &the = *new seen;
    return the;
}
void keep(qel_msg *msg) {
    qel_world::kept k{};
    k.hdr = msg->hdr;
    const auto *data = static_cast<const uint8_t *>(qel_msg_const_data(msg));
    k.data.assign(data, data + qel_msg_data_len(msg));
    free(msg);
    qel_time::lock();
    all_seen().messages.push_back(std::move(k));
    qel_time::changed();
    qel_time::unlock();
}
} // namespace

const qel_dispatcher qel_world::keep_table[] = {{1, keep}, {0, nullptr}};

std::vector<qel_world::kept> qel_world::got() {
    qel_time::lock();
    std::vector<kept> copy = all_seen().messages;
    qel_time::unlock();
    return copy;
}
void qel_world::on_event(qel_app_event event) {
    qel_time::lock();
    all_seen().events.push_back(event);
    qel_time::changed();
    qel_time::unlock();
}
std::vector<qel_app_event> qel_world::events() {
    qel_time::lock();
    std::vector<qel_app_event> copy = all_seen().events;
    qel_time::unlock();
    return copy;
}

qel_world::qel_world() {
    qel_time::install();
    qel_fake::install();
}
qel_world::~qel_world() = default;

int qel_world::add_app(int32_t app, bool with_thread) {
    const std::string name = "app" + std::to_string(app);
    return with_thread ? qel_register(app, name.c_str(), keep_table, on_event)
                       : qel_register_without_thread(app, name.c_str(), keep_table, on_event);
}

bool qel_world::run() {
    if (qel_run() != 0 || !qel_time::settle())
        return false;
    qel_time::advance(std::chrono::seconds(1));
    return qel_fake::settle();
}

void qel_world::deliver(uint32_t app, const bytes &datagram) {
    const int32_t sd = qel_get_app_sd(app);
    qel_fake::push(sd, datagram, app, be32_at(datagram, 12));
}

bool qel_world::bring_online(uint32_t peer, uint32_t node, bool server, uint32_t pid) {
    const size_t before = qel_fake::calls(qel_fake::op::sendto).size();
    qel_fake::publish(peer, node);
    if (!qel_fake::settle())
        return false;
    // what the library asked the peer, for each of its applications
    const std::vector<qel_fake::call> sent = qel_fake::calls(qel_fake::op::sendto);
    const auto me = static_cast<uint32_t>(qel_get_my_node_id());
    for (size_t i = before; i < sent.size(); i++) {
        const qel_seen s = unwire(sent[i].data);
        if (s.hdr.flags != QEL_FLAG_SYNC || sent[i].app() != peer || sent[i].node() != node ||
            s.data.size() != 24 || s.data[3] != QEL_TLV_SYNC)
            continue;
        const qel_head head = {.flags = QEL_FLAG_SYNC,
                               .src_app = peer,
                               .src_node = node,
                               .dst_app = s.hdr.src_app,
                               .dst_node = me};
        const uint32_t is_server = server ? 1 : 0;
        deliver(s.hdr.src_app, wire(head, tlv(QEL_TLV_SYNC, {0x5000 + node, pid, is_server, 0, 600})));
        deliver(s.hdr.src_app,
                wire(head, tlv(QEL_TLV_SYNC_ACK, {be32_at(s.data, 4), pid, is_server, 0, 600})));
    }
    return qel_fake::settle() && qel_is_app_online(node, peer) == 1;
}
