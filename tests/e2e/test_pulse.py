"""Hit, miss and time-saved facts reach a statistics daemon on a real
socket, once per request, and a daemon that is away costs requests nothing."""
import grp
import os
import re
import socket
import stat
import struct
import time

import harness

RULES = harness.rules_file(harness.url_rule("(page|status)\\.php", id="5"))


def counter_types(lines):
    return [int(re.search(r"CounterType: (-?\d+)", line).group(1)) for line in lines]


class Pulse(harness.Case):
    def setUp(self):
        self.use_site(RULES)
        self.socket = "unix:" + self.workspace.path("run", "statsd.sock")
        self.listener = harness.StatsListener(self.socket)
        self.addCleanup(lambda: self.listener and self.listener.stop())

    def start(self, port=None, **extra):
        self.server = self.serve(directives=self.directives(
            vesk__statsd_connection_string=self.socket, vesk_pagecache__log_verbosity_level="3", **extra), port=port)

    def facts(self, path, count):
        self.assertEqual(200 if "status" not in path else 500, self.server.get(path)[0])
        lines = self.listener.take(count)
        # Nothing beyond what was expected arrives.
        lines += self.listener.take(1, seconds=0.3)
        return lines

    def test_each_kind_of_request_sends_its_facts(self):
        self.start(vesk__node_id="3")
        self.assertEqual([], self.facts("/empty.php", 0), "a page without a rule sent facts")
        miss = self.facts("/page.php", 3)
        self.assertEqual([0, 2, 3], counter_types(miss))
        self.assertIn("RuleName: Pages", miss[0])
        self.assertIn("RuleId: 5, Server: 0", miss[0])
        self.assertIn("RuleId: 5, Server: 3", miss[1])
        hit = self.facts("/page.php", 2)
        self.assertEqual([0, 1], counter_types(hit))
        self.assertRegex(hit[1], r"Key: [0-9a-f]{32}, AppID: -1")
        # A 500 is never stored: a miss without time saved.
        self.assertEqual([0, 2], counter_types(self.facts("/status.php?code=500", 2)))

    def test_internal_port_sends_nothing(self):
        port = harness.free_port()
        self.start(port=port, vesk__internal_ports=str(port))
        self.assertEqual([], self.facts("/page.php", 0))

    def test_daemon_restarted_then_away_then_back(self):
        self.start()
        self.assertEqual([0, 2, 3], counter_types(self.facts("/page.php", 3)))
        # Same place, new daemon: the worker's connection is stale.
        self.listener.stop()
        self.listener = harness.StatsListener(self.socket)
        self.assertEqual([0, 1], counter_types(self.facts("/page.php", 2)))
        self.assertLogged("Failed to write message.")
        self.assertLogged("Attempting to reconnect...")

        self.listener.stop()
        self.listener = None
        started = time.monotonic()
        self.assertEqual(200, self.server.get("/page.php")[0])
        # A bound against hanging, far above the connect timeout.
        self.assertLess(time.monotonic() - started, 5)
        self.assertLogged("Failed to connect to: " + self.socket)

        # Back again: the next request's batch arrives whole.
        self.listener = harness.StatsListener(self.socket)
        self.assertEqual([0, 1], counter_types(self.facts("/page.php", 2)))


def frame(name, claimed=None):
    """A hit as a worker sends it, named `name`; `claimed` is the length its header gives instead."""
    payload = struct.pack(">iiiiqI", 1, -1, 0, 1, 1, len(name)) + name + struct.pack(">qIq", 5, 0, 0)
    return struct.pack(">I", len(payload) if claimed is None else claimed) + payload


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        return sum(int(n) for n in f.read().rsplit(")", 1)[1].split()[11:13]) / os.sysconf("SC_CLK_TCK")


class Channel(harness.Case):
    def setUp(self):
        self.use_site(RULES)
        self.path = self.workspace.path("run", "statsd.sock")
        self.peers = []
        self.addCleanup(lambda: [peer.close() for peer in self.peers])

    def peer(self, family, address, blocking=True):
        """A connection to `address`; None while it is refused or under way."""
        self.peers.append(socket.socket(family))
        self.peers[-1].settimeout(5 if blocking else 0)
        return self.peers[-1] if self.peers[-1].connect_ex(address) == 0 else None

    def test_listener_under_unfinished_frames_and_a_flood_of_connections(self):
        listener = harness.StatsListener("unix:" + self.path, descriptors=128)
        self.addCleanup(listener.stop)
        mode = os.stat(self.path)
        self.assertEqual((0o660, grp.getgrnam("www-data").gr_gid), (stat.S_IMODE(mode.st_mode), mode.st_gid))
        for _ in range(4):
            try:
                self.peer(socket.AF_UNIX, self.path).sendall(struct.pack(">I", 16 << 20) + bytes(15 << 20))
            except OSError:
                pass  # the listener hung up
        for _ in range(1000):
            self.peer(socket.AF_UNIX, self.path, blocking=False)
        # Out of descriptors, it neither spins nor grows.
        before = cpu_seconds(listener.process.pid)
        time.sleep(2)
        self.assertLess(cpu_seconds(listener.process.pid) - before, 0.5)
        with open("/proc/%d/status" % listener.process.pid) as f:
            self.assertLess(int(re.search(r"VmHWM:\s+(\d+) kB", f.read()).group(1)), 32 * 1024)
        [peer.close() for peer in self.peers]
        # A sender's texts reach the terminal escaped, once the flood has drained.
        for _ in range(100):
            sender = self.peer(socket.AF_UNIX, self.path) or time.sleep(0.1)
            if sender:
                break
        sender.sendall(frame(b"\x1b[2J\nRuleName: forged\xc2\x9b\\"))
        self.assertIn(r"RuleName: \x1b[2J\x0aRuleName: forged\xc2\x9b\x5c, Key: ,", "".join(listener.take(1)))

    def test_listener_touches_nothing_it_did_not_make(self):
        with open(self.path, "w") as f:
            f.write("kept")
        for connection in ("unix:" + self.path, "tcp://0.0.0.0:%d" % harness.free_port()):
            with self.subTest(connection), self.assertRaises(RuntimeError):
                harness.StatsListener(connection).stop()
        os.unlink(self.path)
        listener = harness.StatsListener("unix:" + self.path)
        os.unlink(self.path)
        with open(self.path, "w") as f:
            f.write("kept")
        listener.stop()
        with open(self.path) as f:
            self.assertEqual("kept", f.read())

    def test_hits_pay_nothing_for_a_daemon_that_never_reads_or_never_accepts(self):
        silent = socket.socket(socket.AF_UNIX)
        silent.bind(self.path)
        listening = socket.socket()
        listening.bind(("127.0.0.1", 0))
        for endpoint in (silent, listening):
            self.peers.append(endpoint)
            endpoint.listen(0)
        for _ in range(3):  # its queue full, the kernel drops further connections' first packet
            self.peer(socket.AF_INET, listening.getsockname(), blocking=False)
        for connection in ("unix:" + self.path, "tcp://127.0.0.1:%d" % listening.getsockname()[1]):
            with self.subTest(connection):
                server = self.serve(directives=self.directives(vesk__statsd_connection_string=connection))
                started = time.monotonic()
                for i in range(40):
                    self.assertEqual(200, server.get("/page.php?n=%d" % (i % 20))[0])
                    self.peers += [silent.accept()[0]] if i == 0 and "unix" in connection else []
                # Waiting for the daemon would take 250 ms a request.
                self.assertLess(time.monotonic() - started, 5)
        # The second server found the pages the first had stored.
        self.assertEqual(20, self.runs())

    def test_without_a_connection_string_requests_try_and_log_nothing(self):
        server = self.serve(directives=self.directives(vesk_pagecache__log_verbosity_level="5"))
        for _ in range(3):
            self.assertEqual(200, server.get("/page.php")[0])
        log = self.workspace.log()
        # The requests were covered, and traced.
        self.assertIn("Cache entry NOT found", log)
        self.assertNotIn("statsd", log)
        self.assertNotIn("Adding POSSIBLE", log)
        self.assertNotIn("Adding PageCache-", log)

    def test_directives_as_written_leave_the_record_channel_shut(self):
        # The page cache's switch is looked up with its terminating zero as
        # part of the name, so no configuration as written opens the channel.
        with open(os.path.join(self.site, "reporting.php"), "w") as f:
            f.write("<?php\nfunction vesk_report_statistics(array $r) {\n"
                    "    file_put_contents(__DIR__ . '/records.log', $r['record_type'] . \"\\n\", FILE_APPEND);\n}\n")
        with open(os.path.join(self.site, "page.php"), "r+") as f:
            text = f.read()
            f.seek(0)
            f.write(text.replace("<?php\n", "<?php\nrequire __DIR__ . '/reporting.php';\n", 1))
        directives = self.directives(vesk_statistics__enable="1")
        directives["vesk_statistics.pagecache.enable"] = "1"
        server = self.serve(directives=directives)
        for _ in range(2):
            self.assertEqual(200, server.get("/page.php")[0])
        self.assertFalse(os.path.exists(os.path.join(self.site, "records.log")))
