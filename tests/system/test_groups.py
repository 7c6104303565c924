"""Private groups: sixteen applications on three nodes, groups of nodes, limits."""
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import (EAGAIN, EINVAL, ENOBUFS, ENOENT, NOWAIT, SANITIZED, SUCCESS,  # noqa: E402
                        Agent, SystemTest, main)

MEMBERS = list(range(300, 316))
NODES = (1, 2, 3)


class Groups(SystemTest):
    nodes = 3
    backends = ("local", "netns")

    def members(self):
        """20 on node 1; 300 to 315 in a process each, on one of the nodes; 300 and 302 on all of them."""
        places = [(app, n) for app in MEMBERS for n in NODES if app in (300, 302) or app % 3 + 1 == n]
        a = self.agent(1, {20: MEMBERS})
        others = {(app, n): self.agent(n, {app: [20]}) for app, n in places}
        for app, n in places:
            a.joined(app, n)
            others[app, n].joined(20, 1)
        return a, others

    def group(self, agent, app, members):
        group = agent.value("mkapps", app)
        self.assertGreaterEqual(group, 0x3000)
        for member in members:
            self.assertEqual(agent.value("addapp", app, group, member), 0)
        return group

    def test_a_group_of_sixteen_on_three_nodes_gets_every_message_once(self):
        a, others = self.members()
        group = self.group(a, 20, MEMBERS)
        self.assertEqual(a.call("appmbrs", 20, group), [0] + MEMBERS)
        self.assertEqual(a.value("addapp", 20, group, 400), ENOBUFS)
        self.assertEqual(a.call("send", 20, group, 50, 200, 0)[:2], [0, 50])
        for (app, _), other in others.items():
            other.arrived(app, 20, 1, 50)
        self.assertEqual(a.value("delapp", 20, group, 307), 0)
        self.assertEqual(a.call("send", 20, group, 1, 200, 0)[:2], [0, 1])
        for (app, _), other in others.items():
            other.arrived(app, 20, 1, 50 if app == 307 else 51)
        self.assertEqual(others[307, 2].received(307, 20, 1).count, 50)

        # To some of the nodes: in the group's order, and nowhere else.
        nodes = a.value("mknodes", 20)
        self.assertGreaterEqual(nodes, 0x80000)
        for n in (3, 1):
            self.assertEqual(a.value("addnode", 20, nodes, n), 0)
        self.assertEqual(a.call("nodembrs", 20, nodes), [0, 3, 1])
        self.assertEqual(a.call("sendto", 20, group, nodes, 10, 200, 0)[:2], [0, 10])
        for n in (1, 3):
            others[300, n].arrived(300, 20, 1, 61)
        others[315, 1].arrived(315, 20, 1, 61)
        self.assertEqual(others[300, 2].received(300, 20, 1).count, 51)
        self.assertEqual(a.call("sendto", 20, 302, nodes, 5, 200, 0, "first=61")[:2], [0, 5])
        for n in (1, 3):
            others[302, n].arrived(302, 20, 1, 66)
        self.assertEqual(others[302, 2].received(302, 20, 1).count, 51)

        # A call: one reply from every instance of every member.
        result, _, replies = a.rpc(20, group, 300, 0, 30)
        self.assertEqual(result, 0)
        self.assertEqual({(r.status, r.content) for r in replies}, {(SUCCESS, "same")})
        everybody = sorted((n, app) for app, n in others if app != 307)
        self.assertEqual(sorted((r.node, r.app) for r in replies), everybody)
        result, _, replies = a.rpcto(20, nodes, group, 300, 0, 30)
        self.assertEqual(result, 0)
        self.assertEqual(sorted((r.node, r.app) for r in replies), [(n, m) for n, m in everybody if n != 2])

        # If one member is refused, none gets anything.
        others[315, 1].call("hold", 315)
        sent = a.call("sendto", 20, 315, 1, 2000, 10, NOWAIT)
        self.assertEqual(sent[0], EAGAIN)
        count = others[300, 2].received(300, 20, 1).count
        self.assertEqual(a.call("send", 20, group, 1, 10, NOWAIT)[0], EAGAIN)
        self.assertEqual(a.value("delapp", 20, group, 315), 0)
        self.assertEqual(a.call("send", 20, group, 1, 10, NOWAIT)[0], 0)
        others[300, 2].call("await", 300, 20, 1, count + 2, 500)
        self.assertEqual(others[300, 2].received(300, 20, 1).count, count + 1)
        a.call("rmapps", 20, group)
        self.assertEqual(a.call("send", 20, group, 1, 10, 0)[0], ENOENT)

    def test_groups_belong_to_the_application_that_made_them(self):
        a = self.agent(1, {20: [], 22: []})
        a.joined(20, 1, app=20)
        a.joined(22, 1, app=22)
        mine, its = self.group(a, 20, [20]), self.group(a, 22, [22])
        self.assertEqual(mine, its, "each counts for itself")
        self.assertEqual(a.call("appmbrs", 20, mine), [0, 20])
        self.assertEqual(a.call("appmbrs", 22, its), [0, 22])
        other = self.group(a, 20, [22])
        self.assertEqual(a.call("appmbrs", 22, other), [0])
        self.assertEqual(a.call("send", 22, other, 1, 10, 0)[0], ENOENT)
        self.assertEqual(a.value("addapp", 22, other, 20), ENOENT)

    def test_limits_and_ids_are_as_promised(self):
        a = self.agent(1, {20: []})
        ids = [a.value("mkapps", 20) for _ in range(128)]
        self.assertEqual(ids, list(range(0x3000, 0x3080)))
        self.assertEqual(a.value("mkapps", 20), ENOBUFS)
        a.call("rmapps", 20, 0x3000)
        self.assertEqual(a.value("mkapps", 20), 0x3080, "not the one that was given back")
        self.assertEqual(a.value("mknodes", 20), 0x80000)
        self.assertEqual(a.value("mkapps", 30), ENOENT)
        for member in (0, 8192, 12288, 20480):
            self.assertEqual(a.value("addapp", 20, 0x3001, member), EINVAL, member)
        self.assertEqual(a.value("addnode", 20, 0x80000, 65536), EINVAL)
        for node in range(64):
            self.assertEqual(a.value("addnode", 20, 0x80000, node), 0)
        self.assertEqual(a.value("addnode", 20, 0x80000, 65535), ENOBUFS)
        self.assertEqual(a.value("addnode", 20, 0x80000, 63), 0, "it is there already")
        self.assertEqual(a.value("delnode", 20, 0x80000, 0), 0)
        self.assertEqual(a.value("addnode", 20, 0x80000, 65535), 0)
        self.assertEqual(a.call("nodembrs", 20, 0x80000), [0, 65535] + list(range(1, 64)))

    def test_configured_members_can_be_read(self):
        self.node(1).write_conf("[APP_MCAST_TBL]\n3010 , colours , 300;0x12d 302 , three of them\n")
        a = Agent(self.node(1))
        self.assertEqual(a.call("confmbrs", 0x3010), [3, 300, 301, 302])
        self.assertEqual(a.call("confmbrs", 0x3011), [0])


class ManyPeers(SystemTest):
    nodes = 5
    backends = ("local",)

    @unittest.skipIf(SANITIZED, "65 sanitized processes are too much for a small machine")
    def test_a_call_to_more_than_64_peers_is_refused_and_nothing_is_sent(self):
        a = self.agent(1, {20: MEMBERS})
        places = [(app, n) for app in MEMBERS[:13] for n in range(1, 6)]
        others = {(app, n): self.agent(n, {app: [20]}) for app, n in places}
        for app, n in places:
            a.joined(app, n, timeout=10)
        group = a.value("mkapps", 20)
        for app in MEMBERS[:12]:
            self.assertEqual(a.value("addapp", 20, group, app), 0)
        result, _, replies = a.rpc(20, group, 300, 0, 30)
        self.assertEqual((result, len(replies)), (0, 60))
        self.assertEqual({(r.status, r.content) for r in replies}, {(SUCCESS, "same")})
        self.assertEqual(a.value("addapp", 20, group, MEMBERS[12]), 0)
        self.assertEqual(a.rpc(20, group, 300, 0, 30)[::2], (ENOBUFS, []))
        self.assertEqual([others[300, n].received(300, 20, 1).requests for n in range(1, 6)], [1] * 5)
        self.assertEqual(a.call("send", 20, group, 3, 300, 0)[0], 0, "messages have no such limit")


if __name__ == "__main__":
    main()
