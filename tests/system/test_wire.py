"""The bytes that go over the transport, kind by kind, as a socket beside the library sees and answers."""
import os
import signal
import struct
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import SUCCESS, UNAVAILABLE, Raw, Reply, SystemTest, main  # noqa: E402
from qel_wire import (ACK, DEBUG, ECHO, INFO, MNG, PING, PROCESSED, RELOAD, REQUEST, RESENDS,  # noqa: E402
                      STATISTICS, SYNC, SYNC_ACK, SYNC_INST, Header, Peer, body, header, is_sync, message,
                      sync, sync_fields, tlv)

AGENT, PEER, DAEMON = (20, 1), (30, 2), (1, 2)  # application, node
NATIVE = struct.Struct("=III")


def kind_of(flags):
    return lambda data: len(data) >= 36 and data[2] == flags


class Wire(SystemTest):
    """Node 1 has an agent, node 2 a peer made by hand."""

    def start(self, conf="", **options):
        self.node(1).write_conf(conf)
        self.agent_ = self.agent(1, {20: [30]}, **options)
        self.raw = Raw(self.node(2))
        self.peer = Peer(self.raw, PEER)
        return self.agent_, self.peer

    def joined(self, conf="", **options):
        agent, peer = self.start(conf, **options)
        peer.join(AGENT)
        agent.joined(30, 2)
        return agent, peer

    def expect_header(self, data, **fields):
        expected = Header(version=1, reserved=0, flags=0, qos=0, len=len(data), src_node=1, dst_node=2,
                          src_app=20, dst_app=30, app_ver=1, seq=0, rpc_status=0)
        self.assertEqual(header(data), expected._replace(**fields))

    def test_the_name_is_published_about_a_second_after_run_with_application_and_node(self):
        raw = Raw(self.node(2))
        topology = raw.value("topology")
        self.assertEqual(raw.call("subscribe", topology, 2303, 0, 0xFFFFFFFF, 0xFFFFFFFF, 1)[0], 28)
        agent = self.agent(1, {20: [], 16384: [], 20479: []}, run=False)
        self.stays(lambda: raw.seen("event .*") == [], "nothing before run", 0.3)
        self.assertEqual(agent.value("run"), 0)
        self.stays(lambda: raw.seen("event .*") == [], "nothing for almost a second", 0.8)
        for app in (20, 16384, 20479):
            raw.event(rf"event {topology} 1 {app << 16 | 1} {app << 16 | 1} \S+", 3)
        agent.kill()
        for app in (20, 16384, 20479):
            raw.event(rf"event {topology} 2 {app << 16 | 1} {app << 16 | 1} \S+", 3)

    def test_a_sync_and_its_acknowledgement(self):
        agent, peer = self.start()
        theirs, acknowledgement = peer.join(AGENT)
        pid = agent.value("pid")
        self.assertEqual(len(theirs), 60)
        self.expect_header(theirs, flags=SYNC)
        fields = sync_fields(theirs)
        self.assertEqual(fields._replace(seq=0), (24, SYNC_INST, 0, pid, 1, 0, RESENDS))
        self.assertNotEqual(fields.seq, 0)
        self.assertEqual(len(acknowledgement), 60)
        self.expect_header(acknowledgement, flags=SYNC)
        self.assertEqual(sync_fields(acknowledgement), (24, SYNC_ACK, 77, pid, 1, 0, RESENDS))
        agent.joined(30, 2)

    def test_a_client_says_that_it_is_no_server(self):
        agent, peer = self.start(options="client")
        theirs, acknowledgement = peer.join(AGENT)
        self.assertEqual(sync_fields(theirs).server, 0)
        self.assertEqual(sync_fields(acknowledgement).server, 0)
        agent.joined(30, 2)

    def test_a_peer_with_another_process_id_in_sync_and_acknowledgement_never_joins(self):
        agent, peer = self.start()
        theirs = peer.receive(is_sync(SYNC_INST, 20))
        peer.send(sync(PEER, AGENT, sync_fields(theirs).seq, 1, kind=SYNC_ACK), AGENT)
        peer.send(sync(PEER, AGENT, 77, 2), AGENT)
        peer.receive(is_sync(SYNC_ACK, 20))
        self.stays(lambda: agent.value("online", 2, 30) == 0, "the IDs differ", 0.5)

    def test_a_resume_flag_takes_the_instance_down_and_makes_a_new_handshake(self):
        agent, peer = self.joined()
        peer.send(sync(PEER, AGENT, 78, peer.pid, resume=1), AGENT)
        agent.quit(30, 2)
        again = peer.receive(is_sync(SYNC_INST, 20))
        self.assertEqual(sync_fields(again).resume, 0)
        self.assertEqual(sync_fields(peer.receive(is_sync(SYNC_ACK, 20))).seq, 78)
        peer.send(sync(PEER, AGENT, sync_fields(again).seq, peer.pid, kind=SYNC_ACK), AGENT)
        agent.joined(30, 2)

    def test_one_way_messages_of_any_size(self):
        agent, peer = self.joined()
        for size in (0, 1, 3, 100, 900):
            self.assertEqual(agent.call("sendto", 20, 30, 2, 1, size, 0, "ver=5", "qos=77")[0], 0)
            data = peer.receive(kind_of(0))
            self.assertEqual(len(data), 36 + size)
            self.expect_header(data, qos=77, app_ver=5)
        self.assertEqual(agent.call("send", 20, 30, 1, 65536, 0)[0], 0)
        data = peer.receive(kind_of(0))  # its beginning
        self.assertEqual(header(data).len, 65572)

    def test_a_request_carries_only_its_own_flag_and_its_reply_ends_the_call(self):
        agent, peer = self.joined()
        calls = [agent.start("rpc", 20, 30, 16, 0, 0, "ver=3") for _ in range(2)]
        requests = [peer.receive(kind_of(REQUEST)) for _ in calls]
        numbers = {header(r).seq for r in requests}
        self.assertEqual(len(numbers), 2)
        self.assertNotIn(0, numbers)
        for request in requests:
            self.expect_header(request, flags=REQUEST, app_ver=3, seq=header(request).seq)
            self.assertEqual(len(request), 52)
        # What does not answer a call that waits is dropped: another number, another peer, no number.
        seq = header(requests[0]).seq
        peer.send(message(PEER, AGENT, body(requests[0]), REQUEST | ACK, seq=seq ^ 0x5555), AGENT)
        peer.send(message((31, 2), AGENT, b"wrong", REQUEST | ACK, seq=seq), AGENT)
        peer.send(message(PEER, AGENT, b"wrong", REQUEST | ACK, seq=0), AGENT)
        for request in requests:
            peer.send(message(PEER, AGENT, body(request), REQUEST | ACK, seq=header(request).seq), AGENT)
            peer.send(message(PEER, AGENT, b"twice", REQUEST | ACK, seq=header(request).seq), AGENT)
        for call in calls:
            words = call.result()
            self.assertEqual(words[:2] + words[3:], [0, 1, f"2/30:{SUCCESS}:same"])

    def test_replies_to_requests(self):
        agent, peer = self.joined(options="v=1,4")
        peer.send(message(PEER, AGENT, b"question", REQUEST, app_ver=4, seq=0xFFFFFFFE, qos=9), AGENT)
        reply = peer.receive(kind_of(REQUEST | ACK))
        self.expect_header(reply, flags=REQUEST | ACK, app_ver=4, seq=0xFFFFFFFE)
        self.assertEqual(body(reply), b"question")
        agent.call("serve", 20, "null")
        peer.send(message(PEER, AGENT, b"question", REQUEST, seq=5), AGENT)
        reply = peer.receive(kind_of(REQUEST | ACK))
        self.expect_header(reply, flags=REQUEST | ACK, seq=5, rpc_status=4)
        self.assertEqual(len(reply), 36)
        peer.send(message(PEER, AGENT, b"question", REQUEST, app_ver=7, seq=6), AGENT)
        reply = peer.receive(kind_of(REQUEST | ACK))
        self.expect_header(reply, flags=REQUEST | ACK, seq=6, rpc_status=3)
        self.assertEqual(body(reply), struct.pack("=II", 1, 4), "in the byte order of the sender")

    def test_a_request_of_someone_unknown_is_answered_with_unavailable(self):
        agent, peer = self.joined()
        stranger = Peer(self.raw, (40, 2))
        stranger.send(message((40, 2), AGENT, b"hello", REQUEST, seq=3), AGENT)
        reply = stranger.receive()
        self.expect_header(reply, flags=REQUEST | ACK, dst_app=40, seq=3, rpc_status=UNAVAILABLE)
        stranger.send(message((40, 2), AGENT, b"hello", seq=3), AGENT)
        peer.send(message(PEER, AGENT, b"hello", seq=3), AGENT)
        self.eventually(lambda: agent.received(20, 30, 2).count == 1, "the message of the peer it knows")
        self.assertEqual(agent.received(20, 40, 2).count, 0)

    def test_the_513th_message_is_acknowledged_with_512(self):
        agent, peer = self.joined()
        one = message(PEER, AGENT, b"0123456789").hex()
        self.assertEqual(self.raw.call("flood", peer.sock, 2303, 20 << 16 | 1, 512, 1, "same", one), [512, 0])
        agent.call("await", 20, 30, 2, 512, 5000)
        # An acknowledgement by now would have been sent before the echo.
        peer.send(message(PEER, AGENT, tlv(PING), MNG), AGENT)
        self.assertEqual(body(peer.receive(kind_of(MNG))), tlv(ECHO))
        peer.send(bytes.fromhex(one), AGENT)
        data = peer.receive(kind_of(MNG))
        self.expect_header(data, flags=MNG)
        self.assertEqual(len(data), 44)
        self.assertEqual(body(data), tlv(PROCESSED, struct.pack(">I", 512)))
        self.assertEqual(self.raw.call("flood", peer.sock, 2303, 20 << 16 | 1, 512, 1, "same", one), [512, 0])
        self.assertEqual(body(peer.receive(kind_of(MNG))), tlv(PROCESSED, struct.pack(">I", 512)))

    def test_an_acknowledgement_by_hand_opens_the_window(self):
        agent, peer = self.joined()
        self.assertEqual(agent.call("sendto", 20, 30, 2, 3000, 0, 1)[:2], [-11, 1025])
        peer.send(message(PEER, AGENT, tlv(PROCESSED, struct.pack(">I", 1)), MNG), AGENT)
        self.eventually(lambda: agent.call("sendto", 20, 30, 2, 1, 0, 1)[0] == 0, "one more")
        self.assertEqual(agent.call("sendto", 20, 30, 2, 1, 0, 1)[0], -11)
        two = tlv(PROCESSED, struct.pack(">I", 3)) + tlv(PROCESSED, struct.pack(">I", 4))
        peer.send(message(PEER, AGENT, two, MNG), AGENT)
        self.eventually(lambda: agent.call("sendto", 20, 30, 2, 1, 0, 1)[0] == 0, "seven more")
        self.assertEqual(agent.call("sendto", 20, 30, 2, 3000, 0, 1)[:2], [-11, 6])
        # More acknowledged than was ever sent: it must open, not shut for ever.
        peer.send(message(PEER, AGENT, tlv(PROCESSED, struct.pack(">I", 0xFFFFFFFF)), MNG), AGENT)
        self.eventually(lambda: agent.call("sendto", 20, 30, 2, 1, 0, 1)[0] == 0, "wide open")
        self.assertEqual(agent.call("sendto", 20, 30, 2, 3000, 0, 1)[:2], [0, 3000])

    def test_a_ping_is_echoed_and_moves_no_counter(self):
        agent, peer = self.joined("[MISC_CONF]\nqel_dbg_cfg=8\n")
        peer.send(message(PEER, AGENT, tlv(PING), MNG), AGENT)
        echo = peer.receive(kind_of(MNG))
        self.expect_header(echo, flags=MNG)
        self.assertEqual(len(echo), 40)
        self.assertEqual(body(echo), tlv(ECHO))
        for text in ("QEL app 20 recv ping request from 30/2.", "QEL app 20 from 30/2 unprocess num: 0."):
            self.assertEqual(agent.log(f"^{text}$"), [text])
        peer.send(message(PEER, AGENT, tlv(ECHO), MNG), AGENT)
        self.eventually(lambda: agent.log("recv ping echo from 30/2"), "the echo is logged")

    def test_the_daemon_gets_information_and_statistics_from_whoever_it_asks(self):
        agent, peer = self.joined("[MISC_CONF]\nqel_dbg_cfg=8\n")
        self.assertEqual(agent.call("sendto", 20, 30, 2, 7, 10, 0)[0], 0)
        daemon = Peer(self.raw, DAEMON)
        daemon.send(message(DAEMON, AGENT, tlv(INFO), MNG | REQUEST, seq=11), AGENT)
        reply = daemon.receive()
        self.expect_header(reply, flags=MNG | REQUEST | ACK, dst_app=1, seq=11)
        self.assertEqual(len(reply), 52)
        self.assertEqual(body(reply), tlv(INFO, NATIVE.pack(20, agent.value("pid"), 8)))
        daemon.send(message(DAEMON, AGENT, tlv(STATISTICS), MNG | REQUEST, seq=12), AGENT)
        reply = daemon.receive()
        self.expect_header(reply, version=0, flags=MNG | REQUEST | ACK, dst_app=1, app_ver=0, seq=12)
        text = body(reply).decode()
        self.assertTrue(text.endswith("\n\0"), text[-10:])
        for line in ("Application 20/1 process's QEL library information:",
                     "  Applications in this process: 20",
                     "    Application 30 server on nodes: 2",
                     "Application 20/1 [agent 20] information:",
                     "Application 20 overall statistics:",
                     "  total send 7, unack 7, mcast reject 0, RPC reply exception 0",
                     "    Send to application 30/2: send 7, unack 7, reject 0, RPC reply reject 0",
                     "Application 20 RPC waits:"):
            self.assertIn(line + "\n", text)

    def test_the_debug_command_switches_levels_of_the_process(self):
        agent, peer = self.joined()
        daemon = Peer(self.raw, DAEMON)

        def switch(level, on):
            words = struct.pack("=II", level, on)
            daemon.send(message(DAEMON, AGENT, tlv(DEBUG, words), MNG), AGENT)
            daemon.send(message(DAEMON, AGENT, tlv(INFO), MNG | REQUEST, seq=level + 1), AGENT)
            return NATIVE.unpack(body(daemon.receive(kind_of(MNG | REQUEST | ACK)))[4:])[2]

        self.assertEqual(switch(4, 1), 15)
        self.assertTrue(agent.log("current debug status: verbose info warn error"))
        self.assertEqual(switch(2, 0), 11)
        self.assertEqual(switch(5, 1), 11, "no such level")
        self.assertEqual(switch(4, 0), 0)
        self.assertEqual(switch(3, 7), 8)

    def test_a_reload_aborts_only_a_process_that_allows_it(self):
        allowed = "[MISC_CONF]\nqel_blocked_resume_enabled = true\n"
        for conf, allow, dies in (("", "on", False), (allowed, "off", False), (allowed, "on", True)):
            agent, peer = self.joined(conf)
            self.assertEqual(agent.value("resume", allow), 0)
            peer.send(message(PEER, AGENT, tlv(RELOAD), MNG), AGENT)
            if dies:
                self.assertEqual(agent.proc.wait(5), -6)
            else:
                peer.send(message(PEER, AGENT, tlv(PING), MNG), AGENT)
                peer.receive(kind_of(MNG))
            self.cluster.reset()

    def test_padding_and_several_items_are_walked_as_laid_out(self):
        agent, peer = self.joined("[MISC_CONF]\nqel_dbg_cfg=12\n")
        section = tlv(9, b"x") + tlv(PING) + tlv(9, b"xyz") + tlv(PING)
        peer.send(message(PEER, AGENT, section, MNG), AGENT)
        for _ in range(2):
            self.assertEqual(body(peer.receive(kind_of(MNG))), tlv(ECHO))
        self.assertEqual(len(agent.log("QEL app 20 recv unexpected data type 9 from 30/2")), 2)
        peer.send(message(PEER, AGENT, tlv(PING) + b"\0\0", MNG), AGENT)
        self.assertEqual(body(peer.receive(kind_of(MNG))), tlv(ECHO), "items before the bad end act")
        reported = r"^QEL recv invalid TLV section for 20 from 30/2 \.$"
        self.eventually(lambda: agent.log(reported), "reported")
        peer.send(message(PEER, AGENT, tlv(PING, length=3), MNG), AGENT)
        short = r"^QEL recv invalid TLV len for 20 from 30/2\(len:3\)\.$"
        self.eventually(lambda: agent.log(short), "reported")

    def test_an_acknowledgement_that_comes_back_is_sent_again_with_one_try_less(self):
        agent, peer = self.start("[MISC_CONF]\nqel_dbg_cfg=1\n")
        peer.receive(is_sync(SYNC_INST, 20))
        # A stopped process does not read: when it is killed its unread messages go back.
        self.raw.kill(signal.SIGSTOP)
        helper = Raw(self.node(2))
        sock = helper.value("socket")
        self.assertEqual(helper.send(sock, 20, 1, sync(PEER, AGENT, 123, 1))[0], 60)
        agent.proc.expect("QEL app 20 sync inst ack to 30/2, seq 123")
        self.raw.kill(signal.SIGKILL)
        agent.proc.expect("QEL add sync inst ack resend to 30/2, seq")
        successor = Peer(Raw(self.node(2)), PEER)
        again = successor.receive(lambda d: is_sync(SYNC_ACK, 20)(d) and sync_fields(d).seq == 123)
        self.assertEqual(sync_fields(again).resends, RESENDS - 1)
        self.assertNotEqual(header(again).seq, 0, "the number of its timer")
        successor.join(AGENT)
        agent.joined(30, 2)

    def test_messages_that_come_back_are_counted_until_the_next_join(self):
        agent, peer = self.joined("[MISC_CONF]\nqel_dbg_cfg=1\n")
        daemon = Peer(Raw(self.node(1)), (1, 1))
        self.raw.kill(signal.SIGSTOP)
        self.assertEqual(agent.call("sendto", 20, 30, 2, 300, 50, 0)[:2], [0, 300])
        self.raw.kill(signal.SIGKILL)
        agent.quit(30, 2)

        def line(start):
            text = daemon.statistics(20, 1).decode()
            return [part for part in text.split("\n") if part.startswith(start)]

        back = "^QEL app 20 update recv retdata from 30/2.$"
        self.eventually(lambda: len(agent.log(back)) == 300, "300 came back")
        start = "    Receive from application 30/2: receive 0, unack 0, drop 0, return "
        counted = line(start)  # the quit sets it to 0; the rest comes behind
        self.assertEqual(len(counted), 1)
        self.assertLessEqual(int(counted[0].split()[-1]), 300)
        start = "    Send to application 30/2: "
        cleared = "send 0, unack 0, reject 0, RPC reply reject 0"
        self.assertEqual(line(start), [start + cleared], "a quit clears")
        successor = Peer(Raw(self.node(2)), PEER)
        successor.join(AGENT)
        agent.joined(30, 2)
        start = "    Receive from application 30/2: "
        self.assertEqual(line(start), [start + "receive 0, unack 0, drop 0, return 0"])

    def test_messages_of_another_version_byte_are_accepted(self):
        agent, peer = self.joined()
        peer.send(message(PEER, AGENT, b"", version=200), AGENT)
        agent.call("await", 20, 30, 2, 1, 3000)
        self.assertEqual(agent.received(20, 30, 2).count, 1)
        self.assertEqual(agent.rpcto(20, 1, 20, 64, 0, 30)[::2], (0, [Reply(1, 20, SUCCESS, "same")]))


if __name__ == "__main__":
    main()
