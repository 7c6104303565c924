"""Several applications in one process, with and without threads; the limits of registration."""
import os
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import EEXIST, EINVAL, ENOBUFS, ENOENT, SUCCESS, Agent, Reply, SystemTest, main  # noqa: E402


class Processes(SystemTest):
    def test_two_applications_with_and_without_a_thread_serve_side_by_side(self):
        agents = []
        for node, threaded, plain, peers in ((1, 20, 22, (21, 23)), (2, 21, 23, (20, 22))):
            agent = Agent(self.node(node))
            self.assertEqual(agent.value("register", threaded), 0)
            self.assertEqual(agent.value("register", plain, "nothread"), 0)
            for app, peer in zip((threaded, plain), peers):
                self.assertEqual(agent.value("comm", app, peer), 0)
            self.assertEqual(agent.value("run"), 0)
            agents.append(agent)
        a, b = agents
        for agent, node, pairs in ((a, 2, ((20, 21), (22, 23))), (b, 1, ((21, 20), (23, 22)))):
            for app, peer in pairs:
                agent.joined(peer, node, app=app)
        for app, peer in ((20, 21), (22, 23)):
            there = a.start("sendto", app, peer, 2, 10000, 100, 0)
            back = b.start("sendto", peer, app, 1, 10000, 100, 0)
            for sending in (there, back):
                self.assertEqual(sending.result()[:2], [0, 10000])
            b.arrived(peer, app, 1, 10000)
            a.arrived(app, peer, 2, 10000)
            for _ in range(20):
                result, _, replies = a.rpcto(app, 2, peer, 300, 0, 0)
                self.assertEqual((result, replies), (0, [Reply(2, peer, SUCCESS, "same")]))
        threads = a.call("threads")
        self.assertIn("qel_app_20", threads)
        self.assertNotIn("qel_app_22", threads)
        self.assertIn(("qel_lib_%d" % a.value("pid"))[:15], threads)

    def test_a_process_registers_31_applications_and_all_of_them_serve(self):
        a, b = Agent(self.node(1)), Agent(self.node(2))
        apps = range(1000, 1031)
        for agent in (a, b):
            for app in apps:
                self.assertEqual(agent.value("register", app, "nothread" if app % 3 == 0 else ""), 0)
            self.assertEqual(agent.value("register", 1031), ENOBUFS)
            self.assertEqual(agent.value("register", 1030), EEXIST)
            self.assertEqual(agent.value("run"), 0)
        for app in apps:
            for agent in (a, b):
                for node in (1, 2):
                    agent.joined(app, node, app=app)
        for app in apps:
            self.assertEqual(a.call("sendto", app, app, 2, 20, 100, 0)[:2], [0, 20])
        for app in apps:
            b.arrived(app, app, 1, 20)
            self.assertEqual(a.rpcto(app, 2, app, 64, 0, 0)[::2], (0, [Reply(2, app, SUCCESS, "same")]))

    def test_registration_refuses_what_it_must(self):
        a = Agent(self.node(1))
        for app in (0, 8192, 12288, 16383, 20480, -1):
            self.assertEqual(a.value("register", app), EINVAL, app)
            self.assertEqual(a.value("unregister", app), EINVAL, app)
        self.assertEqual(a.value("register", 20, "noname"), EINVAL)
        for app in (1, 8191, 16384, 20479):
            self.assertEqual(a.value("register", app), 0, app)
            self.assertEqual(a.value("register", app), EEXIST, app)
        self.assertEqual(a.value("comm", 8191, 8192), EINVAL)
        self.assertEqual(a.value("comm", 8192, 8191), EINVAL)
        self.assertEqual(a.value("comm", 30, 8191), ENOENT)
        self.assertEqual(a.value("run"), 0)
        self.assertEqual(a.value("register", 30), -1)
        self.assertEqual(a.value("register", 8191), -1)
        self.assertEqual(a.value("register", 0), EINVAL)

    def test_an_unregistered_application_goes_on_receiving(self):
        a, b = self.pair()
        self.assertEqual(b.value("unregister", 21), 0)
        self.assertEqual(a.call("sendto", 20, 21, 2, 10, 100, 0)[:2], [0, 10])
        b.arrived(21, 20, 1, 10)

    def test_a_node_without_a_number_takes_no_application_until_it_has_one(self):
        a = Agent(self.node(1))
        for text in ("65536\n", "-1\n", "x\n", ""):
            self.node(1).write_addr(text)
            self.assertEqual(a.value("register", 20), -1, text)
        self.node(1).write_addr("1")
        self.assertEqual(a.value("register", 20), 0)
        self.assertEqual(a.value("run"), 0)
        a.joined(20, 1)

    def test_sends_refuse_what_they_must(self):
        a, b = self.pair()
        for dst in (8192, 12287, 20480, 0xFFFFFFFF):
            self.assertEqual(a.call("send", 20, dst, 1, 10, 0)[0], EINVAL, dst)
        for node in (65536, 0x90000, -3, 0x7FFFF):
            self.assertEqual(a.call("sendto", 20, 21, node, 1, 10, 0)[0], EINVAL, node)
        self.assertEqual(a.call("send", 0, 21, 1, 10, 0)[0], EINVAL)
        self.assertEqual(a.call("send", 22, 21, 1, 10, 0)[0], ENOENT, "22 is not registered here")
        self.assertEqual(a.call("send", 20, 22, 1, 10, 0)[0], ENOENT)
        self.assertEqual(a.call("sendto", 20, 21, 7, 1, 10, 0)[0], ENOENT)
        self.assertEqual(a.call("sendto", 20, 21, -1, 1, 10, 0)[0], 0)
        self.assertEqual(a.call("send", 20, 0x3000, 1, 10, 0)[0], ENOENT, "a group that nobody made")

    def test_threads_are_named_and_no_descriptor_leaks(self):
        a, b = self.pair()
        before = a.value("fds")
        self.assertTrue(re.fullmatch(r"qel_lib_\d+", ("qel_lib_%d" % a.value("pid"))[:15]))
        for _ in range(3):
            b.kill()
            a.quit(21, 2)
            b = self.agent(2, {21: [20]})
            a.joined(21, 2)
        self.assertEqual(a.value("fds"), before)


if __name__ == "__main__":
    main()
