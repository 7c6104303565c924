// TLV sections, the low-level send, the builders of flow-control messages and what happens with received
// management messages.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include "qel_app_info.h"
#include "qel_dm.h"
#include "qel_engine.h"
#include "qel_flow_ctrl.h"
#include "qel_mng_int.h"
#include "qel_mng_msg.h"
#include "qel_rpc.h"

using namespace std::chrono_literals;
using qel_fake::bytes;
using qel_fake::op;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

bytes operator+(bytes a, const bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
// An item with a value of bytes, padded unless it is to be the last.
bytes item(uint16_t type, const bytes &value, bool padded = true) {
    bytes b(4);
    qel_store_be16(b.data(), static_cast<uint16_t>(4 + value.size()));
    qel_store_be16(b.data() + 2, type);
    b = b + value;
    while (padded && b.size() % 4)
        b.push_back(0);
    return b;
}

// ---- sections --------------------------------------------------------------------------------------------

TEST(qel_tlv, an_item_is_a_big_endian_head_with_the_whole_length_then_value_and_cleared_padding) {
    for (uint32_t size = 0; size <= 9; size++) {
        alignas(4) uint8_t b[20];
        memset(b, 0xEE, sizeof b);
        const bytes value = {1, 2, 3, 4, 5, 6, 7, 8, 9};
        const uint32_t used = qel_tlv_set(b, 0x1234, value.data(), size);
        EXPECT_EQ(used, (4 + size + 3) / 4 * 4) << size;
        EXPECT_EQ(b[0], 0);
        EXPECT_EQ(b[1], 4 + size);
        EXPECT_EQ(b[2], 0x12);
        EXPECT_EQ(b[3], 0x34);
        EXPECT_EQ(memcmp(b + 4, value.data(), size), 0);
        for (uint32_t i = 4 + size; i < used; i++)
            EXPECT_EQ(b[i], 0) << "padding of " << size;
        for (uint32_t i = used; i < sizeof b; i++)
            EXPECT_EQ(b[i], 0xEE) << "nothing behind the item of " << size;
    }
}

TEST(qel_tlv, an_item_without_a_given_value_leaves_its_bytes_alone) {
    alignas(4) uint8_t b[12];
    memset(b, 0xEE, sizeof b);
    EXPECT_EQ(qel_tlv_set(b, 5, nullptr, 6), 12u);
    EXPECT_EQ(b[1], 10);
    EXPECT_EQ(b[4], 0xEE);
    EXPECT_EQ(b[9], 0xEE);
    EXPECT_EQ(b[10], 0);
    EXPECT_EQ(b[11], 0);
}

TEST(qel_tlv, an_item_holds_up_to_65531_bytes_of_value) {
    const auto b = std::make_unique<uint32_t[]>(65536 / 4);
    const bytes value(65531, 7);
    EXPECT_EQ(qel_tlv_set(b.get(), 1, value.data(), 65531), 65536u);
    EXPECT_EQ(qel_load_be16(b.get()), 65535u);
    qel_tlv_list list(b.get(), 65536);
    ASSERT_TRUE(list.ok());
    EXPECT_EQ(list.len(), 65535u);
    EXPECT_EQ(list.value().size(), 65531u);
    list.step();
    EXPECT_TRUE(list.empty());
}

TEST(qel_tlv, the_space_of_an_item_is_its_length_raised_to_a_multiple_of_4) {
    EXPECT_EQ(qel_tlv_space(0), 0u);
    EXPECT_EQ(qel_tlv_space(1), 4u);
    EXPECT_EQ(qel_tlv_space(4), 4u);
    EXPECT_EQ(qel_tlv_space(5), 8u);
    EXPECT_EQ(qel_tlv_space(65535), 65536u);
}

TEST(qel_tlv, a_walk_visits_item_after_item_and_ends_where_the_space_does) {
    const bytes section = item(1, {}) + item(0xFFFF, {9}) + item(3, {1, 2, 3, 4}) + item(4, {5, 6, 7, 8, 9});
    qel_tlv_list list(section.data(), section.size());
    std::vector<std::string> seen;
    for (; !list.empty(); list.step()) {
        ASSERT_TRUE(list.ok());
        std::string text = qel_format("%u:", list.type());
        for (const unsigned char c : list.value())
            text += qel_format(" %u", c);
        seen.push_back(text);
    }
    EXPECT_THAT(seen, ElementsAre("1:", "65535: 9", "3: 1 2 3 4", "4: 5 6 7 8 9"));
}

TEST(qel_tlv, an_empty_section_is_empty) { EXPECT_TRUE(qel_tlv_list("", 0).empty()); }

TEST(qel_tlv, an_item_is_ok_only_when_aligned_with_a_head_and_its_length_in_the_space) {
    alignas(4) uint8_t b[16] = {};
    for (uint32_t offset = 0; offset < 4; offset++)
        for (size_t space = 0; space <= 12; space++)
            for (uint32_t len = 0; len <= 16; len++) {
                memset(b, 0, sizeof b);
                qel_store_be16(b + offset, static_cast<uint16_t>(len));
                const qel_tlv_list list(b + offset, space);
                EXPECT_EQ(list.ok(), offset == 0 && space >= 4 && space >= len)
                    << offset << " " << space << " " << len;
            }
}

TEST(qel_tlv, missing_padding_of_the_last_item_leaves_a_negative_space_that_is_neither_empty_nor_ok) {
    for (size_t space = 5; space <= 7; space++) {
        const auto b = std::make_unique<uint8_t[]>(space); // exactly so much: a read behind it is found
        qel_store_be16(b.get(), 5);
        qel_tlv_list list(b.get(), space);
        ASSERT_TRUE(list.ok());
        list.step();
        EXPECT_FALSE(list.empty());
        EXPECT_FALSE(list.ok());
    }
}

// ---- the low-level send ----------------------------------------------------------------------------------

struct qel_mng_msg : qel_engine {
    void SetUp() override {
        begin({5}, {{5, 7}});
        shake_hands(7, 2);
    }
    // A message that the test frees by itself.
    struct message {
        qel_msg *msg;
        explicit message(const std::string &text = "", uint32_t status = 0)
            : msg(qel_msg_alloc(static_cast<int32_t>(text.size()), 3, 0)) {
            memcpy(qel_msg_data(msg), text.data(), text.size());
            qel_encode_msg_hdr(msg, 2, 5, 1, 7, 2, 9, status);
            msg->hdr.qos = 4;
        }
        ~message() { free(msg); }
        message(const message &) = delete;
        message &operator=(const message &) = delete;
        bytes image() const {
            const auto *b = reinterpret_cast<const uint8_t *>(&msg->hdr);
            return {b, b + msg->hdr.len};
        }
    };
    void receive_mng(const bytes &section, uint8_t flags = 8, uint32_t seq = 0) {
        receive(5, wire({.flags = flags, .src_app = 7, .src_node = 2, .dst_app = 5, .seq = seq}, section));
    }
    // Behind the line that every receive has.
    std::string mng_lines(const bytes &section, uint8_t flags = 8) {
        out.take();
        receive_mng(section, flags);
        const std::string text = out.take(), first = "<qel_mng> 0: QEL app 5 recv new msg.\n";
        EXPECT_THAT(text, StartsWith(first));
        return text.substr(first.size());
    }
};

TEST_F(qel_mng_msg, a_send_goes_to_the_applications_name_in_network_order_and_restores_the_header) {
    const message m("text");
    const bytes before = m.image();
    EXPECT_EQ(qel_tipc_sendto(5, m.msg, 7, 2, 0), 0);
    EXPECT_EQ(m.image(), before);
    const std::vector<qel_fake::call> sends = qel_fake::calls(op::sendto);
    ASSERT_EQ(sends.size(), 1u);
    const qel_fake::call &c = sends[0];
    EXPECT_EQ(c.fd, qel_get_app_sd(5));
    EXPECT_EQ(c.flags, MSG_NOSIGNAL);
    EXPECT_EQ(c.addr.family, AF_TIPC);
    EXPECT_EQ(c.addr.addrtype, TIPC_ADDR_NAME);
    EXPECT_EQ(c.addr.scope, 2);
    EXPECT_EQ(c.addr.addr.name.name.type, 2303u);
    EXPECT_EQ(c.addr.addr.name.name.instance, 0x70002u);
    EXPECT_EQ(c.addr.addr.name.domain, 0u);
    const bytes wanted = {1, 0, 2, 4, 0, 0, 0, 40, 0, 0, 0, 1, 0, 0, 0, 2, 0,   0,   0,   5,
                          0, 0, 0, 7, 0, 0, 0, 3,  0, 0, 0, 9, 0, 0, 0, 0, 't', 'e', 'x', 't'};
    EXPECT_EQ(c.data, wanted);
    EXPECT_EQ(out.take(), "<qel_mng_msg> 0: QEL app 5 sent to 7/2, msg len 40.\n");
}

TEST_F(qel_mng_msg, the_first_flag_bit_makes_the_send_non_blocking_and_no_other_does) {
    const message m;
    for (const uint32_t flags : {0u, 1u, 2u, 4u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        qel_fake::take_calls();
        EXPECT_EQ(qel_tipc_sendto(5, m.msg, 7, 2, flags), 0);
        EXPECT_EQ(qel_fake::calls(op::sendto)[0].flags,
                  flags & 1 ? MSG_NOSIGNAL | MSG_DONTWAIT : MSG_NOSIGNAL);
    }
}

TEST_F(qel_mng_msg, the_node_is_cut_to_16_bits_in_the_name) {
    const message m;
    EXPECT_EQ(qel_tipc_sendto(5, m.msg, 20479, 0x12345, 0), 0);
    EXPECT_EQ(qel_fake::calls(op::sendto)[0].addr.addr.name.name.instance, 20479u << 16 | 0x2345u);
}

TEST_F(qel_mng_msg, only_status_1_sends_data_words_in_network_order_and_only_whole_ones_that_are_there) {
    for (uint32_t status = 0; status <= 5; status++)
        for (size_t size = 0; size <= 13; size++) {
            std::string text;
            for (size_t i = 0; i < size; i++)
                text += static_cast<char>('a' + i);
            const message m(text, status);
            const bytes before = m.image();
            qel_fake::take_calls();
            ASSERT_EQ(qel_tipc_sendto(5, m.msg, 7, 2, 0), 0);
            EXPECT_EQ(m.image(), before);
            std::string wanted = text;
            for (size_t at = 0; status == 1 && at < 8 && at + 4 <= size; at += 4)
                std::reverse(wanted.begin() + static_cast<ptrdiff_t>(at),
                             wanted.begin() + static_cast<ptrdiff_t>(at) + 4);
            const bytes sent = qel_fake::calls(op::sendto)[0].data;
            EXPECT_EQ(bytes(sent.begin() + 36, sent.end()), to_bytes(wanted)) << status << " " << size;
            EXPECT_EQ(be32_at(sent, 32), status);
        }
}

TEST_F(qel_mng_msg, header_conversion_touches_the_eight_words_and_not_the_bytes_in_front) {
    const bytes given = wire({.flags = 0xAB,
                              .src_app = 0x01020304,
                              .src_node = 0x05060708,
                              .dst_app = 0x090A0B0C,
                              .dst_node = 0x0D0E0F10,
                              .app_ver = 0x11121314,
                              .seq = 0x15161718,
                              .status = 1,
                              .version = 0xCD,
                              .qos = 0xEF,
                              .len = 0x1A1B1C1D},
                             "12345678");
    qel_msg *msg = qel_msg_alloc(8, 0, 0);
    memcpy(&msg->hdr, given.data(), given.size());
    qel_hdr_to_host(&msg->hdr, given.size());
    EXPECT_EQ(msg->hdr.flags, 0xAB);
    EXPECT_EQ(msg->hdr.version, 0xCD);
    EXPECT_EQ(msg->hdr.qos, 0xEF);
    EXPECT_EQ(msg->hdr.len, 0x1A1B1C1Du);
    EXPECT_EQ(msg->hdr.src_app, 0x01020304u);
    EXPECT_EQ(msg->hdr.src_node, 0x05060708u);
    EXPECT_EQ(msg->hdr.dst_app, 0x090A0B0Cu);
    EXPECT_EQ(msg->hdr.dst_node, 0x0D0E0F10u);
    EXPECT_EQ(msg->hdr.app_ver, 0x11121314u);
    EXPECT_EQ(msg->hdr.seq, 0x15161718u);
    EXPECT_EQ(memcmp(qel_msg_data(msg), "43218765", 8), 0);
    qel_hdr_to_net(&msg->hdr, given.size());
    EXPECT_EQ(memcmp(&msg->hdr, given.data(), given.size()), 0);
    free(msg);
}

TEST_F(qel_mng_msg, a_source_that_is_not_registered_is_refused_with_22) {
    const message m("text");
    const bytes before = m.image();
    EXPECT_EQ(qel_tipc_sendto(6, m.msg, 7, 2, 0), -22);
    EXPECT_EQ(out.take(), "<qel_mng_msg> 3: QEL app 6 socket descriptor invalid.\n");
    EXPECT_EQ(m.image(), before);
    EXPECT_EQ(qel_fake::count(op::sendto), 2u) << "the handshake's";
}

TEST_F(qel_mng_msg, a_length_that_no_message_has_is_refused_with_22_and_nothing_is_sent) {
    const message m("text");
    for (const uint32_t len : {0u, 1u, 35u, 65573u, 66000u, 0x80000000u, 0xFFFFFFFFu}) {
        m.msg->hdr.len = len;
        EXPECT_EQ(qel_tipc_sendto(5, m.msg, 7, 2, 0), -22);
        EXPECT_EQ(
            out.take(),
            qel_format("<qel_mng_msg> 2: QEL app 5 sent to 7/2 failed: Invalid argument, msg len %d, sent "
                       "-1.\n",
                       static_cast<int>(len)));
        EXPECT_EQ(m.msg->hdr.len, len);
    }
    EXPECT_EQ(qel_fake::calls(op::sendto).size(), 0u);
}

TEST_F(qel_mng_msg, the_shortest_and_the_longest_message_are_sent) {
    const message shortest, longest(std::string(65536, 'x'));
    EXPECT_EQ(qel_tipc_sendto(5, shortest.msg, 7, 2, 0), 0);
    EXPECT_EQ(qel_tipc_sendto(5, longest.msg, 7, 2, 0), 0);
    const std::vector<qel_fake::call> sends = qel_fake::calls(op::sendto);
    EXPECT_EQ(sends[0].data.size(), 36u);
    EXPECT_EQ(sends[1].data.size(), 65572u);
}

TEST_F(qel_mng_msg, a_send_is_repeated_at_once_with_a_line_per_try_while_memory_lacks_or_it_was_interrupted) {
    const message m("text", 1);
    const bytes before = m.image();
    for (const auto &[error, text] : {std::pair{ENOBUFS, "No buffer space available"},
                                      {EINTR, "Interrupted system call"},
                                      {ENOMEM, "Cannot allocate memory"}}) {
        qel_fake::fail(op::sendto, error, 1, 3);
        EXPECT_EQ(qel_tipc_sendto(5, m.msg, 7, 2, 0), 0);
        const std::string line = qel_format("<qel_mng_msg> 3: QEL sendto failed: %s.\n", text);
        EXPECT_EQ(out.take(), "<qel_mng_msg> 0: QEL app 5 sent to 7/2, msg len 40.\n" + line + line + line);
        EXPECT_EQ(m.image(), before);
    }
    EXPECT_EQ(qel_time::sleep_count(), 1u) << "none but the second after the run";
}

TEST_F(qel_mng_msg, any_other_error_ends_the_send_with_1_and_the_header_restored) {
    const message m("text1234", 1);
    const bytes before = m.image();
    for (const auto &[error, text] : {std::pair{EHOSTUNREACH, "No route to host"},
                                      {EAGAIN, "Resource temporarily unavailable"},
                                      {EMSGSIZE, "Message too long"},
                                      {EPIPE, "Broken pipe"},
                                      {EBADF, "Bad file descriptor"}}) {
        const unsigned tries = qel_fake::count(op::sendto);
        qel_fake::fail(op::sendto, error);
        EXPECT_EQ(qel_tipc_sendto(5, m.msg, 7, 2, 0), -1);
        EXPECT_EQ(qel_fake::count(op::sendto), tries + 1);
        EXPECT_EQ(out.take(),
                  qel_format("<qel_mng_msg> 0: QEL app 5 sent to 7/2, msg len 44.\n"
                             "<qel_mng_msg> 3: QEL sendto failed: %s.\n"
                             "<qel_mng_msg> 2: QEL app 5 sent to 7/2 failed: %s, msg len 44, sent -1.\n",
                             text, text));
        EXPECT_EQ(m.image(), before);
    }
}

TEST_F(qel_mng_msg, a_short_send_is_a_failure_whatever_errno_was_before) {
    const message m("text");
    const bytes before = m.image();
    for (const size_t count : {0u, 1u, 36u, 39u}) {
        const unsigned tries = qel_fake::count(op::sendto);
        qel_fake::short_send(count);
        errno = ENOBUFS;
        EXPECT_EQ(qel_tipc_sendto(5, m.msg, 7, 2, 0), -1);
        EXPECT_EQ(qel_fake::count(op::sendto), tries + 1);
        EXPECT_EQ(
            out.take(),
            qel_format("<qel_mng_msg> 0: QEL app 5 sent to 7/2, msg len 40.\n"
                       "<qel_mng_msg> 3: QEL sendto failed: Success.\n"
                       "<qel_mng_msg> 2: QEL app 5 sent to 7/2 failed: Success, msg len 40, sent %zu.\n",
                       count));
        EXPECT_EQ(m.image(), before);
    }
}

TEST_F(qel_mng_msg, a_short_send_that_says_no_buffers_is_repeated) {
    const message m("text");
    for (const int error : {ENOBUFS, EINTR, ENOMEM}) {
        const unsigned tries = qel_fake::count(op::sendto);
        qel_fake::short_send(5, 1, error);
        EXPECT_EQ(qel_tipc_sendto(5, m.msg, 7, 2, 0), 0);
        EXPECT_EQ(qel_fake::count(op::sendto), tries + 2);
    }
}

// ---- builders --------------------------------------------------------------------------------------------

struct builder {
    const char *name;
    int32_t (*send)();
    bytes data;
    const char *line;
};
struct qel_mng_msg_builder : qel_mng_msg, testing::WithParamInterface<builder> {};
INSTANTIATE_TEST_SUITE_P(
    builders, qel_mng_msg_builder,
    testing::Values(builder{"ack",
                            [] { return qel_send_fc_ack(5, 2, 7, 0x01020304); },
                            {0, 8, 0, 0, 1, 2, 3, 4},
                            "<qel_mng_msg> 0: QEL app 5 send msg ack num 16909060 to 7/2.\n"},
                    builder{"ping",
                            [] { return qel_send_fc_ping(5, 2, 7); },
                            {0, 4, 0, 6},
                            "<qel_mng_msg> 0: QEL app 5 ping to 7/2.\n"},
                    builder{"ping_echo",
                            [] { return qel_send_fc_ping_echo(5, 2, 7); },
                            {0, 4, 0, 7},
                            "<qel_mng_msg> 0: QEL app 5 ping echo to 7/2.\n"},
                    builder{"reload",
                            [] { return qel_send_fc_reload(5, 2, 7); },
                            {0, 4, 0, 8},
                            "<qel_mng_msg> 0: QEL app 5 try to reload 7/2.\n"}),
    [](const auto &p) { return p.param.name; });

TEST_P(qel_mng_msg_builder, it_is_one_item_in_a_message_of_the_system) {
    EXPECT_EQ(GetParam().send(), 0);
    const auto len = static_cast<uint8_t>(36 + GetParam().data.size());
    const bytes head = {1, 0, 8, 0, 0, 0, 0, len, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0,
                        0, 5, 0, 0, 0, 7, 0, 0,   0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    const std::vector<qel_fake::call> sends = qel_fake::calls(op::sendto);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].data, head + GetParam().data);
    EXPECT_EQ(sends[0].app(), 7u);
    EXPECT_EQ(sends[0].node(), 2u);
    EXPECT_EQ(sends[0].flags, MSG_NOSIGNAL);
    EXPECT_EQ(out.take(),
              GetParam().line + qel_format("<qel_mng_msg> 0: QEL app 5 sent to 7/2, msg len %u.\n", len));
}

TEST_P(qel_mng_msg_builder, it_returns_the_result_of_a_failed_send) {
    qel_fake::fail(op::sendto, EHOSTUNREACH);
    EXPECT_EQ(GetParam().send(), -1);
    EXPECT_THAT(out.take(), StartsWith(GetParam().line));
}

TEST_F(qel_mng_msg, builders_of_an_unregistered_application_return_22) {
    EXPECT_EQ(qel_send_fc_ack(6, 2, 7, 1), -22);
    EXPECT_EQ(qel_send_fc_ping(6, 2, 7), -22);
    EXPECT_EQ(qel_send_fc_ping_echo(6, 2, 7), -22);
    EXPECT_EQ(qel_send_fc_reload(6, 2, 7), -22);
}

TEST_F(qel_mng_msg, a_message_of_the_system_has_cleared_data_version_1_and_this_node_as_source) {
    qel_msg *msg = qel_new_sys_msg(8, 5, 7, 2, 100);
    EXPECT_EQ(msg->hdr.version, 1);
    EXPECT_EQ(msg->hdr.len, 136u);
    EXPECT_EQ(msg->hdr.src_node, 1u);
    EXPECT_EQ(msg->hdr.app_ver, 1u);
    EXPECT_EQ(msg->hdr.seq, 0u);
    EXPECT_EQ(msg->hdr.rpc_status, 0u);
    const bytes zero(100);
    EXPECT_EQ(memcmp(qel_msg_data(msg), zero.data(), 100), 0);
    free(msg);
}

// ---- received management messages -------------------------------------------------------------------------

const char *const recv_item = "<qel_mng_msg> 0: QEL app 5 recv mgmt msg from 7/2, data len %d, type %s.\n";
const std::string bad_section = "<qel_mng_msg> 3: QEL recv invalid TLV section for 5 from 7/2 .\n";
std::string bad_len(unsigned len) {
    return qel_format("<qel_mng_msg> 3: QEL recv invalid TLV len for 5 from 7/2(len:%u).\n", len);
}
std::string item_line(int len, const char *type) { return qel_format(recv_item, len, type); }
std::string ack_lines(int count) {
    return item_line(4, "processed message num ack") +
           qel_format("<qel_mng_msg> 0: QEL recv ack num %d for 5 from 7/2.\n"
                      "<qel_flow_ctrl> 0: QEL app 5 update send ack from 7/2, ack num %d.\n"
                      "<qel_flow_ctrl> 0: QEL notify waiting app 5 to 7/2 continue to send msg.\n",
                      count, count);
}

TEST_F(qel_mng_msg, an_empty_section_is_silent) { EXPECT_EQ(mng_lines({}), ""); }

TEST_F(qel_mng_msg, an_acknowledgement_lowers_what_is_outstanding_by_its_big_endian_count) {
    for (int i = 0; i < 10; i++)
        qel_fc_update_sent_ok(5, 7, 2);
    EXPECT_EQ(mng_lines(tlv(0, {3})), ack_lines(3));
    EXPECT_EQ(send_stat(5, 7, 2), "send 10, unack 7, reject 0, RPC reply reject 0");
}

TEST_F(qel_mng_msg, an_acknowledgement_of_any_number_leaves_a_count_that_does_not_block) {
    for (const uint32_t count : {0x7FFFFFFFu, 0x80000000u, 0x80000001u, 0xFFFFFFFFu}) {
        receive_mng(tlv(0, {count}));
        EXPECT_EQ(qel_fc_check(5, 7, QEL_SEND_NOWAIT), 0) << count;
    }
    EXPECT_THAT(send_stat(5, 7, 2), HasSubstr("unack -2147483648,"));
}

TEST_F(qel_mng_msg, an_acknowledgement_may_carry_more_than_its_word_but_not_less) {
    EXPECT_EQ(mng_lines(item(0, {0, 0, 0, 2, 9, 9})),
              item_line(6, "processed message num ack") + ack_lines(2).substr(ack_lines(2).find('\n') + 1));
    for (size_t size = 0; size < 4; size++) {
        const std::string stat = send_stat(5, 7, 2);
        EXPECT_EQ(mng_lines(item(0, bytes(size)) + tlv(7)),
                  item_line(static_cast<int>(size), "processed message num ack") +
                      bad_len(static_cast<unsigned>(4 + size)))
            << "and the item behind it is not looked at";
        EXPECT_EQ(send_stat(5, 7, 2), stat);
    }
}

bytes debug_command(uint32_t level, uint32_t on) {
    bytes value(8);
    memcpy(value.data(), &level, 4);
    memcpy(value.data() + 4, &on, 4);
    return item(3, value);
}

TEST_F(qel_mng_msg, a_debug_command_switches_a_level_of_the_process_given_in_host_order) {
    struct {
        uint32_t before, level, on, after;
    } cases[] = {{0, 0, 1, 1},   {0, 1, 1, 2},          {0, 2, 1, 4},         {0, 3, 1, 8},  {0, 4, 1, 15},
                 {15, 0, 0, 14}, {15, 1, 0, 13},        {15, 2, 0, 11},       {15, 3, 0, 7}, {15, 4, 0, 0},
                 {1, 3, 7, 9},   {1, 3, 0x80000000, 9}, {15, 5, 0, 15},       {0, 5, 1, 0},  {0, 31, 1, 0},
                 {0, 32, 1, 0},  {0, 0xFFFFFFFF, 1, 0}, {0, 0x01000000, 1, 0}};
    for (const auto &c : cases) {
        qel_set_masks(c.before);
        receive_mng(debug_command(c.level, c.on));
        EXPECT_EQ(g_qel_dbg_level.load(), c.after) << c.before << " " << c.level << " " << c.on;
    }
    qel_set_masks();
    EXPECT_EQ(mng_lines(debug_command(1, 1)),
              item_line(8, "debug switch command") +
                  qel_format("<qel_dbg> 0: QEL process %d current debug status: verbose info warn error.\n",
                             getpid()));
}

TEST_F(qel_mng_msg, a_debug_command_below_8_bytes_is_an_invalid_length) {
    for (size_t size = 0; size < 8; size++)
        EXPECT_EQ(mng_lines(item(3, bytes(size)) + tlv(7)),
                  item_line(static_cast<int>(size), "debug switch command") +
                      bad_len(static_cast<unsigned>(4 + size)));
    EXPECT_EQ(g_qel_dbg_level.load(), 15u);
}

TEST_F(qel_mng_msg, an_information_request_is_answered_with_application_process_and_mask_in_host_order) {
    qel_set_masks(5);
    receive_mng(tlv(4), 0x0A, 77);
    const std::vector<qel_fake::call> sends = qel_fake::calls(op::sendto);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].app(), 7u);
    EXPECT_EQ(sends[0].node(), 2u);
    const bytes head = {1, 0, 0x0E, 0, 0, 0, 0, 52, 0, 0, 0, 1,  0, 0, 0, 2, 0, 0,  0, 5,
                        0, 0, 0,    7, 0, 0, 0, 1,  0, 0, 0, 77, 0, 0, 0, 0, 0, 16, 0, 4};
    ASSERT_EQ(sends[0].data.size(), 52u);
    EXPECT_EQ(bytes(sends[0].data.begin(), sends[0].data.begin() + 40), head);
    EXPECT_EQ(host32_at(sends[0].data, 40), 5u);
    EXPECT_EQ(host32_at(sends[0].data, 44), static_cast<uint32_t>(getpid()));
    EXPECT_EQ(host32_at(sends[0].data, 48), 5u) << "the mask";
    qel_set_masks();
    EXPECT_THAT(mng_lines(tlv(4), 0x0A), StartsWith(item_line(0, "application information") +
                                                    "<qel_mng_msg> 0: QEL recv get app 5 info request.\n"
                                                    "<qel_user_proxy> 0: QEL user rpc reply, src_msg 0x"));
}

TEST_F(qel_mng_msg, an_information_request_that_is_no_call_is_told_twice) {
    for (const uint8_t flags : {0x08, 0x0C}) { // one-way, and an acknowledgement bit alone
        const std::string text = mng_lines(tlv(4), flags);
        EXPECT_THAT(text, HasSubstr("<qel_user_proxy> 2: QEL reply msg src is not RPC.\n"
                                    "<qel_mng_msg> 3: QEL app 5 reply app info failed: Invalid argument.\n"));
        EXPECT_EQ(take_sent().size(), 0u);
    }
}

TEST_F(qel_mng_msg, an_information_reply_that_cannot_be_sent_is_told_and_counted) {
    qel_fake::fail_to(7, 2, EHOSTUNREACH);
    EXPECT_THAT(mng_lines(tlv(4), 0x0A),
                HasSubstr("<qel_mng_msg> 3: QEL app 5 reply app info failed: Operation not permitted.\n"));
    EXPECT_EQ(send_stat(5, 7, 2), "send 0, unack 0, reject 0, RPC reply reject 1");
}

TEST_F(qel_mng_msg, a_statistics_request_is_answered_with_the_four_prints_as_text_with_its_end) {
    qel_set_masks(0);
    const std::string wanted =
        lib_print(5) + "\n" + app_print(5) + "\n" + fc_print(5) + "\n" + rpc_print(5) + "\n";
    receive_mng(tlv(5), 0x0A, 78);
    const std::vector<qel_fake::call> sends = qel_fake::calls(op::sendto);
    ASSERT_EQ(sends.size(), 1u);
    const qel_seen reply = unwire(sends[0].data);
    EXPECT_EQ(reply.hdr.flags, 0x0E);
    EXPECT_EQ(reply.hdr.version, 0);
    EXPECT_EQ(reply.hdr.app_ver, 0u);
    EXPECT_EQ(reply.hdr.seq, 78u);
    EXPECT_EQ(reply.hdr.len, 36 + wanted.size() + 1);
    EXPECT_EQ(reply.hdr.src_app, 5u);
    EXPECT_EQ(reply.hdr.src_node, 1u);
    EXPECT_EQ(reply.hdr.dst_app, 7u);
    EXPECT_EQ(reply.hdr.dst_node, 2u);
    EXPECT_EQ(std::string(reply.data.begin(), reply.data.end()), wanted + '\0');
    qel_set_masks();
    EXPECT_THAT(mng_lines(tlv(5), 0x0A),
                StartsWith(item_line(0, "application statistics") +
                           "<qel_mng_msg> 0: QEL recv get app 5 statistics request.\n"
                           "<qel_user_proxy> 0: QEL user rpc reply, src_msg 0x"));
}

TEST_F(qel_mng_msg, statistics_asked_for_twice_do_not_pile_up) {
    qel_set_masks(0);
    receive_mng(tlv(5), 0x0A);
    receive_mng(tlv(5), 0x0A);
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].data, all[1].data);
}

TEST_F(qel_mng_msg, a_statistics_request_that_is_no_call_is_told_twice) {
    EXPECT_THAT(mng_lines(tlv(5), 8),
                HasSubstr("<qel_user_proxy> 2: QEL reply msg src is not RPC.\n"
                          "<qel_mng_msg> 3: QEL app 5 reply app statistics failed: Invalid argument.\n"));
    qel_fake::fail_to(7, 2, EHOSTUNREACH);
    EXPECT_THAT(
        mng_lines(tlv(5), 0x0A),
        HasSubstr("<qel_mng_msg> 3: QEL app 5 reply app statistics failed: Operation not permitted.\n"));
    EXPECT_EQ(take_sent().size(), 0u);
}

TEST_F(qel_mng_msg, a_ping_is_echoed_and_shows_our_side_of_the_pair) {
    qel_fc_update_sent_ok(5, 7, 2);
    EXPECT_EQ(
        mng_lines(tlv(6)),
        item_line(0, "application ping") +
            "<qel_flow_ctrl> 3: QEL app 5 recv ping request from 7/2.\n"
            "<qel_flow_ctrl> 3: QEL app 5 from 7/2 unprocess num: 0.\n"
            "<qel_mng_msg> 0: QEL app 5 ping echo to 7/2.\n"
            "<qel_mng_msg> 0: QEL app 5 sent to 7/2, msg len 40.\n"
            "<qel_flow_ctrl> 3: QEL app 5 total send 1, unack 1, mcast reject 0, RPC reply exception 0\n"
            "<qel_flow_ctrl> 3: QEL app 5 total receive 0, unack 0, exception 0\n"
            "<qel_flow_ctrl> 3: QEL app 5 send to application 7/2: send 1, unack 1, reject 0, RPC reply "
            "reject 0\n"
            "<qel_flow_ctrl> 3: QEL app 5 receive from application 7/2: receive 0, unack 0, drop 0, return "
            "0\n");
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].data, (bytes{0, 4, 0, 7}));
}

TEST_F(qel_mng_msg, a_ping_echo_is_told_and_nothing_is_sent) {
    EXPECT_EQ(mng_lines(tlv(7)), item_line(0, "application ping echo") +
                                     "<qel_flow_ctrl> 3: QEL app 5 recv ping echo from 7/2.\n");
    EXPECT_EQ(take_sent().size(), 0u);
}

TEST_F(qel_mng_msg, a_ping_with_a_value_is_a_ping) {
    (void)mng_lines(item(6, {1, 2, 3}));
    EXPECT_EQ(take_sent().size(), 1u);
}

TEST_F(qel_mng_msg, types_of_syncs_and_unknown_types_are_told_and_skipped) {
    EXPECT_EQ(
        mng_lines(tlv(1, {1, 2, 3, 4, 5}) + tlv(2, {1, 2, 3, 4, 5}) + tlv(9) + tlv(0xFFFF, {0}) + tlv(7)),
        item_line(20, "sync instance") +
            "<qel_mng_msg> 2: QEL app 5 recv unexpected data type 1 from 7/2.\n" +
            item_line(20, "sync instance ack") +
            "<qel_mng_msg> 2: QEL app 5 recv unexpected data type 2 from 7/2.\n" + item_line(0, "") +
            "<qel_mng_msg> 2: QEL app 5 recv unexpected data type 9 from 7/2.\n" + item_line(4, "") +
            "<qel_mng_msg> 2: QEL app 5 recv unexpected data type 65535 from 7/2.\n" +
            item_line(0, "application ping echo") +
            "<qel_flow_ctrl> 3: QEL app 5 recv ping echo from 7/2.\n");
    EXPECT_EQ(bits(7, 2), "SIAO");
}

TEST_F(qel_mng_msg, an_item_of_length_5_is_followed_by_3_bytes_of_padding) {
    EXPECT_EQ(mng_lines(item(9, {1}) + tlv(7)),
              item_line(1, "") + "<qel_mng_msg> 2: QEL app 5 recv unexpected data type 9 from 7/2.\n" +
                  item_line(0, "application ping echo") +
                  "<qel_flow_ctrl> 3: QEL app 5 recv ping echo from 7/2.\n");
}

TEST_F(qel_mng_msg, one_to_three_bytes_behind_the_last_item_are_an_invalid_section_after_it_has_acted) {
    for (size_t more = 1; more <= 3; more++)
        EXPECT_EQ(mng_lines(tlv(7) + bytes(more)),
                  item_line(0, "application ping echo") +
                      "<qel_flow_ctrl> 3: QEL app 5 recv ping echo from 7/2.\n" + bad_section);
}

TEST_F(qel_mng_msg, a_section_below_4_bytes_is_invalid) {
    for (size_t size = 1; size <= 3; size++)
        EXPECT_EQ(mng_lines(bytes(size)), bad_section);
}

TEST_F(qel_mng_msg, a_last_item_without_its_padding_acts_and_the_section_is_invalid) {
    for (size_t padding = 0; padding < 3; padding++)
        EXPECT_EQ(mng_lines(item(7, {1}, false) + bytes(padding)),
                  item_line(1, "application ping echo") +
                      "<qel_flow_ctrl> 3: QEL app 5 recv ping echo from 7/2.\n" + bad_section);
}

TEST_F(qel_mng_msg,
       an_item_longer_than_the_space_is_an_invalid_section_and_one_below_its_head_an_invalid_length) {
    for (const uint16_t len : {5, 6, 8, 255, 65535}) {
        bytes b = tlv(7);
        qel_store_be16(b.data(), len);
        EXPECT_EQ(mng_lines(b), bad_section) << len;
    }
    for (uint16_t len = 0; len < 4; len++) {
        bytes b = tlv(7);
        qel_store_be16(b.data(), len);
        EXPECT_EQ(mng_lines(tlv(7) + b + tlv(7)),
                  item_line(0, "application ping echo") +
                      "<qel_flow_ctrl> 3: QEL app 5 recv ping echo from 7/2.\n" + bad_len(len));
    }
}

// What the walk over a section must print, told independently of the library's walker.
std::string section_as_told(const bytes &section) {
    std::string text;
    for (size_t at = 0; at != section.size();) {
        if (at > section.size() || section.size() - at < 4)
            return text + bad_section;
        const unsigned len = section[at] * 256u + section[at + 1],
                       type = section[at + 2] * 256u + section[at + 3];
        if (len > section.size() - at)
            return text + bad_section;
        if (len < 4)
            return text + bad_len(len);
        text += qel_format(recv_item, len - 4, qel_msg_type_string(type));
        if ((type == 0 && len < 8) || (type == 3 && len < 12))
            return text + bad_len(len);
        if (type == 1 || type == 2 || type > 8)
            text += qel_format("<qel_mng_msg> 2: QEL app 5 recv unexpected data type %u from 7/2.\n", type);
        at += (len + 3) / 4 * 4;
    }
    return text;
}
// The lines of the walk among all others.
std::string section_lines(const std::string &text) {
    std::string lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at) + 1;
        const std::string line = text.substr(at, end - at);
        for (const char *part : {" recv mgmt msg from ", " invalid TLV ", " unexpected data type "})
            if (line.find(part) != std::string::npos)
                lines += line;
        at = end;
    }
    return lines;
}
// No bit of it makes a debug command, which would change what is printed.
const bytes many_items =
    tlv(9) + tlv(0, {2}) + item(9, {1, 2, 3, 4, 5}) + tlv(6) + item(0, {0, 0, 0, 1, 7}) + tlv(9, {1});

TEST_F(qel_mng_msg, every_prefix_of_a_section_is_walked_as_far_as_it_is_sound) {
    for (size_t size = 0; size <= many_items.size(); size++) {
        const bytes section(many_items.begin(), many_items.begin() + static_cast<ptrdiff_t>(size));
        ASSERT_EQ(section_lines(mng_lines(section)), section_as_told(section)) << size;
    }
}

TEST_F(qel_mng_msg, every_flipped_bit_of_a_section_is_walked_as_far_as_it_is_sound) {
    for (size_t bit = 0; bit < many_items.size() * 8; bit++) {
        bytes section = many_items;
        section[bit / 8] = static_cast<uint8_t>(section[bit / 8] ^ 1u << bit % 8);
        ASSERT_EQ(section_lines(mng_lines(section)), section_as_told(section)) << bit;
    }
    EXPECT_EQ(bits(7, 2), "SIAO");
}

TEST_F(qel_mng_msg, every_length_of_every_item_of_a_section_is_walked_as_far_as_it_is_sound) {
    for (const size_t at : {0u, 4u, 12u, 24u, 28u, 40u})
        for (unsigned len = 0; len <= many_items.size() + 4; len++) {
            bytes section = many_items;
            qel_store_be16(&section[at], static_cast<uint16_t>(len));
            if (section_as_told(section).find("debug switch") != std::string::npos)
                continue;
            ASSERT_EQ(section_lines(mng_lines(section)), section_as_told(section)) << at << " " << len;
        }
}

TEST_F(qel_mng_msg, the_longest_section_is_walked) {
    bytes section;
    while (section.size() < 65536)
        section = section + tlv(9, {1, 2, 3}); // 16 bytes
    qel_set_masks(1u << W);
    receive_mng(section);
    EXPECT_EQ(out.count("<qel_mng_msg> 2: QEL app 5 recv unexpected data type 9 from 7/2.\n"), 4096u);
}

// ---- reload ----------------------------------------------------------------------------------------------

TEST_F(qel_mng_msg, a_reload_request_is_ignored_silently_unless_both_switches_are_on) {
    const std::string line = item_line(0, "reload application");
    EXPECT_THAT(mng_lines(tlv(8)), StartsWith(line));
    qel_enable_blocked_resume(); // the process's switch alone
    EXPECT_THAT(mng_lines(tlv(8)), StartsWith(line));
    set_conf("[MISC_CONF]\nqel_blocked_resume_enabled = true\n");
    qel_disable_blocked_resume(); // the configuration's alone
    EXPECT_THAT(mng_lines(tlv(8) + tlv(7)), HasSubstr("recv ping echo from 7/2.\n"))
        << "and the walk goes on";
    EXPECT_THAT(out.text(), Not(HasSubstr("abort the process")));
}

TEST_F(qel_engine, a_reload_request_with_both_switches_on_is_told_closes_the_files_and_aborts) {
    set_conf("[MISC_CONF]\nqel_blocked_resume_enabled = true\nqel_log_cfg = 8\n");
    const qel_child child = qel_run_child([this] {
        begin({5}, {{5, 7}});
        qel_enable_blocked_resume();
        shake_hands(7, 2);
        qel_set_masks(8, 8);
        deliver(5, wire({.flags = 8, .src_app = 7, .src_node = 2, .dst_app = 5}, tlv(8)));
        pause();
    });
    ASSERT_TRUE(WIFSIGNALED(child.status)) << child.output;
    EXPECT_EQ(WTERMSIG(child.status), SIGABRT);
    const std::string line = "<qel_mng_msg> 3: QEL app 5 abort the process requested by 7/2.\n";
    std::string log;
    for (const std::string &name : list_dir(log_dir))
        if (name.starts_with("log-"))
            log = qel_without_line_numbers(read_file(log_dir + "/" + name));
    EXPECT_THAT(log, HasSubstr(line)) << "the log is on disk";
}

TEST_F(qel_engine, a_reload_request_aborts_also_a_process_whose_standard_output_is_held) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "its own abort() flushes all streams first";
#endif
    set_conf("[MISC_CONF]\nqel_blocked_resume_enabled = true\n");
    const qel_child child = qel_run_child([this] {
        begin({5}, {{5, 7}});
        qel_enable_blocked_resume();
        shake_hands(7, 2);
        qel_set_masks(0);
        alarm(60);
        flockfile(stdout); // as a thread does that waits in printf() for a reader
        deliver(5, wire({.flags = 8, .src_app = 7, .src_node = 2, .dst_app = 5}, tlv(8)));
        pause();
    });
    ASSERT_TRUE(WIFSIGNALED(child.status)) << child.output;
    EXPECT_EQ(WTERMSIG(child.status), SIGABRT);
}

// ---- the daemon ------------------------------------------------------------------------------------------

struct qel_mng_msg_daemon : qel_engine {
    static std::vector<std::string> &seen() {
        static auto &the = *new std::vector<std::string>;
        return the;
    }
    static void dispatch(qel_msg *msg) {
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof name);
        seen().push_back(qel_format("flags %x ver %u on %.7s", msg->hdr.flags, msg->hdr.app_ver, name));
        free(msg);
    }
    void start() {
        static const qel_dispatcher table[] = {{1, dispatch}, {3, dispatch}, {0, nullptr}};
        ASSERT_EQ(qel_register(1, "daemon", table, nullptr), 0);
        begin({});
    }
    void receive_mng(uint8_t flags, uint32_t ver, const bytes &data, uint32_t seq = 0) {
        receive(1,
                wire({.flags = flags, .src_app = 7, .src_node = 2, .dst_app = 1, .app_ver = ver, .seq = seq},
                     data));
    }
};

TEST_F(qel_mng_msg_daemon, its_management_messages_run_its_dispatcher_on_the_library_thread_as_they_are) {
    start();
    receive_mng(0x08, 1, bytes(3)); // no section at all
    receive_mng(0x0A, 3, {});
    receive_mng(0x0C, 1, {});
    receive(1, wire({.src_app = 7, .src_node = 2, .dst_app = 1}));
    EXPECT_THAT(seen(), ElementsAre("flags 8 ver 1 on qel_lib", "flags a ver 3 on qel_lib",
                                    "flags c ver 1 on qel_lib", "flags 0 ver 1 on qel_app"));
    EXPECT_THAT(out.take(), Not(HasSubstr("TLV")));
    EXPECT_EQ(recv_stat(1, 7, 2), "receive 1, unack 1, drop 0, return 0") << "only the queued one counts";
}

TEST_F(qel_mng_msg_daemon, a_management_reply_is_filed_with_the_call_that_waits_or_freed) {
    start();
    reply_set replies;
    open_rpc(1, 900, {{7, 2}}, &replies);
    receive_mng(0x0E, 9, bytes(8), 901);
    EXPECT_EQ(replies.set.count, 0);
    receive_mng(0x0E, 9, bytes(8), 900); // of whatever version
    ASSERT_EQ(replies.set.count, 1);
    EXPECT_EQ(replies.set.msg[0]->hdr.len, 44u);
    EXPECT_EQ(seen().size(), 0u);
}

TEST_F(qel_mng_msg_daemon, an_unknown_version_is_told_and_a_request_gets_the_range_that_is_served) {
    start();
    receive_mng(0x08, 2, {});
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL app 1 recv new msg.\n"
                          "<qel_mng_msg> 3: QEL get QELD version 2 dispatcher failed.\n");
    EXPECT_EQ(take_sent().size(), 0u);
    receive_mng(0x0A, 0xFFFFFFFF, {}, 78);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL app 1 recv new msg.\n"
                          "<qel_mng_msg> 3: QEL get QELD version -1 dispatcher failed.\n"
                          "<qel_rpc> 0: QEL app 1 reply to 7/2 seq 78 app ver range [1, 3].\n"
                          "<qel_mng_msg> 0: QEL app 1 sent to 7/2, msg len 44.\n");
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].hdr.flags, 0x0E);
    EXPECT_EQ(all[0].hdr.rpc_status, 3u);
    EXPECT_EQ(all[0].hdr.seq, 78u);
    EXPECT_EQ(host32_at(all[0].data, 0), 1u);
    EXPECT_EQ(host32_at(all[0].data, 4), 3u);
    EXPECT_EQ(seen().size(), 0u);
}

TEST_F(qel_mng_msg_daemon, a_range_that_cannot_be_sent_is_no_matter) {
    start();
    qel_fake::fail_to(7, 2, EHOSTUNREACH);
    receive_mng(0x0A, 9, {});
    receive_mng(0x0A, 1, {});
    EXPECT_EQ(seen().size(), 1u);
}

TEST_F(qel_mng_msg,
       a_management_message_that_claims_to_be_the_daemons_does_not_reach_it_from_another_socket) {
    receive(5, wire({.flags = 8, .src_app = 7, .src_node = 2, .dst_app = 1}, tlv(6)));
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL app 5 recv new msg.\n"
                          "<qel_flow_ctrl> 3: QEL app 5 update recv exception msg.\n");
    receive_mng(tlv(7)); // and the process lives
    EXPECT_THAT(out.take(), HasSubstr("recv ping echo"));
}

} // namespace
