"""Hit, miss and time-saved facts reach a statistics daemon on a real
socket, once per request, and a daemon that is away costs requests nothing."""
import os
import re
import time
import unittest

import harness

RULES = """<?xml version="1.0" encoding="UTF-8"?>
<cache_settings><dont_cache/><cache>
  <url schema="http" host="&lt;default-server&gt;" path="(page|status)\\.php" lifetime="300"
       match_type="regex_match" id="5">
    <name>Pages</name>
    <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by>
  </url>
</cache></cache_settings>
"""


def counter_types(lines):
    return [int(re.search(r"CounterType: (-?\d+)", line).group(1)) for line in lines]


class Pulse(unittest.TestCase):
    def setUp(self):
        self.workspace, self.site = harness.Workspace.with_site(self, RULES)
        self.socket = "unix:" + self.workspace.path("run", "statsd.sock")
        self.listener = harness.StatsListener(self.socket)
        self.addCleanup(lambda: self.listener and self.listener.stop())

    def start(self, port=None, **extra):
        directives = self.workspace.directives(vesk__statsd_connection_string=self.socket,
                                               vesk_pagecache__log_verbosity_level="3", **extra)
        self.server = harness.BuiltinServer(self.workspace, self.site, directives, port=port)
        self.addCleanup(self.server.stop)

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

    def test_daemon_away_and_back(self):
        self.start()
        self.assertEqual([0, 2, 3], counter_types(self.facts("/page.php", 3)))
        self.listener.stop()
        self.listener = None
        started = time.monotonic()
        self.assertEqual(200, self.server.get("/page.php")[0])
        # A bound against hanging, far above the connect timeout.
        self.assertLess(time.monotonic() - started, 5)
        self.assertIn("Failed to connect to: " + self.socket, self.workspace.log())

        # Back again: the next request's batch arrives whole.
        self.listener = harness.StatsListener(self.socket)
        self.assertEqual([0, 1], counter_types(self.facts("/page.php", 2)))

    def test_daemon_restarted_between_requests(self):
        self.start()
        self.assertEqual([0, 2, 3], counter_types(self.facts("/page.php", 3)))
        # Same place, new daemon: the worker's connection is stale.
        self.listener.stop()
        self.listener = harness.StatsListener(self.socket)
        self.assertEqual([0, 1], counter_types(self.facts("/page.php", 2)))
        log = self.workspace.log()
        self.assertIn("Failed to write message.", log)
        self.assertIn("Attempting to reconnect...", log)


class NoDaemon(unittest.TestCase):
    def test_without_a_connection_string_requests_try_and_log_nothing(self):
        workspace, site = harness.Workspace.with_site(self, RULES)
        server = harness.BuiltinServer(workspace, site,
                                       workspace.directives(vesk_pagecache__log_verbosity_level="5"))
        self.addCleanup(server.stop)
        for _ in range(3):
            self.assertEqual(200, server.get("/page.php")[0])
        log = workspace.log()
        # The requests were covered, and traced.
        self.assertIn("Cache entry NOT found", log)
        self.assertNotIn("statsd", log)
        self.assertNotIn("Adding POSSIBLE", log)
        self.assertNotIn("Adding PageCache-", log)


class RecordChannel(unittest.TestCase):
    def test_directives_as_written_leave_the_channel_shut(self):
        # The page cache's switch is looked up with its terminating zero as
        # part of the name, so no configuration as written opens the channel.
        workspace, site = harness.Workspace.with_site(self, RULES)
        with open(os.path.join(site, "reporting.php"), "w") as f:
            f.write("<?php\nfunction vesk_report_statistics(array $r) {\n"
                    "    file_put_contents(__DIR__ . '/records.log', $r['record_type'] . \"\\n\", FILE_APPEND);\n}\n")
        with open(os.path.join(site, "page.php"), "r+") as f:
            text = f.read()
            f.seek(0)
            f.write(text.replace("<?php\n", "<?php\nrequire __DIR__ . '/reporting.php';\n", 1))
        directives = workspace.directives(vesk_statistics__enable="1")
        directives["vesk_statistics.pagecache.enable"] = "1"
        server = harness.BuiltinServer(workspace, site, directives)
        self.addCleanup(server.stop)
        for _ in range(2):
            self.assertEqual(200, server.get("/page.php")[0])
        self.assertFalse(os.path.exists(os.path.join(site, "records.log")))


if __name__ == "__main__":
    unittest.main()
