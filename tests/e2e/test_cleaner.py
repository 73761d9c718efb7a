"""The cleaner process: forked at start-up, drops expired pages, ends with
the server."""
import os
import signal
import time
import unittest

import harness

RULES = """<?xml version="1.0" encoding="UTF-8"?>
<cache_settings><dont_cache/><cache>
  <url schema="http" host="&amp;lt;default-server&amp;gt;" path="page\\.php.*" lifetime="1" match_type="regex_match">
    <name>Short-lived pages</name>
  </url>
</cache></cache_settings>
"""


def alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    # A child that has ended but not been reaped still answers.
    with open("/proc/%d/stat" % pid) as f:
        return f.read().split()[2] != "Z"


class Cleaner(unittest.TestCase):
    def setUp(self):
        self.workspace, self.site = harness.Workspace.with_site(self, RULES)

    def directives(self, frequency):
        return self.workspace.directives(vesk_pagecache__clean_frequency=str(frequency),
                                         vesk_pagecache__log_verbosity_level="5")

    def records(self):
        count = 0
        for _, _, files in os.walk(self.workspace.path("tmp")):
            count += sum(1 for name in files if not name.startswith("."))
        return count

    def cleaner_pid(self):
        deadline = time.monotonic() + 10
        path = self.workspace.path("run", "pagecache_cleaner.pid")
        while not os.path.exists(path):
            self.assertLess(time.monotonic(), deadline, "no pid file")
            time.sleep(0.05)
        with open(path) as f:
            return int(f.read())

    def wait_until(self, condition, seconds, message):
        deadline = time.monotonic() + seconds
        while not condition():
            self.assertLess(time.monotonic(), deadline, message)
            time.sleep(0.1)

    def test_expired_pages_leave_the_disk_and_sigterm_ends_the_cleaner(self):
        server = harness.BuiltinServer(self.workspace, self.site, self.directives(1))
        self.addCleanup(server.stop)
        pid = self.cleaner_pid()
        self.assertNotEqual(server.process.pid, pid)
        self.assertEqual(200, harness.http_get(server.port, "/page.php")[0])
        self.assertEqual(1, self.records())
        self.wait_until(lambda: self.records() == 0, 5, "the expired page stayed on disk")
        self.assertIn("Cache cleaner is cleaning expired cache entries", self.workspace.log())
        # SIGTERM during a sleep ends the cleaner at once; its pid file stays.
        os.kill(pid, signal.SIGTERM)
        self.wait_until(lambda: not alive(pid), 5, "the cleaner didn't end")
        self.assertTrue(os.path.exists(self.workspace.path("run", "pagecache_cleaner.pid")))
        self.assertIn("Cache Cleaner exiting...", self.workspace.log())

    def test_frequency_zero_cleans_without_pause(self):
        server = harness.BuiltinServer(self.workspace, self.site, self.directives(0))
        self.addCleanup(server.stop)
        self.cleaner_pid()
        self.wait_until(lambda: self.workspace.log().count("finished cleaning expired cache entries") >= 20, 5,
                        "the cleaner paused")

    def test_stopping_php_fpm_stops_the_cleaner(self):
        if not harness.FpmBehindNginx.available():
            self.fail("php-fpm is not installed: scripts/bootstrap installs it")
        harness.make_shared(self.workspace, "log", "tmp", "run", "site", "var")
        server = harness.FpmBehindNginx(self.workspace, self.site, self.directives(300))
        self.addCleanup(server.stop)
        pid = self.cleaner_pid()
        self.assertTrue(alive(pid))
        # The master alone gets the signal, as a service manager would send it.
        os.kill(server.fpm.pid, signal.SIGTERM)
        server.fpm.wait(timeout=15)
        # The master waited for its cleaner: no process is left behind.
        self.assertFalse(os.path.exists("/proc/%d" % pid))


if __name__ == "__main__":
    unittest.main()
