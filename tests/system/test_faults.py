"""Links that break, lose and jam; dropped topology connections; names and events that come late."""
import os
import signal
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import ENOENT, NOWAIT, SUCCESS, SYSTEM, Raw, Reply, SystemTest, main  # noqa: E402
from qel_wire import SYNC_ACK, SYNC_INST, Peer, is_sync, sync, sync_fields  # noqa: E402

REJOIN_S = 15  # a link is declared lost after two seconds and found again within some


class Cut(SystemTest):
    def exchange(self, a, b, count=300):
        """Messages and a call in both directions."""
        for one, other, apps, nodes in ((a, b, (20, 21), (1, 2)), (b, a, (21, 20), (2, 1))):
            other.call("forget", apps[1], apps[0], nodes[0])
            sent = one.call("sendto", apps[0], apps[1], nodes[1], count, 200, 0, "first=0")
            self.assertEqual(sent[:2], [0, count])
            other.arrived(apps[1], apps[0], nodes[0], count)
            result, _, replies = one.rpcto(apps[0], nodes[1], apps[1], 64, 0, 30)
            self.assertEqual((result, replies), (0, [Reply(nodes[1], apps[1], SUCCESS, "same")]))

    def test_a_node_that_is_cut_off_quits_for_both_sides_and_joins_again(self):
        a, b = self.pair()
        self.exchange(a, b)
        for _ in range(2):
            b.call("serve", 21, "never")
            calling = a.start("rpcto", 20, 2, 21, 64, 0, 0)
            self.eventually(lambda: b.received(21, 20, 1).requests > 0, "the call has arrived")
            self.node(2).cut()
            a.quit(21, 2, timeout=REJOIN_S)
            b.quit(20, 1, timeout=REJOIN_S)
            self.assertEqual(calling.result()[3:], [f"2/21:{SYSTEM}:empty"])
            self.assertEqual(a.call("send", 20, 21, 1, 10, 0)[0], ENOENT)
            self.assertEqual(b.call("send", 21, 20, 1, 10, 0)[0], ENOENT)
            self.node(2).mend()
            a.joined(21, 2, timeout=REJOIN_S)
            b.joined(20, 1, timeout=REJOIN_S)
            b.call("serve", 21, "echo")
            self.exchange(a, b)
            b.call("forget", 21, 20, 1)

    def test_a_blocked_sender_is_released_when_the_link_breaks(self):
        a, b = self.pair()
        b.call("hold", 21)
        self.assertEqual(a.call("sendto", 20, 21, 2, 2000, 10, NOWAIT)[1], 1025)
        sending = a.start("sendto", 20, 21, 2, 10, 10, 0)
        self.node(2).cut()
        a.quit(21, 2, timeout=REJOIN_S)
        self.assertIn(sending.result()[0], (ENOENT, -1))
        b.call("release", 21)  # events wait behind the message that is held
        b.quit(20, 1, timeout=REJOIN_S)
        self.node(2).mend()
        a.joined(21, 2, timeout=REJOIN_S)
        b.joined(20, 1, timeout=REJOIN_S)
        self.exchange(a, b, 3000)


class Loss(SystemTest):
    backends = ("pair",)

    def test_on_a_link_that_loses_packets_everybody_still_joins_and_nothing_is_lost(self):
        self.cluster.loss(3)
        try:
            a = self.agent(1, {20: [21]})
            for _ in range(5):
                b = self.agent(2, {21: [20]})
                a.joined(21, 2, timeout=REJOIN_S)
                b.joined(20, 1, timeout=REJOIN_S)
                sent = a.call("sendto", 20, 21, 2, 1000, 500, 0, "first=0", timeout=60)
                self.assertEqual(sent[:2], [0, 1000])
                b.arrived(21, 20, 1, 1000, timeout=60)
                b.kill()
                a.quit(21, 2, timeout=REJOIN_S)
        finally:
            self.cluster.loss(0)


class Fabric(SystemTest):
    backends = ("local",)

    def tearDown(self):
        self.cluster.control("clear")

    def test_presence_recovers_when_the_topology_server_drops_everybody(self):
        for node in (1, 2):
            self.node(node).write_conf("[MISC_CONF]\nqel_dbg_cfg=10\n")
        a, b = self.pair()
        for _ in range(2):
            self.cluster.control("drop-topology")
            sent = a.call("sendto", 20, 21, 2, 2000, 100, 0)
            self.assertEqual(sent[:2], [0, 2000], "messages do not need it")
            for agent in (a, b):
                agent.proc.expect("QEL recv subscription event failed:ret:0, ")
                agent.proc.expect("QEL subscribe TIPC instance .0x150000, 0x15ffff. event")
            self.assertEqual(a.seen("(join|quit) .*21/2.*") + b.seen("(join|quit) .*20/1.*"), [])
            b.kill()
            a.quit(21, 2)
            b = self.agent(2, {21: [20]})
            a.joined(21, 2)
            b.joined(20, 1)
            self.assertEqual(a.call("sendto", 20, 21, 2, 2000, 100, 0, "first=0")[:2], [0, 2000])
            b.arrived(21, 20, 1, 2000)

    def test_a_timer_that_runs_is_started_anew_when_the_connection_is(self):
        self.node(1).write_conf("[MISC_CONF]\nqel_dbg_cfg=1\n")
        agent = self.agent(1, {20: [30]})
        raw = Raw(self.node(2))
        Peer(raw, (30, 2)).receive(is_sync(SYNC_INST, 20))
        raw.kill(signal.SIGSTOP)
        helper = Raw(self.node(2))
        helper.send(helper.value("socket"), 20, 1, sync((30, 2), (20, 1), 123, 1))
        agent.proc.expect("QEL app 20 sync inst ack to 30/2, seq 123")
        raw.kill(signal.SIGKILL)
        agent.proc.expect("QEL add sync inst ack resend to 30/2, seq")
        self.cluster.control("drop-topology")
        successor = Peer(Raw(self.node(2)), (30, 2))
        successor.receive(lambda d: is_sync(SYNC_ACK, 20)(d) and sync_fields(d).seq == 123, timeout=8)

    def test_processes_outlive_the_fabric_and_go_on_with_its_successor(self):
        a, b = self.pair()
        self.cluster.stop_fabric()
        self.cluster.start_fabric()
        self.eventually(lambda: a.call("sendto", 20, 21, 2, 1, 100, 0)[0] == 0, "the name is back", 15)
        self.eventually(lambda: b.call("sendto", 21, 20, 1, 1, 100, 0)[0] == 0, "the name is back", 15)
        b.call("forget", 21, 20, 1)
        self.assertEqual(a.call("sendto", 20, 21, 2, 3000, 100, 0, "first=0")[:2], [0, 3000])
        b.arrived(21, 20, 1, 3000)

    def test_names_that_are_late_delay_the_join_and_do_not_prevent_it(self):
        for fault in ("name-delay 600", "event-delay 600", "lose-return 1"):
            self.cluster.control(fault)
            a, b = self.agent(1, {20: [21]}), self.agent(2, {21: [20]})
            a.joined(21, 2, timeout=8)
            b.joined(20, 1, timeout=8)
            b.kill()
            c = self.agent(2, {21: [20]})
            a.quit(21, 2)
            a.joined(21, 2, timeout=8)
            c.joined(20, 1, timeout=8)
            self.cluster.control("clear")
            self.assertEqual(a.call("sendto", 20, 21, 2, 100, 100, 0, "first=0")[:2], [0, 100])
            c.arrived(21, 20, 1, 100)
            self.cluster.reset()

    def test_a_jammed_link_holds_senders_up_and_loses_nothing(self):
        a, b = self.pair()
        self.cluster.control("congest 2 1500")
        sending = a.start("sendto", 20, 21, 2, 500, 100, 0)
        self.stays(lambda: not sending.done(), "it waits", 0.8)
        words = sending.result()
        self.assertEqual(words[:2], [0, 500])
        self.assertGreater(words[2], 1_000_000)
        b.arrived(21, 20, 1, 500)
        self.assertEqual(a.seen("quit .*"), [])


if __name__ == "__main__":
    main()
