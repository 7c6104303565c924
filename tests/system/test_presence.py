"""Who is there: joins, quits, restarts, one-sided declarations, several subscribers."""
import os
import signal
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import ENOENT, Agent, SystemTest, main  # noqa: E402


class TwoNodes(SystemTest):
    def test_both_see_the_other_join_within_five_seconds_of_the_start(self):
        a, b = self.agent(1, {20: [21]}), self.agent(2, {21: [20]})
        a.joined(21, 2, app=20)
        b.joined(20, 1, app=21)
        self.assertEqual(a.value("online", 2, 21), 1)
        self.assertEqual(b.value("online", 1, 20), 1)

    def test_is_app_online_takes_the_node_first(self):
        a, b = self.pair()
        self.assertEqual(a.value("online", 21, 2), 0)
        self.assertEqual(a.value("online", 2, 21), 1)
        self.assertEqual(a.value("online", 65536, 21), 0)

    def test_one_that_starts_later_joins_one_that_runs(self):
        a = self.agent(1, {20: [21]})
        a.joined(20, 1)
        b = self.agent(2, {21: [20]})
        a.joined(21, 2)
        b.joined(20, 1)

    def test_an_application_joins_itself_and_reaches_itself(self):
        a = self.agent(1, {20: []})
        self.assertEqual(a.call("send", 20, 0, 1, 10, 0)[0], ENOENT, "before it has joined itself")
        a.joined(20, 1, app=20)
        self.assertEqual(a.call("send", 20, 0, 1, 10, 0)[0], 0)
        a.arrived(20, 20, 1, 1)
        self.assertEqual(a.call("send", 20, 20, 1, 10, 4)[0], ENOENT, "nobody but itself is there")

    def test_nothing_is_published_before_run(self):
        a = self.agent(1, {20: [21]})
        b = self.agent(2, {21: [20]}, run=False)
        a.joined(20, 1)  # it runs, as far as it can tell
        self.stays(lambda: a.value("online", 2, 21) == 0 and not b.seen("join.*"), "nothing before run", 1.5)
        self.assertEqual(b.value("ready"), 0)
        a.joined(21, 2)

    def test_a_declaration_by_one_side_only_never_gets_anywhere(self):
        a, b = self.agent(1, {20: [21]}), self.agent(2, {21: []})
        a.joined(20, 1)
        b.joined(21, 2)
        self.stays(lambda: a.value("online", 2, 21) == 0, "20 must not see 21 online", 1.5)
        self.assertEqual(a.call("send", 20, 21, 1, 10, 0)[0], ENOENT)
        self.assertEqual(a.seen("join .* peer 21/.*"), [])

    def test_a_client_comes_online_without_a_join_and_is_no_destination(self):
        a = self.agent(1, {20: [21]})
        b = self.agent(2, {21: [20]}, options="client")
        b.joined(20, 1)
        self.eventually(lambda: a.value("online", 2, 21) == 1, "the client is online")
        self.assertEqual(a.call("send", 20, 21, 1, 10, 0)[0], ENOENT)
        self.assertEqual(a.seen("join .* peer 21/.*"), [])
        self.assertEqual(b.call("send", 21, 20, 3, 10, 0)[0], 0)
        a.arrived(20, 21, 2, 3)
        b.kill()
        self.eventually(lambda: a.value("online", 2, 21) == 0, "the client is gone")
        self.assertEqual(a.seen("quit .*"), [])

    def test_every_way_to_end_is_seen_as_a_quit(self):
        a = self.agent(1, {20: [21]})
        for end in (lambda b: b.kill(signal.SIGKILL), lambda b: b.kill(signal.SIGTERM),
                    lambda b: b.kill(signal.SIGSEGV), lambda b: b.start("exit", 3)):
            b = self.agent(2, {21: [20]})
            a.joined(21, 2)
            b.joined(20, 1)
            end(b)
            a.quit(21, 2, timeout=3)
            self.assertEqual(a.value("online", 2, 21), 0)
            self.assertEqual(a.call("send", 20, 21, 1, 10, 0)[0], ENOENT)
            b.proc.wait()

    def test_a_restarted_instance_joins_again(self):
        a, b = self.pair()
        for _ in range(3):
            old = b.value("pid")
            self.assertEqual(b.call("send", 21, 20, 5, 100, 0)[0], 0)
            a.arrived(20, 21, 2, 5)
            b.kill()
            b.proc.wait()
            b = self.agent(2, {21: [20]})
            self.assertNotEqual(b.value("pid"), old)
            a.quit(21, 2)
            a.joined(21, 2)
            b.joined(20, 1)
            self.assertEqual(a.call("send", 20, 21, 5, 100, 0, "first=0")[0], 0)
            b.arrived(21, 20, 1, 5)
            a.call("forget", 20, 21, 2)

    def test_an_instance_that_waits_for_the_end_of_another_takes_its_place(self):
        a, b = self.pair()
        for _ in range(4):
            c = self.agent(2, {21: [20]}, run=False)
            b.kill()
            self.assertEqual(c.value("run"), 0)
            a.quit(21, 2)
            a.joined(21, 2)
            c.joined(20, 1)
            self.assertEqual(a.call("send", 20, 21, 5, 100, 0, "first=0")[0], 0)
            c.arrived(21, 20, 1, 5)
            b = c

    def test_both_sides_restart_at_once_and_find_each_other(self):
        a, b = self.pair()
        for _ in range(4):
            a2, b2 = self.agent(1, {20: [21]}, run=False), self.agent(2, {21: [20]}, run=False)
            a.kill()
            b.kill()
            self.assertEqual(a2.value("run"), 0)
            self.assertEqual(b2.value("run"), 0)
            a2.joined(21, 2)
            b2.joined(20, 1)
            self.assertEqual(a2.call("send", 20, 21, 5, 100, 0)[0], 0)
            b2.arrived(21, 20, 1, 5)
            a, b = a2, b2

    def test_events_come_on_the_thread_of_their_application(self):
        a, b = Agent(self.node(1)), self.agent(2, {21: [20, 22]})
        self.assertEqual(a.value("register", 20), 0)
        self.assertEqual(a.value("register", 22, "nothread"), 0)
        for app in (20, 22):
            self.assertEqual(a.value("comm", app, 21), 0)
        self.assertEqual(a.value("run"), 0)
        b.joined(20, 1)
        b.joined(22, 1)
        a.event("join app 20 peer 20/1 thread qel_app_20")
        a.event(f"join app 22 peer 22/1 thread {('qel_lib_%d' % a.value('pid'))[:15]}")


class ThreeNodes(SystemTest):
    nodes = 3
    backends = ("local", "netns")

    def test_every_subscriber_sees_every_instance_on_every_node(self):
        numbers = (1, 2, 3)
        speakers = [self.agent(n, {20: [21]}) for n in numbers]
        listeners = [self.agent(n, {21: [20]}) for n in numbers]
        for n in numbers:
            for speaker in speakers:
                speaker.joined(20, n)
                speaker.joined(21, n)
            for listener in listeners:
                listener.joined(20, n)
                listener.joined(21, n)
        for speaker in speakers:
            self.assertEqual(speaker.call("send", 20, 21, 10, 50, 0)[0], 0)
        for listener in listeners:
            for n in numbers:
                listener.arrived(21, 20, n, 10)

    def test_one_node_goes_and_comes_back_while_the_others_go_on(self):
        a, b, c = (self.agent(n, {20: []}) for n in (1, 2, 3))
        for agent in (a, b, c):
            for n in (1, 2, 3):
                agent.joined(20, n)
        self.node(3).kill_all()
        for agent in (a, b):
            agent.quit(20, 3)
            self.assertEqual(agent.value("online", 3, 20), 0)
        self.assertEqual(a.call("send", 20, 0, 20, 50, 4)[0], 0)
        b.arrived(20, 20, 1, 20)
        c = self.agent(3, {20: []})
        for agent in (a, b):
            agent.joined(20, 3)
        for n in (1, 2, 3):
            c.joined(20, n)
        self.assertEqual(a.seen("quit .*") + b.seen("quit .*") + c.seen("quit .*"), [])


if __name__ == "__main__":
    main()
