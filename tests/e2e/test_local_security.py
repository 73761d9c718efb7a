"""Root starts the servers, the cleaner and the tool for the workers' user
www-data; nothing www-data can write (a link, the watch page) leads root
anywhere, and what root leaves behind stays the workers'."""
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
$stat = file_get_contents('/proc/self/stat');
$master = (int)explode(' ', substr($stat, strrpos($stat, ')') + 2))[1];
foreach (file('/proc/self/maps') as $line) {
    if (!preg_match('/^([0-9a-f]+)-([0-9a-f]+) rw-s .*\/dev\/zero/', $line, $m)
        || hexdec($m[2]) - hexdec($m[1]) != 4096) continue;
    $page = FFI::cast('uint64_t*', hexdec($m[1]));
    if (($page[0] & 0x3fffff) != $master) continue;
    $page[1] = ((int)$_GET['start'] << 22) | (int)$_GET['pid'];
    echo 'written';
}
"""


def status_ids(pid):
    """The Uid, Gid and Groups lines of /proc/PID/status, and CapPrm."""
    with open("/proc/%d/status" % pid) as f:
        fields = dict(line.split(":", 1) for line in f.read().splitlines())
    return {name: fields[name].split() for name in ("Uid", "Gid", "Groups", "CapPrm")}


@unittest.skipUnless(os.geteuid() == 0, "needs root, as a system's php-fpm starts")
class LocalSecurity(harness.Case):
    def setUp(self):
        self.use_site(RULES)
        # A directory only root may enter: what a link points root at.
        self.secret = self.workspace.path("secret")
        os.makedirs(os.path.join(self.secret, "pub"))
        os.chmod(self.secret, 0o700)
        with open(os.path.join(self.secret, "root-only"), "w") as f:
            f.write("root's\n")

    def workers_directives(self, **extra):
        return self.directives(vesk__httpd_uid=str(WWW.pw_uid), vesk__httpd_gid=str(WWW.pw_gid), **extra)

    def serve_as_www(self, **extra):
        return self.serve("php-fpm", self.workers_directives(**extra), user="www-data")

    def tool(self, *args, directives=None, wait=True):
        ini = self.workspace.path("tool.ini")
        with open(ini, "w") as f:
            f.write("".join('%s = "%s"\n' % item for item in (directives or self.workers_directives()).items()))
        command = [harness.TOOL, "--ini", ini] + list(args)
        if wait:
            return subprocess.run(command, capture_output=True, text=True, timeout=60, env=dict(os.environ, PHP_INI_SCAN_DIR=""))
        return subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                                start_new_session=True, env=dict(os.environ, PHP_INI_SCAN_DIR=""))

    def assertWorkersOnly(self, pid):
        ids = status_ids(pid)
        self.assertEqual([str(WWW.pw_uid)] * 4, ids["Uid"])
        self.assertEqual([str(WWW.pw_gid)] * 4, ids["Gid"])
        self.assertEqual([str(WWW.pw_gid)], ids["Groups"])
        self.assertEqual(0, int(ids["CapPrm"][0], 16))

    def test_cleaner_and_tool_keep_nothing_of_root(self):
        server = self.serve_as_www()
        self.assertEqual(200, harness.http_get(server.port, "/page.php")[0])
        cleaners = harness.processes(name="vesk-cleaner", parent=server.master)
        self.assertEqual(1, len(cleaners))
        self.assertWorkersOnly(cleaners[0])
        stats = self.tool("stats", "--exit-after", "30", "--listen", "unix:" + self.workspace.path("run", "stats.sock"),
                          wait=False)
        self.addCleanup(stats.stderr.close)
        self.addCleanup(lambda: stats.poll() is None and harness._terminate(stats))
        self.assertTrue(stats.stderr.readline().startswith("listening on"))
        self.assertWorkersOnly(stats.pid)

    def test_a_worker_writing_the_watch_page_has_the_master_signal_nothing_else(self):
        victim = subprocess.Popen(["sleep", "300"], start_new_session=True)
        self.addCleanup(lambda: victim.poll() is None and harness._terminate(victim))
        with open("/proc/%d/stat" % victim.pid) as f:
            start = f.read().rsplit(")", 1)[1].split()[19]
        with open(os.path.join(self.site, "watch.php"), "w") as f:
            f.write(WATCH_WRITER)
        server = self.serve_as_www(ffi__enable="1")
        status, _, body = harness.http_get(server.port, "/watch.php?pid=%d&start=%s" % (victim.pid, start))
        self.assertEqual((200, b"written"), (status, body))
        os.kill(server.master, signal.SIGTERM)
        server.fpm.wait(timeout=30)
        self.assertIsNone(victim.poll(), "the master signalled the process a worker named")

    def test_links_planted_by_the_workers_lead_root_nowhere(self):
        before = sorted(os.listdir(self.secret)), sorted(os.listdir(os.path.join(self.secret, "pub")))
        os.symlink(os.path.join(self.secret, "created.log"), self.workspace.path("log", "pagecache.log"))
        os.symlink(self.secret, self.workspace.path("tmp", "pagecache"))
        directives = self.workers_directives(vesk_pagecache__log_verbosity_level="5",
                                             vesk_pagecache__publish_dir=self.workspace.path("tmp", "pub"))
        os.symlink(os.path.join(self.secret, "pub"), directives["vesk_pagecache.publish_dir"])
        run = subprocess.run(harness.php_command(dict(directives, **{"vesk_pagecache.enable_cli": "1"}))
                             + ["-r", "echo 1;"], capture_output=True, timeout=60,
                             env=harness.php_environment("cli", True))
        self.assertEqual(0, run.returncode, run.stderr)
        server = self.serve("php-fpm", dict(directives, **{"vesk_pagecache.clean_frequency": "1"}), user="www-data")
        harness.http_get(server.port, "/page.php")
        self.tool("remove", "all", directives=directives)
        self.tool("status", directives=directives)
        server.stop()
        self.assertEqual(before, (sorted(os.listdir(self.secret)), sorted(os.listdir(os.path.join(self.secret, "pub")))))
        with open(os.path.join(self.secret, "root-only")) as f:
            self.assertEqual("root's\n", f.read())

    def test_a_log_rotated_by_the_master_at_a_restart_stays_the_workers_and_takes_no_control_byte(self):
        log = self.workspace.path("log", "pagecache.log")
        directives = self.workers_directives(vesk_pagecache__log_verbosity_level="5",
                                             vesk_pagecache__log_rotation_size="1")
        for restart in range(2):
            server = self.serve("php-fpm", directives, user="www-data")
            bodies = [harness.http_get(server.port, "/page.php", {"If-Modified-Since": "\x1b[2J\x07x"})[2]
                      for _ in range(2)]
            self.assertNotIn("\x1b", self.workspace.log())
            self.assertLogged("If-Modified-Since header received: \\x1b[2J\\x07x ")
            # The master's own line at its end (root's) is the one that passes the size.
            os.truncate(log, 1024 * 1024 - 60)
            os.kill(server.master, signal.SIGTERM)
            server.fpm.wait(timeout=30)
            logs = [os.path.join(self.workspace.path("log"), name) for name in os.listdir(self.workspace.path("log"))]
            self.assertEqual({WWW.pw_uid}, {os.stat(name).st_uid for name in logs}, logs)
        self.assertEqual(bodies[0], bodies[1], "the second start stored nothing")
