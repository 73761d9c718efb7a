"""The cleaner process: forked at start-up, drops expired pages, ends with
the server, however the server ends."""
import os
import signal
import subprocess

import harness

RULES = harness.rules_file(harness.url_rule("page\\.php.*", "Short-lived pages", splits=(), lifetime="1"))


class Cleaner(harness.Case):
    """Under every server: one cleaner, cut loose from the server's
    descriptors, that drops expired pages and ends when the server's master
    ends in any way."""

    def setUp(self):
        self.use_site(RULES)

    def cleaners(self):
        """The cleaners of this workspace: its log is theirs."""
        return harness.processes(name="vesk-cleaner", holding=self.workspace.path("log"))

    def start(self, kind, **directives):
        """Starts a server of `kind`; answers its port and its master's pid."""
        directives = self.directives(**dict({"vesk_pagecache__log_verbosity_level": "3"}, **directives))
        if kind == "php -S":
            server = self.serve(kind, directives, workers=2)
        elif kind == "apache":
            server = self.serve(kind, directives)
        else:
            server = self.serve("php-fpm", directives, daemonize=kind == "php-fpm daemonized")
            return server, server.master
        return server, server.process.pid

    def test_expired_pages_leave_the_disk(self):
        # The store's expiry is the same under every server; the cleaner's
        # start under each is checked by test_the_cleaner_ends_with_its_master.
        server, _ = self.start("php -S", vesk_pagecache__clean_frequency="1", vesk_pagecache__log_verbosity_level="5")
        self.wait_until(self.cleaners, 10, "no cleaner started")
        self.assertEqual(200, harness.http_get(server.port, "/page.php")[0])
        self.assertEqual(1, len(self.records()))
        self.wait_until(lambda: not self.records(), 10, "the expired page stayed on disk")
        self.assertLogged("Cache cleaner is cleaning expired cache entries")
        self.assertEqual(1, len(self.cleaners()))

    def test_sigterm_ends_the_cleaner_and_its_pid_file_stays(self):
        self.start("php -S")
        path = self.workspace.path("run", "pagecache_cleaner.pid")
        self.wait_until(lambda: os.path.exists(path), 10, "no pid file")
        with open(path) as f:
            pid = int(f.read())
        self.assertEqual([pid], self.cleaners())
        # SIGTERM during a sleep ends the cleaner at once.
        os.kill(pid, signal.SIGTERM)
        self.wait_until(lambda: not self.cleaners(), 5, "the cleaner didn't end")
        self.assertTrue(os.path.exists(path))
        self.assertLogged("Cache Cleaner exiting...")

    def test_frequency_zero_cleans_without_pause(self):
        self.start("php -S", vesk_pagecache__clean_frequency="0", vesk_pagecache__log_verbosity_level="5")
        self.wait_until(lambda: self.workspace.log().count("finished cleaning expired cache entries") >= 20, 5,
                        "the cleaner paused")

    def check_one_cleaner_alone(self, port):
        self.wait_until(self.cleaners, 10, "no cleaner started")
        # Workers and children serve without starting cleaners of their own.
        for _ in range(6):
            self.assertEqual(200, harness.http_get(port, "/page.php")[0])
        found = self.cleaners()
        self.assertEqual(1, len(found), found)
        files = harness.open_files(found[0])
        self.assertEqual({0: "/dev/null", 1: "/dev/null", 2: "/dev/null"}, {fd: files[fd] for fd in (0, 1, 2)})
        others = {fd: path for fd, path in files.items() if fd > 2}
        self.assertEqual([self.workspace.path("log", "pagecache.log")], list(others.values()), others)
        return found[0]

    def test_the_cleaner_ends_with_its_master(self):
        for kind in ("php -S", "php-fpm", "php-fpm daemonized", "apache"):
            for sig in (signal.SIGTERM, signal.SIGKILL):
                with self.subTest(kind=kind, signal=sig):
                    self.use_site(RULES)
                    server, master = self.start(kind)
                    cleaner = self.check_one_cleaner_alone(server.port)
                    os.kill(master, sig)
                    if kind == "php-fpm" and sig == signal.SIGTERM:
                        # As a service manager stops it: the master waited for its
                        # cleaner, so not even an unreaped process is left.
                        server.fpm.wait(timeout=15)
                        self.assertFalse(os.path.exists("/proc/%d" % cleaner))
                    self.wait_until(lambda: not self.cleaners(), 15, "the cleaner outlived its master")
                    server.stop()

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
        self.assertLogged("Starting Cache Cleaner at pid")
        self.wait_until(lambda: not self.cleaners(), 15, "a cleaner outlived the failed run")
        return output

    def test_fatal_error_at_start_up_ends_the_cleaner(self):
        # A directive that PHP refuses fails its start-up after ours, and
        # PHP exits without shutting the modules down: for a script and for
        # the built-in server alike.
        for arguments in (["-r", "echo 'never';"], ["-S", "127.0.0.1:%d" % harness.free_port(), "-t", self.site]):
            output = self.run_failing(arguments, safe_mode="1")
            self.assertIn(b"no longer available", output)
            self.assertNotIn(b"never", output)

    def test_memory_limit_ends_the_cleaner(self):
        # Once the cleaner runs, the script goes over the memory limit.
        script = ("for ($i = 0; $i < 200 && strpos((string)@file_get_contents($argv[1]), 'Starting Cache Cleaner')"
                  " === false; $i++) usleep(50000); str_repeat('x', 64 << 20);")
        output = self.run_failing(["-r", script, "--", self.workspace.path("log", "pagecache.log")],
                                  memory_limit="8M")
        self.assertIn(b"Allowed memory size", output)
