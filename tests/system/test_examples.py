"""The example programs do what their first lines promise."""
import os
import re
import signal
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from qel_agents import EXAMPLES, SystemTest, main  # noqa: E402

SOURCES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../examples")


class Examples(SystemTest):
    nodes = 3
    backends = ("local", "netns")

    def start(self, node, name, *arguments):
        return self.node(node).spawn([os.path.join(EXAMPLES, name), *arguments])

    def end(self, proc, sig=signal.SIGTERM):
        proc.kill(sig)
        self.assertEqual(proc.wait(5), 0, proc)
        return proc.output

    def test_each_is_short(self):
        for name in os.listdir(SOURCES):
            if name.endswith((".c", ".cpp")):
                with open(os.path.join(SOURCES, name), encoding="utf-8") as file:
                    self.assertLess(len(file.readlines()), 100, name)

    def test_a_monitor_sees_sensors_and_their_readings(self):
        monitor = self.start(1, "monitor", 101, 100, 6)
        sensors = [self.start(n, "sensor", 100, 101, 0, 50) for n in (2, 3)]
        for n in (2, 3):
            monitor.position = 0
            monitor.expect(rf"application 100 on node {n} joins")
        self.assertEqual(monitor.wait(), 0)
        shape = r"^monitor: reading (\d+) of node ([23]): (\d+\.\d{3}) degrees$"
        readings = re.findall(shape, monitor.output, re.M)
        self.assertEqual(len(readings), 6)
        for number, _, degrees in readings:
            self.assertAlmostEqual(float(degrees), 20 + int(number) * 7919 % 5000 / 1000)
        for sensor, sig in zip(sensors, (signal.SIGTERM, signal.SIGINT)):
            self.assertRegex(self.end(sensor, sig), r"^sensor: \d+ readings sent, \d+ unheard\n$")

    def test_a_sensor_ends_after_its_count(self):
        monitor = self.start(1, "monitor")
        sensor = self.start(2, "sensor", 100, 101, 3, 300)
        self.assertEqual(sensor.wait(), 0)
        self.assertRegex(sensor.output, r"^sensor: 3 readings sent, \d+ unheard\n$")
        monitor.expect(r"application 100 on node 2 quits")
        self.assertEqual(self.end(monitor).count(" of node 2: "), 3)

    def test_a_gateway_passes_on_what_is_warm_and_counts_the_rest(self):
        monitor = self.start(1, "monitor")
        gateway = self.start(2, "gateway", 102, 100, 101, 22000)
        monitor.expect(r"application 102 on node 2 joins")
        sensor = self.start(3, "sensor", 100, 102, 0, 20)
        for _ in range(10):
            monitor.expect(r"reading \d+ of node 3")
        self.end(sensor)
        monitor.skip()
        output = self.end(gateway)
        match = re.fullmatch(r"gateway: (\d+) readings: (\d+) relayed, (\d+) below the limit, 0 refused by "
                             r"flow control, 0 unheard, 0 failed\n", output)
        self.assertTrue(match, output)
        seen, relayed, cold = map(int, match.groups())
        self.assertEqual(seen, relayed + cold)
        self.assertGreater(cold, 0)
        degrees = [float(x) for x in re.findall(r"of node 3: ([\d.]+)", self.end(monitor))]
        self.assertEqual(len(degrees), relayed)
        self.assertGreater(min(degrees), 22)

    def test_calculators_answer_one_and_all(self):
        servers = [self.start(n, "calculator_server") for n in (1, 2, 3)]
        ask = [os.path.join(EXAMPLES, "calculator_client")]
        for n, server in enumerate(servers, 1):
            done = self.node(1).run(ask + [n, f"6 * {n}"], check=True)
            self.assertEqual(done.output, f"node {n}: {6 * n}\n")
            server.expect(rf"node 1 asks 6 \* {n}: {6 * n}")
        for question, answer in (("1 / 0", "cannot do that"), ("hello", "not understood"), ("1e3 - 1", "999"),
                                 ("2 + 2 or so", "4"), ("9" * 1000 + " + 1", "too long")):
            done = self.node(3).run(ask + [2, question], check=True)
            self.assertEqual(done.output, f"node 2: {answer}\n")
        done = self.node(2).run(ask + [-1, "10 / 4"], check=True)
        self.assertEqual(sorted(done.output.splitlines()), [f"node {n}: 2.5" for n in (1, 2, 3)])
        for server in servers:
            self.end(server)

    def test_a_client_without_a_server_gives_up_with_an_error(self):
        done = self.node(1).run([os.path.join(EXAMPLES, "calculator_client"), 2, "1 + 1"])
        self.assertEqual((done.status, done.output), (1, "calculator_client: the call failed: -2\n"))
        self.assertEqual(self.node(1).run([os.path.join(EXAMPLES, "calculator_client")]).status, 2)

    def test_the_inventory_has_a_line_for_every_node(self):
        sensors = [self.start(n, "sensor", 100, 101, 0, 100) for n in (1, 2, 3)]
        done = self.node(2).run([os.path.join(EXAMPLES, "inventory"), 3], check=True)
        lines = done.output.splitlines()
        self.assertEqual([re.sub(r"\d+ unheard", "N unheard", line) for line in lines],
                         [f"node {n}: 0 readings sent, N unheard" for n in (1, 2, 3)])
        sensors[0].kill()
        done = self.node(2).run([os.path.join(EXAMPLES, "inventory"), 2], check=True)
        self.assertEqual([line[:7] for line in done.output.splitlines()], ["node 2:", "node 3:"])

    def test_a_meter_measures(self):
        server = self.start(2, "meter")
        done = self.node(1).run([os.path.join(EXAMPLES, "meter"), 2, 1000, 256], check=True)
        self.assertRegex(done.output, r"\Ameter: 1000 messages of 256 bytes to node 2: [\d.]+ us each, \d+ a "
                                      r"second\nmeter: 100 calls: [\d.]+ us each\n\Z")
        self.end(server)
        self.assertEqual(self.node(1).run([os.path.join(EXAMPLES, "meter"), 2, 1000, 65537]).status, 2)

    def test_on_a_node_without_a_number_each_says_why_it_ends(self):
        self.node(1).write_addr("none")
        for name, *arguments in (["sensor"], ["monitor"], ["gateway"], ["calculator_server"], ["meter"],
                                 ["calculator_client", 1, "1 + 1"], ["inventory"]):
            done = self.node(1).run([os.path.join(EXAMPLES, name), *arguments])
            self.assertEqual(done.status, 1, name)
            self.assertRegex(done.output, rf"^{name}: application \d+ cannot join the bus: -1\n$")


if __name__ == "__main__":
    main()
