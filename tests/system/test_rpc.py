"""Remote procedure calls: to one, to many, to peers that misbehave or die, many at once."""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import (APP_VERSION, EINVAL, ENOENT, NOT_SELF, SANITIZED, SUCCESS, SYSTEM,  # noqa: E402
                        Reply, SystemTest, main)


class Rpc(SystemTest):
    def test_every_size_comes_back_as_it_went(self):
        a, b = self.pair()
        for size in (0, 1, 15, 16, 1000, 4096, 65535, 65536):
            result, _, replies = a.rpcto(20, 2, 21, size, 0, 0)
            content = "empty" if size == 0 else "same"
            self.assertEqual((result, [r._replace(content="empty") if size == 0 else r for r in replies]),
                             (0, [Reply(2, 21, SUCCESS, content)]), size)

    def test_one_call_reaches_every_instance_and_an_application_can_leave_itself_out(self):
        a, b = self.agent(1, {20: []}), self.agent(2, {20: []})
        for agent in (a, b):
            for n in (1, 2):
                agent.joined(20, n)
        both = [Reply(1, 20, SUCCESS, "same"), Reply(2, 20, SUCCESS, "same")]
        for destination in (20, 0):
            self.assertEqual(a.rpc(20, destination, 64, 0, 30)[::2], (0, both))
        self.assertEqual(a.rpcto(20, -1, 20, 64, 0, 30)[::2], (0, both))
        self.assertEqual(a.rpc(20, 20, 64, NOT_SELF, 30)[::2], (0, both[1:]))
        self.assertEqual(a.rpcto(20, -2, 20, 64, 0, 30)[::2], (0, both[:1]))
        self.assertEqual(a.rpcto(20, -2, 20, 64, NOT_SELF, 30)[::2], (ENOENT, []))

    def test_calls_without_a_callee_or_with_bad_arguments_fail_at_once(self):
        a, b = self.pair()
        self.assertEqual(a.rpcto(20, 3, 21, 64, 0, 30)[::2], (ENOENT, []))
        self.assertEqual(a.rpc(20, 22, 64, 0, 30)[::2], (ENOENT, []))
        for destination in (8192, 16383 + 4097, 0x7FFFFFFF):
            self.assertEqual(a.rpc(20, destination, 64, 0, 30)[::2], (EINVAL, []), destination)
        self.assertEqual(a.rpcto(20, 65536, 21, 64, 0, 30)[::2], (EINVAL, []))
        self.assertEqual(a.rpcto(0, 2, 21, 64, 0, 30)[::2], (EINVAL, []))

    def test_an_unknown_version_is_answered_with_the_range_that_is_served(self):
        a = self.agent(1, {20: [21]})
        b = self.agent(2, {21: [20]}, options="v=2,5,3")
        a.joined(21, 2)
        b.joined(20, 1)
        self.assertEqual(a.rpc(20, 21, 64, 0, 30, "ver=4")[::2], (0, [Reply(2, 21, APP_VERSION, "2-5")]))
        self.assertEqual(a.rpc(20, 21, 64, 0, 30, "ver=5")[::2], (0, [Reply(2, 21, SUCCESS, "same")]))
        self.assertEqual(a.call("send", 20, 21, 1, 64, 0, "ver=4")[0], 0)
        self.assertEqual(a.call("send", 20, 21, 1, 64, 0, "ver=3")[0], 0)
        self.eventually(lambda: b.received(21, 20, 1).count == 1, "the one of a version that is served")

    def test_a_null_answer_is_told_as_such_and_a_request_can_be_its_own_reply(self):
        a, b = self.pair()
        b.call("serve", 21, "null")
        self.assertEqual(a.rpc(20, 21, 64, 0, 30)[::2], (0, [Reply(2, 21, SYSTEM, "empty")]))
        b.call("serve", 21, "self")
        self.assertEqual(a.rpc(20, 21, 64, 0, 30)[::2], (0, [Reply(2, 21, SUCCESS, "same")]))

    def test_a_late_answer_from_another_thread_ends_the_call(self):
        a, b = self.pair()
        b.call("serve", 21, "late", 700)
        result, ms, replies = a.rpc(20, 21, 64, 0, 0)
        self.assertEqual((result, replies), (0, [Reply(2, 21, SUCCESS, "same")]))
        self.assertTrue(700 <= ms < 5000, ms)

    def test_a_callee_that_dies_ends_the_call_also_without_a_time_limit(self):
        for limit in (0, 60):
            a, b = self.pair()
            b.call("serve", 21, "die")
            result, ms, replies = a.rpc(20, 21, 64, 0, limit)
            self.assertEqual((result, replies), (0, [Reply(2, 21, SYSTEM, "empty")]))
            self.assertLess(ms, 5000)
            a.quit(21, 2)
            self.cluster.reset()

    def test_a_dispatcher_may_call_on(self):
        a = self.agent(1, {20: [21]})
        b = self.agent(2, {21: [20, 22]})
        c = self.agent(1, {22: [21]})
        a.joined(21, 2)
        b.joined(20, 1)
        b.joined(22, 1)
        c.joined(21, 2)
        b.call("serve", 21, "relay", 22)
        for _ in range(20):
            self.assertEqual(a.rpc(20, 21, 500, 0, 30)[::2], (0, [Reply(2, 21, SUCCESS, "same")]))
        self.assertEqual(c.received(22, 21, 2).requests, 20)

    def test_calls_and_messages_of_one_sender_are_dispatched_in_the_order_of_sending(self):
        a, b = self.pair()
        for _ in range(10):
            self.assertEqual(a.call("sendto", 20, 21, 2, 100, 500, 0)[0], 0)
            count = b.received(21, 20, 1).count
            self.assertEqual(a.rpc(20, 21, 64, 0, 30)[0], 0)
            got = b.received(21, 20, 1)
            self.assertEqual(got.count % 100, 0, f"a call was answered before the messages ({count})")
            self.assertEqual(got.count, got.requests * 100)

    def test_of_many_threads_every_call_gets_its_own_reply(self):
        threads, calls = 8, 2000 if self.real or SANITIZED else 10000
        a = self.agent(1, {20: [21]})
        near, far = self.agent(1, {21: [20]}), self.agent(2, {21: [20]})
        for n in (1, 2):
            a.joined(21, n)
        near.joined(20, 1)
        far.joined(20, 1)
        storm = a.call("storm", 20, 2, 21, threads, calls, 200, 1, timeout=250)
        self.assertEqual(storm, [threads * calls, 0, 0])
        storm = a.call("storm", 20, -1, 21, threads, calls // 10, 200, 2, timeout=250)
        self.assertEqual(storm, [threads * calls // 10 * 2, 0, 0])
        self.assertEqual(far.received(21, 20, 1).requests, threads * calls + threads * calls // 10)

    def test_two_storms_in_opposite_directions_do_not_hold_each_other_up(self):
        calls = 500 if self.real or SANITIZED else 3000
        a, b = self.pair()
        there = a.start("storm", 20, 2, 21, 4, calls, 100, 1)
        back = b.start("storm", 21, 1, 20, 4, calls, 100, 1)
        self.assertEqual(there.result(120), [4 * calls, 0, 0])
        self.assertEqual(back.result(120), [4 * calls, 0, 0])


if __name__ == "__main__":
    main()
