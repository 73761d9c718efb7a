"""Root starts the server, the cleaner and the tool for the workers' user www-data: nothing
www-data can write (a link, the watch page) leads root anywhere, and what root leaves stays theirs."""
import os
import pwd
import signal
import subprocess
import unittest

import harness

WWW = pwd.getpwnam("www-data")
RULES = harness.rules_file(harness.url_rule("page\\.php"))

# Run by a worker: names the process `victim` (pid and start time) as the
# cleaner in the watch page, the one shared page whose first word names the
# master, written through the worker's own memory.
WATCH_WRITER = r"""<?php
$master = posix_getppid();
foreach (file('/proc/self/maps') as $line) {
    if (!preg_match('/^([0-9a-f]+)-([0-9a-f]+) rw-s .*\/dev\/zero/', $line, $m)
        || hexdec($m[2]) - hexdec($m[1]) != 4096) continue;
    $page = FFI::cast('uint64_t*', hexdec($m[1]));
    if (($page[0] & 0x3fffff) != $master) continue;
    $page[1] = ((int)$_GET['start'] << 22) | (int)$_GET['pid'];
    echo 'written';
}
"""


def workers_only(pid):
    """Whether /proc/PID/status shows the workers' ids alone and no permitted capability."""
    with open("/proc/%d/status" % pid) as f:
        fields = dict(line.split(":", 1) for line in f.read().splitlines())
    ids = ["%d" % WWW.pw_uid] * 4, ["%d" % WWW.pw_gid] * 4, ["%d" % WWW.pw_gid], ["0" * 16]
    return ids == tuple(fields[name].split() for name in ("Uid", "Gid", "Groups", "CapPrm")) or fields


@unittest.skipUnless(os.geteuid() == 0, "needs root, as a system's php-fpm starts")
class LocalSecurity(harness.Case):
    def setUp(self):
        self.use_site(RULES)
        # Only root may enter here: where a link points root.
        self.secret = self.workspace.path("secret")
        os.makedirs(os.path.join(self.secret, "pub"))
        os.chmod(self.secret, 0o700)
        self.directives_www = self.directives(vesk__httpd_uid=str(WWW.pw_uid), vesk__httpd_gid=str(WWW.pw_gid))

    def serve_as_www(self, **extra):
        return self.serve("php-fpm", dict(self.directives_www, **extra), user="www-data")

    def tool(self, *args, **options):
        return harness.run_tool(self.workspace, self.directives_www, *args, **options)

    def test_cleaner_and_tool_keep_nothing_of_root_and_others_read_no_page_nor_log(self):
        server = self.serve_as_www()
        self.assertEqual(200, harness.http_get(server.port, "/page.php")[0])
        read = subprocess.run(["cat", self.workspace.path("log", "pagecache.log")] + self.records(),
                              capture_output=True, user="nobody", group="nogroup", timeout=60)
        self.assertEqual((b"", 2), (read.stdout, len(read.stderr.splitlines())))
        self.assertIs(True, workers_only(harness.processes(name="vesk-cleaner", parent=server.master)[0]))
        stats = self.tool("stats", "--exit-after", "30", "--listen", "unix:" + self.workspace.path("run", "s.sock"),
                          run=subprocess.Popen, stderr=subprocess.PIPE, start_new_session=True)
        self.addCleanup(stats.stderr.close)
        self.addCleanup(lambda: stats.poll() is None and harness._terminate(stats))
        self.assertTrue(stats.stderr.readline().startswith("listening on"))
        self.assertIs(True, workers_only(stats.pid))

    def test_a_worker_writing_the_watch_page_has_the_master_signal_nothing_else(self):
        victim = subprocess.Popen(["sleep", "300"], start_new_session=True)
        self.addCleanup(lambda: victim.poll() is None and harness._terminate(victim))
        with open("/proc/%d/stat" % victim.pid) as f:
            start = f.read().rsplit(")", 1)[1].split()[19]
        with open(os.path.join(self.site, "watch.php"), "w") as f:
            f.write(WATCH_WRITER)
        server = self.serve_as_www(**{"ffi.enable": "1"})
        self.assertEqual(b"written", harness.http_get(server.port, "/watch.php?pid=%d&start=%s" % (victim.pid, start))[2])
        os.kill(server.master, signal.SIGTERM)
        server.fpm.wait(timeout=30)
        self.assertIsNone(victim.poll(), "the master signalled the process a worker named")

    def test_links_planted_by_the_workers_lead_root_nowhere(self):
        os.symlink(os.path.join(self.secret, "made.log"), self.workspace.path("log", "pagecache.log"))
        os.symlink(self.secret, self.workspace.path("tmp", "pagecache"))
        os.symlink(os.path.join(self.secret, "pub"), self.workspace.path("tmp", "pub"))
        self.directives_www.update({"vesk_pagecache.log_verbosity_level": "5", "vesk_pagecache.clean_frequency": "1",
                                    "vesk_pagecache.publish_dir": self.workspace.path("tmp", "pub")})
        php = harness.php_command(dict(self.directives_www, **{"vesk_pagecache.enable_cli": "1"}))
        self.assertEqual(0, subprocess.run(php + ["-r", "echo 1;"], env=harness.php_environment("cli", True),
                                           capture_output=True, timeout=60).returncode)
        server = self.serve_as_www()
        harness.http_get(server.port, "/page.php")
        for command in (["remove", "all"], ["status"]):
            self.tool(*command, capture_output=True, timeout=60)
        server.stop()
        self.assertEqual(["pub"], os.listdir(self.secret))
        self.assertEqual([], os.listdir(os.path.join(self.secret, "pub")))

    def test_a_log_rotated_by_the_master_at_a_restart_stays_the_workers_and_takes_no_control_byte(self):
        self.directives_www.update({"vesk_pagecache.log_verbosity_level": "5", "vesk_pagecache.log_rotation_size": "1"})
        for restart in range(2):
            server = self.serve_as_www()
            bodies = [harness.http_get(server.port, "/page.php", {"If-Modified-Since": "\x1b[2J\x07x"})[2]
                      for _ in range(2)]
            self.assertNotIn("\x1b", self.workspace.log())
            self.assertLogged("If-Modified-Since header received: \\x1b[2J\\x07x ")
            # The master's own line at its end (root's) is the one that passes the size.
            os.truncate(self.workspace.path("log", "pagecache.log"), 1024 * 1024 - 60)
            os.kill(server.master, signal.SIGTERM)
            server.fpm.wait(timeout=30)
            logs = [entry.stat().st_uid for entry in os.scandir(self.workspace.path("log"))]
            self.assertEqual({WWW.pw_uid}, set(logs))
        self.assertEqual(bodies[0], bodies[1], "the second start stored nothing")
