"""The cache in a poor environment: a store on a full filesystem, and a
statistics daemon that takes connections and never reads them. Pages go
out exactly as without the cache, and requests aren't held up."""
import os
import socket
import subprocess
import time

import harness

RULES = harness.rules_file(harness.url_rule("page\\.php"))

# Runs the server in a mount namespace of its own with a small filesystem
# over the store's directory, filled to the last block before PHP starts.
FULL_STORE = """mount -t tmpfs -o size=128k tmpfs "$0" || exit 97
dd if=/dev/zero of="$0/filler" bs=4096 2>/dev/null
exec "$@"
"""


def unshare_prefix():
    prefix = ["unshare", "--mount"]
    if os.geteuid() != 0:
        prefix.append("--map-root-user")
    return prefix


class Degraded(harness.Case):
    def setUp(self):
        self.use_site(RULES)

    def test_full_filesystem_serves_pages_whole_and_stores_nothing(self):
        probe = subprocess.run(unshare_prefix() + ["sh", "-c", "mount -t tmpfs tmpfs /mnt"], capture_output=True)
        if probe.returncode != 0:
            self.skipTest("this machine allows no private mount namespace: %s" % probe.stderr.decode().strip())
        store = self.workspace.path("tmp")
        server = self.serve(wrapper=unshare_prefix() + ["sh", "-c", FULL_STORE, store])
        for size in (500, 5000, 100000):
            for _ in range(2):
                status, _, body = server.get("/page.php?size=%d" % size)
                self.assertEqual(200, status)
                self.assertEqual(size, len(body))
                self.assertTrue(body.startswith(b"<p>page ") and body.rstrip(b".").endswith(b"</p>"))
        # Every request ran: nothing could be stored, nothing was served stale.
        self.assertEqual(6, self.runs())
        self.assertLogged("Storing entry failed")
        # The store as the server sees it, in its own mount namespace.
        inside = "/proc/%d/root%s" % (server.process.pid, store)
        self.assertTrue(os.path.exists(os.path.join(inside, "filler")))
        records = [name for _, _, names in os.walk(inside) for name in names if name != "filler"]
        self.assertEqual([], records)

    def test_statistics_daemon_that_never_reads(self):
        path = self.workspace.path("run", "statsd.sock")
        silent = socket.socket(socket.AF_UNIX)
        silent.bind(path)
        silent.listen(1)
        self.addCleanup(silent.close)
        accepted = []
        server = self.serve(directives=self.directives(vesk__statsd_connection_string="unix:" + path))
        started = time.monotonic()
        for i in range(200):
            self.assertEqual(200, server.get("/page.php?n=%d" % (i % 20))[0])
            if i == 0:
                accepted.append(silent.accept()[0])
        self.addCleanup(lambda: [c.close() for c in accepted])
        # A bound against hanging: 200 requests, each one of which would take
        # far longer if it waited for the daemon.
        self.assertLess(time.monotonic() - started, 60)
        self.assertEqual(20, self.runs())
