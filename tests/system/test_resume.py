"""What only the resume after a minute sets right: all cases at once, in real time."""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import ENOENT, SUCCESS, Reply, SystemTest, main  # noqa: E402

RESUME_S = 60 + 8  # a timer of the kernel may be late by an eighth


class Resume(SystemTest):
    def test_after_a_minute_everybody_has_found_everybody(self):
        # An instance that was published before its predecessor withdrew: nobody is told of the change.
        self.node(2).write_conf("[MISC_CONF]\nqel_dbg_cfg=2\n")
        a, old = self.pair(20, 21)
        new = self.agent(2, {21: [20]})
        new.proc.expect("QEL socket msg distribute thread start")
        # Two applications of one process share what is known of either, and one's late sync takes it down.
        both = self.agent(1, {30: [31], 31: [30]})
        # So do two applications of a process that talk to the same peer.
        two = self.agent(1, {40: [42], 41: [42]})
        one = self.agent(2, {42: [40, 41]})
        old.kill()

        for agent, app, peer, node in ((a, 20, 21, 2), (both, 30, 31, 1), (both, 31, 30, 1), (two, 40, 42, 2),
                                       (two, 41, 42, 2), (one, 42, 40, 1), (one, 42, 41, 1)):
            self.eventually(lambda a=agent, n=node, p=peer: a.value("online", n, p) == 1, "online", RESUME_S)
            result = []

            def answered(agent=agent, app=app, peer=peer, result=result):
                result[:] = agent.rpc(app, peer, 64, 0, 30)
                return result[0] == 0 and [r.status for r in result[2]] == [SUCCESS]

            self.eventually(answered, f"{app} reaches {peer}: {result}", RESUME_S, every=0.5)
        self.assertEqual(a.call("sendto", 20, 21, 2, 2000, 100, 0, "first=0")[:2], [0, 2000])
        new.arrived(21, 20, 1, 2000)
        for app, peer in ((30, 31), (31, 30)):
            self.assertEqual(both.call("sendto", app, peer, -2, 2000, 100, 0)[:2], [0, 2000])
            both.arrived(peer, app, 1, 2000)
        for app in (40, 41):
            self.assertEqual(two.call("sendto", app, 42, 2, 2000, 100, 0)[:2], [0, 2000])
            one.arrived(42, app, 1, 2000)
        quits = len(two.seen("quit .* peer 42/2 .*"))
        one.kill()
        self.eventually(lambda: len(two.seen("quit .* peer 42/2 .*")) == quits + 1, "one subscriber is told")
        self.stays(lambda: len(two.seen("quit .* peer 42/2 .*")) == quits + 1, "one only", 0.5)
        self.assertEqual(two.value("online", 2, 42), 0)
        self.assertEqual(both.rpc(30, 31, 64, 0, 30)[::2], (0, [Reply(1, 31, SUCCESS, "same")]))
        self.assertEqual(a.call("sendto", 20, 21, 1, 1, 100, 0)[0], ENOENT)


if __name__ == "__main__":
    main()
