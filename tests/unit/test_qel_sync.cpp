// The handshake between instances: syncs, acknowledgements, what is sent again and what is started anew.
#include <ctime>
#include <gmock/gmock.h>

#include "qel_engine.h"
#include "qel_mng_int.h"
#include "qel_mng_msg.h"
#include "qel_user_proxy.h"

using namespace std::chrono_literals;
using qel_fake::bytes;
using qel_fake::op;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

const std::string new_msg = "<qel_mng> 0: QEL app 5 recv new msg.\n";
const std::string recv_sync_line =
    "<qel_mng_msg> 1: QEL app 5 recv sync msg from 7/2, data len 20, type sync "
    "instance.\n";
const std::string recv_ack_line = "<qel_mng_msg> 1: QEL app 5 recv sync msg from 7/2, data len 20, type sync "
                                  "instance ack.\n";
const std::string ack_sent_lines = "<qel_mng_msg> 0: QEL app 5 sync inst ack to 7/2, seq 20481.\n"
                                   "<qel_mng_msg> 0: QEL app 5 sent to 7/2, msg len 60.\n";

struct qel_sync : qel_engine {
    // What came back, as this socket sent it.
    void come_back(const qel_fake::call &sent, uint32_t code = 4) {
        qel_fake::push_returned(sent.fd, code, sent.data, sent.app(), sent.node());
        settle();
    }
    static std::vector<qel_fake::call> sends() { return qel_fake::calls(op::sendto); }
    static std::vector<std::pair<uint32_t, uint32_t>> timers(uint32_t type) { // ms, sequence
        std::vector<std::pair<uint32_t, uint32_t>> found;
        for (const qel_fake::timer &t : qel_fake::timers())
            if (t.type == type)
                found.emplace_back(t.ms, t.seq);
        return found;
    }
    static std::string last_event() {
        if (events().empty())
            return "none";
        const qel_app_event e = events().back();
        return qel_format("%u: %s %u/%u", e.app_id, e.event == QEL_EVENT_JOIN ? "join" : "quit", e.peer_app,
                          e.node);
    }
};

// ---- bytes -----------------------------------------------------------------------------------------------

TEST_F(qel_sync, a_sync_is_60_bytes_with_sequence_process_server_resume_and_600_tries) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    bytes wanted = {1, 0, 1, 0,   0, 0, 0, 60, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0,  0, 5,
                    0, 0, 0, 7,   0, 0, 0, 1,  0, 0, 0, 0, 0, 0, 0, 0, 0, 24, 0, 1,
                    0, 0, 0, 101, 0, 0, 0, 0,  0, 0, 0, 1, 0, 0, 0, 0, 0, 0,  2, 0x58};
    qel_store_be32(&wanted[44], static_cast<uint32_t>(getpid()));
    ASSERT_EQ(sends().size(), 1u);
    EXPECT_EQ(sends()[0].data, wanted);
    EXPECT_EQ(sends()[0].flags, MSG_NOSIGNAL);
}

TEST_F(qel_sync, an_acknowledgement_is_60_bytes_with_the_syncs_sequence_and_no_resume) {
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5, {.seq = 0xA1B2C3D4, .pid = 4711, .server = 0, .resume = 0, .counter = 3}));
    bytes wanted = {1,    0,    1,    0,    0, 0, 0, 60, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0,  0, 5,
                    0,    0,    0,    7,    0, 0, 0, 1,  0, 0, 0, 0, 0, 0, 0, 0, 0, 24, 0, 2,
                    0xA1, 0xB2, 0xC3, 0xD4, 0, 0, 0, 0,  0, 0, 0, 1, 0, 0, 0, 0, 0, 0,  2, 0x58};
    qel_store_be32(&wanted[44], static_cast<uint32_t>(getpid()));
    ASSERT_EQ(sends().size(), 1u);
    EXPECT_EQ(sends()[0].data, wanted);
}

TEST_F(qel_sync, an_application_without_dispatchers_says_that_it_is_no_server) {
    ASSERT_EQ(qel_register_without_thread(5, "five", nullptr, on_event), 0);
    begin({}, {{5, 7}});
    publish(7, 2);
    receive(5, sync_of(7, 2, 5));
    ASSERT_EQ(sends().size(), 2u);
    EXPECT_EQ(be32_at(sends()[0].data, 48), 0u);
    EXPECT_EQ(be32_at(sends()[1].data, 48), 0u);
}

TEST_F(qel_sync, each_sync_has_a_fresh_sequence_that_is_never_0) {
    begin({5}, {{5, 7}});
    qel_set_seq_for_test(0xFFFFFFFE);
    for (const uint32_t node : {2u, 3u, 4u})
        publish(7, node);
    EXPECT_EQ(be32_at(sends()[0].data, 40), 0xFFFFFFFFu);
    EXPECT_EQ(be32_at(sends()[1].data, 40), 1u);
    EXPECT_EQ(be32_at(sends()[2].data, 40), 2u);
}

TEST_F(qel_sync, a_sync_without_a_socket_to_send_it_from_is_freed_and_22_is_returned) {
    begin({5});
    {
        qel_lock lock(g_lib_mutex);
        EXPECT_EQ(qel_sync_app_inst(6, 2, 7, true, 0), -22);
    }
    EXPECT_EQ(unacks(), 0u);
}

// ---- a received sync -------------------------------------------------------------------------------------

TEST_F(qel_sync, the_first_sync_sets_the_instance_is_acknowledged_and_a_resume_waits_60_s) {
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5));
    EXPECT_EQ(out.take(), new_msg + recv_sync_line + ack_sent_lines +
                              "<qel_mng> 0: QEL add timer event type 0, seq 101.\n"
                              "<qel_mng> 1: QEL try resume comm to 7/2.\n");
    EXPECT_EQ(bits(7, 2), "I");
    EXPECT_EQ(resumes(), 1u);
    EXPECT_THAT(timers(0), ElementsAre(std::pair{60000u, 101u}));
    EXPECT_EQ(qel_get_inst_sync_id(5, 7, 2), 4711u);
}

TEST_F(qel_sync, while_our_own_sync_waits_for_its_acknowledgement_no_resume_is_started) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    out.take();
    receive(5, sync_of(7, 2, 5));
    EXPECT_EQ(out.take(), new_msg + recv_sync_line + ack_sent_lines);
    EXPECT_EQ(resumes(), 0u);
    qel_try_resume_comm(7, 2);
    EXPECT_EQ(resumes(), 0u);
    EXPECT_EQ(out.take(), "");
}

TEST_F(qel_sync, a_sync_for_one_instance_does_not_wait_for_the_syncs_of_others) {
    begin({5}, {{5, 7}});
    publish(7, 3);
    receive(5, sync_of(7, 2, 5));
    EXPECT_EQ(resumes(), 1u);
}

TEST_F(qel_sync, a_sync_of_a_peer_without_a_record_is_acknowledged_with_two_errors_and_a_resume) {
    begin({5});
    receive(5, sync_of(7, 2, 5));
    EXPECT_EQ(out.take(), new_msg + recv_sync_line +
                              "<qel_mng> 3: QEL get app 7 online status for inst setting failed.\n" +
                              ack_sent_lines +
                              "<qel_mng> 3: QEL get app 7 online status failed.\n"
                              "<qel_mng> 0: QEL add timer event type 0, seq 101.\n"
                              "<qel_mng> 1: QEL try resume comm to 7/2.\n");
    pass(60s);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived timer event of type 0 seq 101.\n"
                          "<qel_mng> 3: QEL resume communication to 7/2.\n");
    EXPECT_EQ(resumes(), 0u);
    EXPECT_EQ(sends().size(), 1u) << "nobody to sync for";
}

TEST_F(qel_sync, the_server_word_of_a_sync_is_not_used) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    receive(5, sync_of(7, 2, 5, {.server = 1}));
    receive(5, ack_of(7, 2, 5, {.seq = sync_seq(5, 7, 2), .server = 0}));
    EXPECT_EQ(bits(7, 2), "IAO");
    publish(7, 3);
    receive(5, sync_of(7, 3, 5, {.server = 0}));
    receive(5, ack_of(7, 3, 5, {.seq = sync_seq(5, 7, 3), .server = 0x80000000}));
    EXPECT_EQ(bits(7, 3), "SIAO");
}

TEST_F(qel_sync, an_acknowledgement_without_the_server_word_does_not_take_the_servers_bit_away) {
    begin({5, 9}, {{5, 7}, {9, 7}});
    publish(7, 2);
    receive(5, ack_of(7, 2, 5, {.seq = sync_seq(5, 7, 2), .server = 1}));
    receive(9, ack_of(7, 2, 9, {.seq = sync_seq(9, 7, 2), .server = 0}));
    EXPECT_EQ(bits(7, 2), "SA");
}

TEST_F(qel_sync, a_plain_sync_takes_an_online_instance_down_and_60_s_later_a_sync_with_resume_goes_out) {
    begin({5}, {{5, 7}});
    shake_hands(7, 2);
    receive(5, sync_of(7, 2, 5));
    EXPECT_EQ(out.take(), new_msg + recv_sync_line +
                              "<qel_mng> 1: QEL clear app 7/2 online.\n"
                              "<qel_flow_ctrl> 1: QEL reset unack stat between app 5 and 7/2.\n"
                              "<qel_app_info> 1: QEL app 5 discard 7/2 msg.\n"
                              "<qel_rpc> 0: QEL try to terminate app 5 RPC to 7/2.\n"
                              "<qel_mng> 1: QEL notify app 5 of 7/2 quit.\n"
                              "<qel_app_info> 1: QEL app 5 dispatch app 7/2 event: application quit.\n" +
                              ack_sent_lines +
                              "<qel_mng> 0: QEL add timer event type 0, seq 102.\n"
                              "<qel_mng> 1: QEL try resume comm to 7/2.\n");
    EXPECT_EQ(bits(7, 2), "I");
    qel_fake::take_calls();
    pass(60s - 1ns);
    EXPECT_EQ(out.take(), "");
    pass(1ns);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived timer event of type 0 seq 102.\n"
                          "<qel_mng> 3: QEL resume communication to 7/2.\n"
                          "<qel_flow_ctrl> 1: QEL reset unack stat between app 5 and 7/2.\n"
                          "<qel_mng_msg> 0: QEL app 5 sync inst to 7/2, seq 103.\n"
                          "<qel_mng_msg> 0: QEL app 5 sent to 7/2, msg len 60.\n");
    EXPECT_EQ(bits(7, 2), "");
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_TRUE(all[0].sync());
    EXPECT_EQ(all[0].resume(), 1u);
    receive(5, sync_of(7, 2, 5)); // the peer does as it was asked
    receive(5, ack_of(7, 2, 5, {.seq = 103}));
    EXPECT_EQ(bits(7, 2), "SIAO");
    EXPECT_EQ(last_event(), "5: join 7/2");
}

TEST_F(qel_sync, a_sync_with_resume_takes_an_online_instance_down_and_is_answered_with_a_sync_of_our_own) {
    begin({5}, {{5, 7}});
    shake_hands(7, 2);
    receive(5, sync_of(7, 2, 5, {.resume = 1}));
    EXPECT_EQ(out.take(), new_msg + recv_sync_line +
                              "<qel_mng_msg> 3: QEL app 5 resume comm to 7/2 by request.\n"
                              "<qel_mng> 1: QEL clear app 7/2 online.\n"
                              "<qel_flow_ctrl> 1: QEL reset unack stat between app 5 and 7/2.\n"
                              "<qel_app_info> 1: QEL app 5 discard 7/2 msg.\n"
                              "<qel_rpc> 0: QEL try to terminate app 5 RPC to 7/2.\n"
                              "<qel_mng> 1: QEL notify app 5 of 7/2 quit.\n"
                              "<qel_app_info> 1: QEL app 5 dispatch app 7/2 event: application quit.\n"
                              "<qel_mng_msg> 0: QEL app 5 sync inst to 7/2, seq 102.\n"
                              "<qel_mng_msg> 0: QEL app 5 sent to 7/2, msg len 60.\n" +
                              ack_sent_lines);
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all[0].sync());
    EXPECT_EQ(all[0].resume(), 0u);
    EXPECT_TRUE(all[1].ack());
    EXPECT_EQ(bits(7, 2), "I");
    EXPECT_EQ(resumes(), 0u);
    receive(5, ack_of(7, 2, 5, {.seq = 102}));
    EXPECT_EQ(bits(7, 2), "SIAO");
}

TEST_F(qel_sync, a_sync_with_resume_of_any_value_forgets_a_handshake_in_progress) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    const uint32_t old_seq = sync_seq(5, 7, 2);
    receive(5, sync_of(7, 2, 5, {.resume = 0x80000000}));
    EXPECT_EQ(unacks(), 1u) << "the old sync is forgotten, a new one waits";
    EXPECT_NE(sync_seq(5, 7, 2), old_seq);
    out.take();
    receive(5, ack_of(7, 2, 5, {.seq = old_seq}));
    EXPECT_EQ(out.take(),
              new_msg + recv_ack_line +
                  qel_format("<qel_mng_msg> 2: QEL app 5 del inst sync to 7/2 seq %u failed.\n", old_seq));
    EXPECT_EQ(bits(7, 2), "I");
}

TEST_F(qel_sync, a_sync_with_resume_of_a_peer_without_a_record_is_acknowledged_only) {
    begin({5});
    receive(5, sync_of(7, 2, 5, {.resume = 1}));
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_TRUE(all[0].ack());
}

TEST_F(qel_sync, a_restarted_peer_is_quit_and_joined_again) {
    begin({5}, {{5, 7}});
    shake_hands(7, 2, true, 100);
    withdraw(7, 2);
    EXPECT_EQ(last_event(), "5: quit 7/2");
    shake_hands(7, 2, true, 200);
    EXPECT_EQ(last_event(), "5: join 7/2");
    EXPECT_EQ(events().size(), 3u);
    EXPECT_EQ(qel_get_inst_sync_id(5, 7, 2), 200u);
    EXPECT_EQ(sync_ids(), 1u) << "one record per pair";
}

TEST_F(qel_sync, a_restarted_peer_with_the_same_process_id_comes_online_as_well) {
    begin({5}, {{5, 7}});
    shake_hands(7, 2, true, 100);
    withdraw(7, 2);
    shake_hands(7, 2, true, 100);
    EXPECT_EQ(bits(7, 2), "SIAO");
}

// ---- a received acknowledgement --------------------------------------------------------------------------

TEST_F(qel_sync, an_acknowledgement_without_a_sync_that_waits_for_it_only_warns_and_keeps_the_id) {
    begin({5}, {{5, 7}});
    receive(5, ack_of(7, 2, 5, {.seq = 77, .pid = 4712}));
    EXPECT_EQ(out.take(),
              new_msg + recv_ack_line + "<qel_mng_msg> 2: QEL app 5 del inst sync to 7/2 seq 77 failed.\n");
    EXPECT_EQ(bits(7, 2), "");
    EXPECT_EQ(take_sent().size(), 0u);
    EXPECT_EQ(resumes(), 0u);
    qel_lock lock(g_lib_mutex);
    const qel_inst_sync_id *ids = __qel_find_inst_sync_id(5, 7, 2);
    ASSERT_NE(ids, nullptr);
    EXPECT_EQ(ids->ack_id, 4712u);
    EXPECT_EQ(ids->sync_id, 0u);
}

TEST_F(qel_sync, an_acknowledgement_is_matched_by_application_peer_node_and_sequence) {
    begin({5, 9}, {{5, 7}, {9, 7}, {5, 8}});
    publish(7, 2);
    publish(7, 3);
    publish(8, 2);
    const uint32_t seq = sync_seq(5, 7, 2);
    EXPECT_EQ(qel_del_inst_sync_msg(9, 7, 2, seq), -2);
    EXPECT_EQ(qel_del_inst_sync_msg(5, 8, 2, seq), -2);
    EXPECT_EQ(qel_del_inst_sync_msg(5, 7, 3, seq), -2);
    EXPECT_EQ(qel_del_inst_sync_msg(5, 7, 2, seq + 1000), -2);
    EXPECT_EQ(unacks(), 5u);
    EXPECT_EQ(qel_del_inst_sync_msg(5, 7, 2, seq), 0);
    EXPECT_EQ(unacks(), 4u);
    EXPECT_EQ(qel_del_inst_sync_msg(5, 7, 2, seq), -2) << "once";
}

TEST_F(qel_sync, each_of_several_syncs_to_one_instance_is_acknowledged_by_its_own_sequence) {
    begin({5}, {{5, 7}});
    for (int i = 0; i < 5; i++)
        topology_event(TIPC_PUBLISHED, 0x70002, 0x70002, 7);
    std::vector<uint32_t> seqs;
    for (const sent_msg &m : take_sent())
        seqs.push_back(m.seq());
    ASSERT_EQ(seqs.size(), 5u);
    for (const size_t i : {2u, 0u, 4u, 1u, 3u}) {
        const size_t before = unacks();
        receive(5, ack_of(7, 2, 5, {.seq = seqs[i]}));
        EXPECT_EQ(unacks(), before - 1);
    }
}

TEST_F(qel_sync, the_ordinary_handshake_starts_no_resume_in_either_order) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    receive(5, ack_of(7, 2, 5, {.seq = sync_seq(5, 7, 2)}));
    EXPECT_EQ(resumes(), 0u) << "the peer's sync is still to come";
    receive(5, sync_of(7, 2, 5));
    EXPECT_EQ(resumes(), 0u);
    publish(7, 3);
    receive(5, sync_of(7, 3, 5));
    receive(5, ack_of(7, 3, 5, {.seq = sync_seq(5, 7, 3)}));
    EXPECT_EQ(resumes(), 0u);
    EXPECT_EQ(bits(7, 2), "SIAO");
    EXPECT_EQ(bits(7, 3), "SIAO");
}

TEST_F(qel_sync, a_sync_that_overtook_the_withdrawal_of_its_predecessor_is_brought_up_by_a_resume) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    receive(5, ack_of(7, 2, 5, {.seq = sync_seq(5, 7, 2), .pid = 1})); // then the peer dies and is back
    receive(5, sync_of(7, 2, 5, {.pid = 2}));
    EXPECT_TRUE(out.has("<qel_mng> 2: QEL app 5 to 7/2 instance id not equal.\n"));
    withdraw(7, 2);
    publish(7, 2);
    out.take();
    receive(5, ack_of(7, 2, 5, {.seq = sync_seq(5, 7, 2), .pid = 2}));
    EXPECT_EQ(bits(7, 2), "SA");
    EXPECT_EQ(resumes(), 1u) << "nothing else would ever bring it up";
    EXPECT_TRUE(out.has("<qel_mng> 1: QEL try resume comm to 7/2.\n"));
    take_sent();
    pass(60s);
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].resume(), 1u);
    receive(5, sync_of(7, 2, 5, {.pid = 2}));
    receive(5, ack_of(7, 2, 5, {.seq = all[0].seq(), .pid = 2}));
    EXPECT_EQ(bits(7, 2), "SIAO");
}

// ---- the records of process IDs --------------------------------------------------------------------------

TEST_F(qel_sync, the_update_that_makes_a_record_sets_its_own_id_only_and_later_ones_overwrite) {
    begin({5});
    auto ids_of = [](uint32_t app, uint32_t peer, uint32_t node) {
        qel_lock lock(g_lib_mutex);
        const qel_inst_sync_id *ids = __qel_find_inst_sync_id(app, peer, node);
        return ids ? qel_format("%u %u", ids->sync_id, ids->ack_id) : "none";
    };
    EXPECT_EQ(ids_of(5, 7, 2), "none");
    EXPECT_EQ(qel_get_inst_sync_id(5, 7, 2), 0u);
    qel_update_inst_sync_id(5, 7, 2, 11);
    EXPECT_EQ(ids_of(5, 7, 2), "11 0");
    qel_update_inst_sync_ack_id(5, 7, 3, 12);
    EXPECT_EQ(ids_of(5, 7, 3), "0 12");
    qel_update_inst_sync_ack_id(5, 7, 2, 13);
    qel_update_inst_sync_id(5, 7, 2, 14);
    EXPECT_EQ(ids_of(5, 7, 2), "14 13");
    qel_update_inst_sync_id(9, 7, 2, 15);
    qel_update_inst_sync_id(5, 8, 2, 16);
    EXPECT_EQ(ids_of(5, 7, 2), "14 13");
    EXPECT_EQ(sync_ids(), 4u);
}

TEST_F(qel_sync, the_records_of_the_outermost_applications_and_nodes_are_apart) {
    begin({5});
    uint32_t id = 1;
    for (const uint32_t app : {1u, 20479u})
        for (const uint32_t peer : {1u, 8191u, 16384u, 20479u})
            for (const uint32_t node : {0u, 1u, 65535u})
                qel_update_inst_sync_id(app, peer, node, id++);
    id = 1;
    for (const uint32_t app : {1u, 20479u})
        for (const uint32_t peer : {1u, 8191u, 16384u, 20479u})
            for (const uint32_t node : {0u, 1u, 65535u})
                EXPECT_EQ(qel_get_inst_sync_id(app, peer, node), id++);
}

// ---- malformed -------------------------------------------------------------------------------------------

bytes sync_datagram(const bytes &section) {
    return wire({.flags = 1, .src_app = 7, .src_node = 2, .dst_app = 5}, section);
}

TEST_F(qel_sync, an_empty_section_is_silent) {
    begin({5}, {{5, 7}});
    receive(5, sync_datagram({}));
    EXPECT_EQ(out.take(), new_msg);
}

TEST_F(qel_sync, a_sync_or_acknowledgement_below_24_bytes_is_an_invalid_length_and_does_nothing) {
    begin({5}, {{5, 7}});
    for (const uint16_t type : {QEL_TLV_SYNC, QEL_TLV_SYNC_ACK})
        for (uint16_t len = 4; len < 24; len++) {
            bytes section = tlv(type, {1, 2, 3, 0, 600});
            qel_store_be16(section.data(), len);
            section.resize(qel_tlv_space(len));
            const bytes more = tlv(9);
            section.insert(section.end(), more.begin(), more.end());
            receive(5, sync_datagram(section));
            EXPECT_EQ(out.take(),
                      new_msg +
                          qel_format("<qel_mng_msg> 1: QEL app 5 recv sync msg from 7/2, data len %u, type "
                                     "%s.\n"
                                     "<qel_mng_msg> 3: QEL recv invalid TLV len for 5 from 7/2(len:%u).\n",
                                     len - 4u, qel_msg_type_string(type), len));
        }
    EXPECT_EQ(sync_ids(), 0u);
    EXPECT_EQ(take_sent().size(), 0u);
}

TEST_F(qel_sync, a_longer_sync_is_taken_by_its_first_words) {
    begin({5}, {{5, 7}});
    receive(5, sync_datagram(tlv(QEL_TLV_SYNC, {0x5001, 4711, 1, 0, 600, 9, 9})));
    EXPECT_THAT(out.take(), StartsWith(new_msg +
                                       "<qel_mng_msg> 1: QEL app 5 recv sync msg from 7/2, data len 28, "
                                       "type sync instance.\n" +
                                       ack_sent_lines));
    EXPECT_EQ(bits(7, 2), "I");
}

TEST_F(qel_sync, other_types_in_a_sync_message_are_told_and_skipped) {
    begin({5}, {{5, 7}});
    bytes section = tlv(6);
    for (const bytes &more : {tlv(9, {1}), tlv(QEL_TLV_RELOAD), tlv(QEL_TLV_SYNC, {0x5001, 4711, 1, 0, 600})})
        section.insert(section.end(), more.begin(), more.end());
    receive(5, sync_datagram(section));
    EXPECT_THAT(out.take(),
                StartsWith(new_msg +
                           "<qel_mng_msg> 1: QEL app 5 recv sync msg from 7/2, data len 0, type "
                           "application ping.\n"
                           "<qel_mng_msg> 2: QEL app 5 recv unexpected data type 6 from 7/2.\n"
                           "<qel_mng_msg> 1: QEL app 5 recv sync msg from 7/2, data len 4, type .\n"
                           "<qel_mng_msg> 2: QEL app 5 recv unexpected data type 9 from 7/2.\n"
                           "<qel_mng_msg> 1: QEL app 5 recv sync msg from 7/2, data len 0, type reload "
                           "application.\n"
                           "<qel_mng_msg> 2: QEL app 5 recv unexpected data type 8 from 7/2.\n" +
                           recv_sync_line + ack_sent_lines));
}

TEST_F(qel_sync, a_sync_and_an_acknowledgement_in_one_message_both_act) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    bytes section = tlv(QEL_TLV_SYNC, {0x5001, 4711, 1, 0, 600});
    const bytes ack = tlv(QEL_TLV_SYNC_ACK, {sync_seq(5, 7, 2), 4711, 1, 0, 600});
    section.insert(section.end(), ack.begin(), ack.end());
    receive(5, sync_datagram(section));
    EXPECT_EQ(bits(7, 2), "SIAO");
}

TEST_F(qel_sync, bad_heads_and_trailing_bytes_are_told_after_what_was_good_has_acted) {
    begin({5}, {{5, 7}});
    bytes section = tlv(QEL_TLV_SYNC, {0x5001, 4711, 1, 0, 600});
    section.resize(section.size() + 3);
    receive(5, sync_datagram(section));
    EXPECT_THAT(out.take(),
                testing::EndsWith("<qel_mng_msg> 3: QEL recv invalid TLV section for 5 from 7/2 .\n"));
    EXPECT_EQ(bits(7, 2), "I");
    for (const size_t size : {1u, 2u, 3u}) {
        receive(5, sync_datagram(bytes(size)));
        EXPECT_EQ(out.take(), new_msg + "<qel_mng_msg> 3: QEL recv invalid TLV section for 5 from 7/2 .\n");
    }
    receive(5, sync_datagram({0, 3, 0, 1}));
    EXPECT_EQ(out.take(), new_msg + "<qel_mng_msg> 3: QEL recv invalid TLV len for 5 from 7/2(len:3).\n");
    receive(5, sync_datagram({0, 5, 0, 1}));
    EXPECT_EQ(out.take(), new_msg + "<qel_mng_msg> 3: QEL recv invalid TLV section for 5 from 7/2 .\n");
}

// What the walk over a sync's section prints by itself, and how many syncs in it are to be acknowledged.
std::string sync_section_as_told(const bytes &section, uint32_t peer, uint32_t node, unsigned *syncs) {
    const std::string bad =
        qel_format("<qel_mng_msg> 3: QEL recv invalid TLV section for 5 from %d/%d .\n", peer, node);
    std::string text;
    *syncs = 0;
    for (size_t at = 0; at != section.size();) {
        if (at > section.size() || section.size() - at < 4)
            return text + bad;
        const unsigned len = section[at] * 256u + section[at + 1],
                       type = section[at + 2] * 256u + section[at + 3];
        if (len > section.size() - at)
            return text + bad;
        const std::string bad_len = qel_format(
            "<qel_mng_msg> 3: QEL recv invalid TLV len for 5 from %d/%d(len:%u).\n", peer, node, len);
        if (len < 4)
            return text + bad_len;
        text += qel_format("<qel_mng_msg> 1: QEL app 5 recv sync msg from %d/%d, data len %u, type %s.\n",
                           peer, node, len - 4, qel_msg_type_string(type));
        if (type != 1 && type != 2)
            text += qel_format("<qel_mng_msg> 2: QEL app 5 recv unexpected data type %u from %d/%d.\n", type,
                               peer, node);
        else if (len < 24)
            return text + bad_len;
        else
            *syncs += type == 1;
        at += (len + 3) / 4 * 4;
    }
    return text;
}
std::string sync_section_lines(const std::string &text) {
    std::string lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at) + 1;
        const std::string line = text.substr(at, end - at);
        for (const char *part : {" recv sync msg from ", " invalid TLV ", " unexpected data type "})
            if (line.find(part) != std::string::npos)
                lines += line;
        at = end;
    }
    return lines;
}

struct qel_sync_hostile : qel_sync {
    void check(const bytes &datagram, const std::string &what) {
        const unsigned refused = exceptions(5);
        const qel_seen s = unwire(datagram);
        out.take();
        qel_fake::take_calls();
        receive(5, datagram);
        const std::string text = out.take();
        unsigned acks = 0;
        for (const sent_msg &m : take_sent())
            acks += m.ack() && m.app == s.hdr.src_app && m.node == s.hdr.src_node;
        if (datagram.size() < QEL_MSG_HDR_LEN || s.hdr.len != datagram.size() || s.hdr.dst_app != 5 ||
            s.hdr.src_node > 65535 || !qel_valid_app_id(s.hdr.src_app)) {
            ASSERT_EQ(exceptions(5), refused + 1) << what;
            ASSERT_EQ(acks, 0u) << what;
            ASSERT_EQ(sync_section_lines(text), "") << what;
        } else if (s.hdr.flags & QEL_FLAG_SYNC) {
            bytes section = s.data;
            if (s.hdr.rpc_status == 1) // its first words were converted
                for (size_t at = 0; at < 8; at += 4)
                    std::reverse(section.begin() + static_cast<ptrdiff_t>(at),
                                 section.begin() + static_cast<ptrdiff_t>(at) + 4);
            unsigned syncs;
            ASSERT_EQ(sync_section_lines(text),
                      sync_section_as_told(section, s.hdr.src_app, s.hdr.src_node, &syncs))
                << what;
            ASSERT_EQ(acks, syncs) << what;
        } else {
            ASSERT_EQ(acks, 0u) << what;
        }
    }
    void check_all(const bytes &datagram) {
        for (size_t size = 1; size <= datagram.size(); size++)
            check(bytes(datagram.begin(), datagram.begin() + static_cast<ptrdiff_t>(size)),
                  qel_format("cut at %zu", size));
        for (size_t size = QEL_MSG_HDR_LEN; size <= datagram.size(); size++) {
            bytes part(datagram.begin(), datagram.begin() + static_cast<ptrdiff_t>(size));
            qel_store_be32(&part[4], static_cast<uint32_t>(size)); // and the length agrees
            check(part, qel_format("whole with %zu", size));
        }
        for (size_t bit = 0; bit < datagram.size() * 8; bit++) {
            bytes flipped = datagram;
            flipped[bit / 8] = static_cast<uint8_t>(flipped[bit / 8] ^ 1u << bit % 8);
            check(flipped, qel_format("bit %zu", bit));
        }
    }
};

TEST_F(qel_sync_hostile, every_prefix_and_every_flipped_bit_of_a_sync_is_refused_or_taken_as_it_reads) {
    begin({5}, {{5, 7}});
    check_all(sync_of(7, 2, 5));
    check_all(sync_of(7, 2, 5, {.resume = 1}));
    shake_hands(7, 3);
    EXPECT_EQ(bits(7, 3), "SIAO");
}

TEST_F(qel_sync_hostile,
       every_prefix_and_every_flipped_bit_of_an_acknowledgement_is_refused_or_taken_as_it_reads) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    check_all(ack_of(7, 2, 5, {.seq = sync_seq(5, 7, 2)}));
    shake_hands(7, 3);
    EXPECT_EQ(bits(7, 3), "SIAO");
}

TEST_F(qel_sync_hostile, every_length_of_an_item_in_every_size_of_section_is_refused_or_taken_as_it_reads) {
    begin({5}, {{5, 7}});
    for (const uint16_t type : {QEL_TLV_SYNC, QEL_TLV_SYNC_ACK})
        for (size_t size = 0; size <= 32; size++)
            for (uint16_t len = 0; len <= 34; len++) {
                bytes section = tlv(type, {1, 2, 3, 0, 600, 7, 7});
                qel_store_be16(section.data(), len);
                section.resize(size);
                check(sync_datagram(section), qel_format("%u of %zu", len, size));
            }
}

// ---- returned acknowledgements ---------------------------------------------------------------------------

TEST_F(qel_sync, an_acknowledgement_that_comes_back_every_time_is_sent_again_once_a_second_600_times) {
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5));
    qel_set_masks(0);
    qel_fake::call last = sends().back();
    for (uint32_t again = 1; again <= 600; again++) {
        qel_fake::take_calls();
        come_back(last);
        ASSERT_EQ(resends(), 1u) << again;
        qel_time::advance(1s);
        settle();
        ASSERT_EQ(resends(), 0u) << again;
        std::vector<qel_fake::call> acks;
        for (const qel_fake::call &c : sends())
            if (c.data[39] == QEL_TLV_SYNC_ACK)
                acks.push_back(c);
        ASSERT_EQ(acks.size(), 1u) << again;
        last = acks[0];
        ASSERT_EQ(be32_at(last.data, 56), 600 - again);
        ASSERT_EQ(be32_at(last.data, 40), 0x5001u) << "the sequence that it answers";
        ASSERT_NE(be32_at(last.data, 28), 0u) << "the header's is the timer's";
    }
    qel_fake::take_calls();
    come_back(last);
    EXPECT_EQ(resends(), 0u) << "no try is left";
    EXPECT_THAT(timers(1), ElementsAre());
}

TEST_F(qel_sync, a_timer_sends_only_the_record_with_its_sequence) {
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5));
    receive(5, sync_of(7, 3, 5));
    const std::vector<qel_fake::call> acks = sends();
    come_back(acks[0]);
    come_back(acks[1]);
    const auto pending = timers(1);
    ASSERT_EQ(pending.size(), 2u);
    take_sent();
    ASSERT_TRUE(qel_fake::end_timer(1, pending[1].second));
    settle();
    const std::vector<sent_msg> again = take_sent();
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].node, 3u);
    EXPECT_EQ(resends(), 1u);
}

TEST_F(qel_sync, when_the_timer_cannot_be_started_the_copy_is_freed_and_nothing_is_listed) {
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5));
    qel_fake::fail(op::send, EPIPE);
    come_back(sends().back());
    EXPECT_EQ(resends(), 0u);
    EXPECT_TRUE(out.has("<qel_mng> 3: QEL send timer subscription msg failed: Broken pipe.\n,"
                        "===== QEL message header information =====\n"));
    EXPECT_THAT(out.text(), Not(HasSubstr("QEL add sync inst ack resend")));
}

TEST_F(qel_sync, a_resend_goes_on_after_the_peer_went_and_came) {
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5));
    come_back(sends().back());
    withdraw(7, 2); // does not touch it
    EXPECT_EQ(resends(), 1u);
    take_sent();
    pass(1s);
    EXPECT_EQ(take_sent().size(), 1u);
}

// ---- an acknowledgement that cannot be sent --------------------------------------------------------------

TEST_F(qel_sync, an_acknowledgement_whose_send_fails_is_kept_and_sent_after_a_second) {
    begin({5}, {{5, 7}});
    qel_fake::fail_to(7, 2, EHOSTUNREACH, 1);
    receive(5, sync_of(7, 2, 5));
    EXPECT_EQ(out.take(),
              new_msg + recv_sync_line + ack_sent_lines +
                  "<qel_mng_msg> 3: QEL sendto failed: No route to host.\n"
                  "<qel_mng_msg> 2: QEL app 5 sent to 7/2 failed: No route to host, msg len 60, sent -1.\n"
                  "<qel_mng> 0: QEL add timer event type 1, seq 101.\n"
                  "<qel_mng> 0: QEL add sync inst ack resend to 7/2, seq 20481.\n"
                  "<qel_mng> 0: QEL add timer event type 0, seq 102.\n"
                  "<qel_mng> 1: QEL try resume comm to 7/2.\n");
    EXPECT_EQ(resends(), 1u);
    take_sent();
    pass(1s);
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_TRUE(all[0].ack());
    EXPECT_EQ(all[0].counter(), 599u);
    EXPECT_EQ(all[0].hdr.seq, 101u);
    EXPECT_EQ(resends(), 0u);
}

TEST_F(qel_sync, a_resend_that_fails_stays_listed_and_is_tried_every_second_until_no_try_is_left) {
    begin({5}, {{5, 7}});
    qel_fake::fail_to(7, 2, EHOSTUNREACH, qel_fake::for_ever);
    receive(5, sync_of(7, 2, 5));
    qel_set_masks(0);
    qel_fake::take_calls();
    std::vector<uint32_t> seqs;
    for (uint32_t second = 1; second <= 600; second++) {
        const auto pending = timers(1);
        ASSERT_EQ(pending.size(), 1u) << second;
        EXPECT_EQ(pending[0].first, 1000u);
        seqs.push_back(pending[0].second);
        qel_time::advance(1s);
        settle();
        ASSERT_EQ(resends(), 1u) << second;
        unsigned tries = 0;
        for (const qel_fake::call &c : qel_fake::take_calls())
            if (c.what == op::sendto && c.data[39] == QEL_TLV_SYNC_ACK) {
                tries++;
                EXPECT_EQ(be32_at(c.data, 56), 600 - second);
                EXPECT_EQ(be32_at(c.data, 28), seqs.back());
            }
        ASSERT_EQ(tries, 1u) << second;
    }
    EXPECT_THAT(timers(1), ElementsAre()) << "it stays without a timer";
    pass(10s);
    EXPECT_EQ(resends(), 1u);
    std::sort(seqs.begin(), seqs.end());
    EXPECT_EQ(std::unique(seqs.begin(), seqs.end()), seqs.end()) << "a fresh sequence each time";
    EXPECT_THAT(lib_print(5), HasSubstr("\n  Resend instance sync ack(src_app->dst_app/dst_node/seq):\n"
                                        "    5->7/2/20481\n"));
}

TEST_F(qel_sync, a_resend_that_succeeds_after_failures_is_done) {
    begin({5}, {{5, 7}});
    qel_fake::fail_to(7, 2, EHOSTUNREACH, 4);
    receive(5, sync_of(7, 2, 5));
    for (int second = 0; second < 3; second++) {
        pass(1s);
        EXPECT_EQ(resends(), 1u);
    }
    pass(1s);
    EXPECT_EQ(resends(), 0u);
    EXPECT_EQ(take_sent().back().counter(), 596u);
}

TEST_F(qel_sync, a_failed_resend_whose_next_timer_cannot_be_started_stays_listed) {
    begin({5}, {{5, 7}});
    qel_fake::fail_to(7, 2, EHOSTUNREACH, 2);
    receive(5, sync_of(7, 2, 5));
    qel_fake::fail(op::send, EPIPE);
    pass(1s);
    EXPECT_EQ(resends(), 1u);
    EXPECT_THAT(timers(1), ElementsAre());
    qel_fake::push_recv_end(qel_fake::topology()); // a new connection gives it a timer
    settle();
    EXPECT_EQ(timers(1).size(), 1u);
    pass(1s);
    EXPECT_EQ(resends(), 0u);
}

// ---- a returned sync -------------------------------------------------------------------------------------

TEST_F(qel_sync, a_returned_sync_that_still_waits_is_sent_again_after_a_second_with_one_try_less) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    out.take();
    come_back(sends().back());
    EXPECT_EQ(out.take(), new_msg +
                              "<qel_mng> 3: QEL app 5 recv error info TIPC overload, data size 60 bytes.\n"
                              "<qel_mng> 0: QEL app 5 recv TIPC reject data.\n"
                              "<qel_mng> 0: QEL add timer event type 1, seq 102.\n"
                              "<qel_mng> 0: QEL add sync inst resend to 7/2, seq 101.\n"
                              "===== QEL message header information =====\n"
                              "QEL version 1, flag: SYNC, qos 0\n"
                              "message length 60, app version 1\n"
                              "src app/node 5/1, dst app/node 7/2\n"
                              "seq 0, RPC status RPC success\n"
                              "==========================================\n"
                              "<qel_mng> 0: QEL app 5 recv dst name = {0x8ff, 0x70002, 0x70002}");
    EXPECT_THAT(lib_print(5), HasSubstr("\n  Resend instance sync ack(src_app->dst_app/dst_node/seq):\n"
                                        "    5->7/2/101\n"))
        << "listed among the acknowledgements";
    take_sent();
    pass(1s);
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_TRUE(all[0].sync());
    EXPECT_EQ(all[0].seq(), 101u);
    EXPECT_EQ(all[0].counter(), 599u);
    EXPECT_EQ(all[0].hdr.seq, 102u);
    EXPECT_EQ(resends(), 0u);
    EXPECT_EQ(unacks(), 1u) << "it still waits";
    receive(5, sync_of(7, 2, 5));
    receive(5, ack_of(7, 2, 5, {.seq = 101}));
    EXPECT_EQ(bits(7, 2), "SIAO");
}

TEST_F(qel_sync, a_returned_sync_that_nobody_waits_for_is_only_dumped) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    const qel_fake::call sync = sends().back();
    receive(5, ack_of(7, 2, 5, {.seq = 101}));
    come_back(sync);
    EXPECT_EQ(resends(), 0u);
    EXPECT_THAT(timers(1), ElementsAre());
    EXPECT_EQ(recv_stat(5, 7, 2), "");
}

TEST_F(qel_sync, a_sync_that_is_acknowledged_or_cleared_before_its_second_is_over_is_dropped) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    publish(7, 3);
    const std::vector<qel_fake::call> syncs = sends();
    come_back(syncs[0]);
    come_back(syncs[1]);
    receive(5, ack_of(7, 2, 5, {.seq = 101}));
    withdraw(7, 3);
    EXPECT_EQ(resends(), 2u);
    take_sent();
    pass(1s);
    EXPECT_EQ(take_sent().size(), 0u);
    EXPECT_EQ(resends(), 0u);
}

TEST_F(qel_sync, a_returned_sync_is_sent_again_600_times_at_most) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    qel_set_masks(0);
    qel_fake::call last = sends().back();
    for (uint32_t again = 1; again <= 600; again++) {
        qel_fake::take_calls();
        come_back(last);
        qel_time::advance(1s);
        settle();
        ASSERT_EQ(sends().size(), 1u) << again;
        last = sends().back();
        ASSERT_EQ(be32_at(last.data, 56), 600 - again);
    }
    come_back(last);
    EXPECT_EQ(resends(), 0u);
    EXPECT_EQ(unacks(), 1u);
}

TEST_F(qel_sync, a_sync_again_that_cannot_be_sent_is_tried_every_second_while_it_waits) {
    begin({5}, {{5, 7}});
    publish(7, 2);
    come_back(sends().back());
    qel_fake::fail_to(7, 2, EHOSTUNREACH, 2);
    pass(2s);
    EXPECT_EQ(resends(), 1u);
    take_sent();
    pass(1s);
    EXPECT_EQ(resends(), 0u);
    ASSERT_EQ(take_sent().size(), 1u);
}

// ---- resume ----------------------------------------------------------------------------------------------

TEST_F(qel_sync, a_resume_is_not_started_for_an_online_instance) {
    begin({5}, {{5, 7}});
    shake_hands(7, 2);
    qel_try_resume_comm(7, 2);
    EXPECT_EQ(resumes(), 0u);
    EXPECT_EQ(out.take(), "");
}

TEST_F(qel_sync, a_resume_whose_timer_cannot_be_started_is_forgotten) {
    begin({5}, {{5, 7}});
    qel_fake::fail(op::send, EPIPE);
    qel_try_resume_comm(7, 2);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL add timer event type 0, seq 101.\n"
                          "<qel_mng> 3: QEL send timer subscription msg failed: Broken pipe.\n,");
    EXPECT_EQ(resumes(), 0u);
}

TEST_F(qel_sync, a_resume_that_was_cleared_does_nothing_when_its_time_comes) {
    begin({5}, {{5, 7}});
    for (const uint32_t node : {2u, 3u, 4u})
        receive(5, sync_of(7, node, 5));
    ASSERT_EQ(resumes(), 3u);
    publish(7, 2);               // a join clears it
    qel_app_inst_try_quit(7, 3); // a quit clears it
    withdraw(7, 4);              // a withdrawal clears it
    EXPECT_EQ(resumes(), 0u);
    for (const uint32_t node : {2u, 3u, 4u})
        EXPECT_EQ(out.count(qel_format("<qel_mng> 0: QEL clear resume comm to 7/%u.\n", node)), 1u);
    out.take();
    take_sent();
    pass(60s);
    EXPECT_THAT(out.take(), Not(HasSubstr("QEL resume communication")));
    EXPECT_EQ(take_sent().size(), 0u);
}

TEST_F(qel_sync, a_second_plain_sync_replaces_the_resume_of_the_first_and_starts_its_minute_anew) {
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5));
    pass(30s);
    receive(5, sync_of(7, 2, 5));
    EXPECT_EQ(resumes(), 1u);
    out.take();
    pass(30s);
    EXPECT_EQ(out.take(), "") << "the first one's timer went with it";
    pass(30s);
    EXPECT_TRUE(out.has("<qel_mng> 3: QEL resume communication to 7/2.\n"));
}

TEST_F(qel_sync, a_resume_that_is_cleared_gives_its_timer_back_by_the_same_28_bytes) {
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5));
    const tipc_subscr timer = timer_subscription(60000, 0, 101);
    ASSERT_EQ(qel_fake::calls(op::send).back().data, as_bytes(timer));
    publish(7, 2);
    tipc_subscr cancel = timer;
    cancel.filter |= TIPC_SUB_CANCEL;
    EXPECT_EQ(qel_fake::calls(op::send).back().data, as_bytes(cancel));
    EXPECT_THAT(timers(0), ElementsAre());
}

TEST_F(qel_sync, a_timer_that_cannot_be_given_back_is_no_matter_and_not_told) {
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5));
    out.take();
    qel_fake::fail(op::send, EPIPE);
    qel_app_inst_try_quit(7, 2);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL clear resume comm to 7/2.\n");
    EXPECT_EQ(resumes(), 0u);
    pass(60s);
    EXPECT_EQ(out.take(), "<qel_mng> 0: QEL perceived timer event of type 0 seq 101.\n");
}

TEST_F(qel_sync, a_resume_sends_one_sync_with_resume_for_each_subscriber_and_forgets_pending_ones) {
    begin({5, 9}, {{5, 7}, {9, 7}});
    receive(5, sync_of(7, 2, 5));
    publish(7, 3);
    take_sent();
    pass(60s);
    const std::vector<sent_msg> all = take_sent();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].hdr.src_app, 5u);
    EXPECT_EQ(all[1].hdr.src_app, 9u);
    for (const sent_msg &m : all) {
        EXPECT_EQ(m.node, 2u);
        EXPECT_EQ(m.resume(), 1u);
    }
    EXPECT_EQ(unacks_to(7, 2), 2u);
    EXPECT_EQ(unacks_to(7, 3), 2u);
}

TEST_F(qel_sync, two_resumes_with_one_sequence_both_go_and_the_last_ones_peer_is_resumed) {
    begin({5}, {{5, 7}});
    qel_set_seq_for_test(500);
    qel_try_resume_comm(7, 2);
    qel_set_seq_for_test(500); // the counter came round
    qel_try_resume_comm(7, 3);
    ASSERT_EQ(resumes(), 2u);
    out.take();
    timer_event(0, 501);
    EXPECT_EQ(resumes(), 0u);
    EXPECT_EQ(out.count("<qel_mng> 3: QEL resume communication to 7/3.\n"), 1u);
    EXPECT_EQ(out.count("<qel_mng> 3: QEL resume communication to 7/2.\n"), 0u);
}

TEST_F(qel_sync, two_resends_with_one_sequence_are_both_sent) {
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5));
    receive(5, sync_of(7, 3, 5));
    const std::vector<qel_fake::call> acks = sends();
    qel_set_seq_for_test(500);
    come_back(acks[0]);
    qel_set_seq_for_test(500);
    come_back(acks[1]);
    ASSERT_EQ(resends(), 2u);
    take_sent();
    timer_event(1, 501);
    EXPECT_EQ(take_sent().size(), 2u);
    EXPECT_EQ(resends(), 0u);
}

TEST_F(qel_sync, the_prints_show_pending_syncs_resumes_and_resends_in_the_order_they_came) {
    begin({5}, {{5, 7}});
    const std::string before = lib_print(5);
    EXPECT_THAT(before, testing::EndsWith("    Application 7 instance online on nodes:\n"));
    publish(7, 3);
    publish(7, 2);
    receive(5, sync_of(8, 9, 5));
    receive(5, sync_of(8, 4, 5));
    std::vector<qel_fake::call> acks;
    for (const qel_fake::call &c : sends())
        if (c.app() == 8)
            acks.push_back(c);
    come_back(acks.at(1));
    come_back(acks.at(0));
    EXPECT_EQ(lib_print(5), before + "\n  Unack instance sync(src_app/seq->dst_app/dst_node):\n"
                                     "    5/101->7/3 5/102->7/2\n"
                                     "\n  Communication resume info(src_app/seq->dst_app/dst_node):\n"
                                     "    0/103->8/9 0/104->8/4\n"
                                     "\n  Resend instance sync ack(src_app->dst_app/dst_node/seq):\n"
                                     "    5->8/4/20481 5->8/9/20481\n");
}

// ---- floods ----------------------------------------------------------------------------------------------

TEST_F(qel_sync, at_most_4096_resumes_are_listed_and_the_rest_gets_one_line_a_second) {
    const std::string full = "<qel_mng> 2: QEL resume list full.\n";
    begin({5}, {{5, 7}});
    qel_set_masks(1u << W);
    auto sync_from = [](uint32_t node) { deliver(5, sync_of(8, node, 5)); };
    for (uint32_t node = 0; node < 4096; node++)
        sync_from(node);
    settle();
    EXPECT_EQ(resumes(), 4096u);
    EXPECT_EQ(out.take(), "");
    for (uint32_t node = 4096; node < 4200; node++)
        sync_from(node);
    settle();
    EXPECT_EQ(resumes(), 4096u);
    EXPECT_EQ(timers(0).size(), 4096u);
    EXPECT_EQ(out.take(), full);
    EXPECT_EQ(take_sent().size(), 4200u) << "acknowledged they are all";
    pass(1s - 1ns);
    sync_from(4200);
    settle();
    EXPECT_EQ(out.take(), "");
    pass(1ns);
    sync_from(4201);
    sync_from(4202);
    settle();
    EXPECT_EQ(out.take(), full);
    topology_event(TIPC_WITHDRAWN, 0x80000, 0x80000, 8); // makes room for one
    out.take();
    sync_from(4203);
    settle();
    EXPECT_EQ(resumes(), 4096u);
    EXPECT_EQ(out.take(), "");
}

TEST_F(qel_sync, however_many_syncs_an_instance_sends_one_timer_of_the_kernel_is_held_for_it) {
    begin({5}, {{5, 7}});
    qel_set_masks(0);
    bytes one = sync_of(7, 2, 5), many(one.begin(), one.begin() + 36);
    for (int i = 0; i < 2730; i++) // as many as a message holds
        many.insert(many.end(), one.begin() + 36, one.end());
    qel_store_be32(&many[4], static_cast<uint32_t>(many.size()));
    receive(5, many);
    EXPECT_EQ(take_sent().size(), 2730u);
    EXPECT_EQ(resumes(), 1u);
    EXPECT_EQ(timers(0).size(), 1u);
}

TEST_F(qel_sync, at_most_4096_resends_are_listed_and_the_rest_is_dumped_with_one_line_a_second) {
    const std::string full = "<qel_mng> 2: QEL resend list full.\n";
    begin({5}, {{5, 7}});
    receive(5, sync_of(7, 2, 5));
    const qel_fake::call ack = sends().back();
    qel_set_masks(1u << W);
    out.take();
    auto back = [&ack] { qel_fake::push_returned(ack.fd, 2, ack.data, 7, 2); };
    for (int i = 0; i < 4096; i++)
        back();
    settle();
    EXPECT_EQ(resends(), 4096u);
    EXPECT_EQ(out.take(), "");
    for (int i = 0; i < 100; i++)
        back();
    settle();
    EXPECT_EQ(resends(), 4096u);
    EXPECT_EQ(timers(1).size(), 4096u);
    EXPECT_EQ(out.take(), full);
    qel_set_masks(1u << V | 1u << W);
    back();
    settle();
    EXPECT_THAT(out.take(), HasSubstr("<qel_mng> 0: QEL app 5 recv TIPC reject data.\n"
                                      "===== QEL message header information =====\n"));
    qel_set_masks(1u << W);
    qel_fake::automatic_timers(false);
    pass(1s - 1ns);
    back();
    settle();
    EXPECT_EQ(out.take(), "");
    pass(1ns);
    back();
    back();
    settle();
    EXPECT_EQ(out.take(), full);

    // an acknowledgement that cannot be sent is freed then
    qel_fake::fail_to(7, 3, EHOSTUNREACH);
    receive(5, sync_of(7, 3, 5));
    EXPECT_EQ(resends(), 4096u);
    qel_fake::automatic_timers(true);
    pass(1s);
    EXPECT_EQ(resends(), 0u);
}

TEST_F(qel_sync, a_peer_cannot_make_more_records_of_ids_than_there_are_instances) {
    begin({5}, {{5, 7}});
    qel_set_masks(0);
    for (int round = 0; round < 3; round++) {
        for (uint32_t node = 0; node < 500; node++)
            for (const bool sync : {true, false})
                deliver(5, sync ? sync_of(7, node, 5, {.pid = node + 1})
                                : ack_of(7, node, 5, {.seq = 1, .pid = node + 2}));
        settle();
    }
    EXPECT_EQ(sync_ids(), 500u);
}

// Processor time of the calling thread, the least of several tries.
template <class Work> uint64_t least_ns(Work work) {
    uint64_t least = UINT64_MAX;
    for (int i = 0; i < 9; i++) {
        timespec a, b;
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &a);
        work();
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &b);
        least = std::min(
            least, static_cast<uint64_t>((b.tv_sec - a.tv_sec) * 1'000'000'000 + b.tv_nsec - a.tv_nsec));
    }
    return least;
}
// With 65,536 records nothing takes much longer than with 10; walking over all would take thousands of times.
constexpr uint64_t slower_at_most = 100;

TEST_F(qel_sync, looking_up_ids_takes_no_longer_with_65536_peers_than_with_10) {
    begin({5}, {{5, 7}});
    auto fill = [](uint32_t from, uint32_t to) {
        for (uint32_t node = from; node < to; node++)
            qel_update_inst_sync_id(5, 7, node, node);
    };
    auto look = [](uint32_t count) {
        return least_ns([count] {
            uint64_t sum = 0;
            for (uint32_t i = 0; i < 1000; i++)
                sum += qel_get_inst_sync_id(5, 7, i * 7919 % count);
            EXPECT_GT(sum, 0u);
        });
    };
    fill(0, 10);
    const uint64_t few = look(10);
    fill(10, 65536);
    EXPECT_EQ(sync_ids(), 65536u);
    EXPECT_LT(look(65536), few * slower_at_most);
}

TEST_F(qel_sync, acknowledging_and_clearing_take_no_longer_with_65536_syncs_under_way_than_with_10) {
    begin({5}, {{5, 7}});
    qel_set_masks(0);
    auto join = [](uint32_t from, uint32_t to) {
        for (uint32_t node = from; node < to; node++)
            qel_app_inst_join(7, node, 0);
    };
    auto work = [] {
        return least_ns([] {
            for (uint32_t i = 0; i < 200; i++) {
                qel_app_inst_join(7, 5, 0);
                EXPECT_EQ(qel_del_inst_sync_msg(5, 7, 5, 0), -2);
                qel_app_inst_force_quit(7, 5);
            }
        });
    };
    join(0, 10);
    const uint64_t few = work();
    join(10, 65536);
    EXPECT_GE(unacks(), 65535u);
    EXPECT_LT(work(), few * slower_at_most);
}

TEST_F(qel_sync, a_sync_from_each_of_65536_nodes_is_handled_and_each_comes_online) {
    begin({5}, {{5, 7}});
    qel_set_masks(0);
    topology_event(TIPC_PUBLISHED, 0x70000, 0x7FFFF, 7);
    std::vector<uint32_t> seqs;
    for (const sent_msg &m : take_sent())
        seqs.push_back(m.seq());
    ASSERT_EQ(seqs.size(), 65536u);
    qel_fake::take_calls();
    for (uint32_t node = 0; node < 65536; node++) {
        deliver(5, sync_of(7, node, 5, {.pid = node}));
        deliver(5, ack_of(7, node, 5, {.seq = seqs[node], .pid = node}));
    }
    settle();
    EXPECT_EQ(unacks(), 0u);
    EXPECT_EQ(resumes(), 0u);
    uint32_t online = 0;
    for (uint32_t node = 0; node < 65536; node++)
        online += qel_is_app_online(node, 7) != 0;
    EXPECT_EQ(online, 65536u);
}

} // namespace
