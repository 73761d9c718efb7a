"""The cleaner process: forked at start-up, drops expired pages, ends with
the server, however the server ends."""
import os
import signal
import subprocess
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


def cleaners(workspace):
    """The cleaners of a workspace: its log is theirs."""
    return harness.processes(name="vesk-cleaner", holding=workspace.path("log"))


class CleanerFollowsItsMaster(unittest.TestCase):
    """Under every server: one cleaner, cut loose from the server's
    descriptors, that ends when the server's master ends in any way."""

    def setUp(self):
        self.workspace, self.site = harness.Workspace.with_site(self, RULES)
        harness.make_shared(self.workspace, "log", "tmp", "run", "site", "var")
        self.directives = self.workspace.directives(vesk_pagecache__log_verbosity_level="3")

    def wait_until(self, condition, seconds, message):
        deadline = time.monotonic() + seconds
        while not condition():
            self.assertLess(time.monotonic(), deadline, message)
            time.sleep(0.05)

    def start(self, kind):
        """Starts a server of `kind`; answers its port and its master's pid."""
        if kind == "php -S":
            server = harness.BuiltinServer(self.workspace, self.site, self.directives, workers=2)
            master = server.process.pid
        elif kind == "apache":
            if not harness.ApacheWithPhp.available():
                self.fail("Apache is not installed: scripts/bootstrap installs it")
            server = harness.ApacheWithPhp(self.workspace, self.site, self.directives)
            master = server.process.pid
        else:
            if not harness.FpmBehindNginx.available():
                self.fail("php-fpm is not installed: scripts/bootstrap installs it")
            server = harness.FpmBehindNginx(self.workspace, self.site, self.directives,
                                            daemonize=kind == "php-fpm daemonized")
            master = server.master
        self.addCleanup(server.stop)
        return server.port, master

    def check_one_cleaner_alone(self, port):
        self.wait_until(lambda: cleaners(self.workspace), 10, "no cleaner started")
        # Workers and children serve without starting cleaners of their own.
        for _ in range(6):
            self.assertEqual(200, harness.http_get(port, "/page.php")[0])
        found = cleaners(self.workspace)
        self.assertEqual(1, len(found), found)
        files = harness.open_files(found[0])
        self.assertEqual({0: "/dev/null", 1: "/dev/null", 2: "/dev/null"}, {fd: files[fd] for fd in (0, 1, 2)})
        others = {fd: path for fd, path in files.items() if fd > 2}
        self.assertEqual([self.workspace.path("log", "pagecache.log")], list(others.values()), others)
        return found[0]

    def check(self, kind, sig):
        port, master = self.start(kind)
        self.check_one_cleaner_alone(port)
        os.kill(master, sig)
        self.wait_until(lambda: not cleaners(self.workspace), 15,
                        "the cleaner outlived its master (%s, signal %d)" % (kind, sig))

    def test_builtin_server_sigterm(self):
        self.check("php -S", signal.SIGTERM)

    def test_builtin_server_sigkill(self):
        self.check("php -S", signal.SIGKILL)

    def test_fpm_sigterm(self):
        self.check("php-fpm", signal.SIGTERM)

    def test_fpm_sigkill(self):
        self.check("php-fpm", signal.SIGKILL)

    def test_daemonized_fpm_sigterm(self):
        self.check("php-fpm daemonized", signal.SIGTERM)

    def test_daemonized_fpm_sigkill(self):
        self.check("php-fpm daemonized", signal.SIGKILL)

    def test_apache_sigterm(self):
        self.check("apache", signal.SIGTERM)

    def test_apache_sigkill(self):
        self.check("apache", signal.SIGKILL)

    def test_daemonized_fpm_cleaner_deletes_expired_pages(self):
        self.directives = self.workspace.directives(vesk_pagecache__clean_frequency="1")
        port, master = self.start("php-fpm daemonized")
        self.wait_until(lambda: cleaners(self.workspace), 10, "no cleaner started")
        self.assertEqual(200, harness.http_get(port, "/page.php")[0])
        root = self.workspace.path("tmp", "pagecache", "HTML-Cache")
        records = lambda: sum(1 for _, _, names in os.walk(root) for name in names if not name.startswith("."))
        self.assertEqual(1, records())
        self.wait_until(lambda: records() == 0, 10, "the expired page stayed on disk")
        self.assertEqual(1, len(cleaners(self.workspace)))

    def run_failing(self, arguments, **directives):
        """Runs php with the cache on and its output through a pipe, as
        `php ... | cat` does; the pipe must reach its end."""
        command = harness.php_command(self.workspace.directives(
            vesk_pagecache__enable_cli="1", vesk_pagecache__log_verbosity_level="3", **directives)) + arguments
        process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                   stdin=subprocess.DEVNULL, start_new_session=True)
        try:
            output = process.communicate(timeout=30)[0]
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
            self.fail("the output of %s never ended" % arguments)
        self.assertIn("Starting Cache Cleaner at pid", self.workspace.log())
        self.wait_until(lambda: not cleaners(self.workspace), 15, "a cleaner outlived the failed run")
        return output

    def test_fatal_error_at_start_up_ends_the_cleaner(self):
        # A directive that PHP refuses fails its start-up after ours, and
        # PHP exits without shutting the modules down.
        output = self.run_failing(["-r", "echo 'never';"], safe_mode="1")
        self.assertIn(b"no longer available", output)
        self.assertNotIn(b"never", output)

    def test_fatal_error_at_start_up_of_the_builtin_server(self):
        port = harness.free_port()
        output = self.run_failing(["-S", "127.0.0.1:%d" % port, "-t", self.site], safe_mode="1")
        self.assertIn(b"no longer available", output)

    def test_memory_limit_ends_the_cleaner(self):
        # Once the cleaner runs, the script goes over the memory limit.
        script = ("for ($i = 0; $i < 200 && strpos((string)@file_get_contents($argv[1]), 'Starting Cache Cleaner')"
                  " === false; $i++) usleep(50000); str_repeat('x', 64 << 20);")
        output = self.run_failing(["-r", script, "--", self.workspace.path("log", "pagecache.log")],
                                  memory_limit="8M")
        self.assertIn(b"Allowed memory size", output)


if __name__ == "__main__":
    unittest.main()
