"""Many clients asking at once for a page that isn't stored: one php-fpm
worker builds it under the page's lock in the store, and the others wait
for it, at most vesk_pagecache.lock_timeout milliseconds, then serve it as
a hit. A page that isn't stored, or a builder that dies, lets the others
go on at once. A page expired within its rule's grace is served as it is
while the one worker holding its lock rebuilds it."""
import glob
import os
import re
import signal
import threading
import time
import zlib

import harness

LIFETIME = 2
RULES = harness.rules_file(harness.url_rule("slow\\.php", lifetime=str(LIFETIME)),
                           '<response_rule app_id="-1" response_codes="200"/>')
# Long enough that a page rebuilt during a burst is still fresh when the
# test looks again, even under the sanitizers. A page with grace is fresh
# through the last second of its lifetime, so it is stale a second after.
GRACED_LIFETIME = 4
GRACED = harness.rules_file(harness.url_rule("slow\\.php", lifetime=str(GRACED_LIFETIME), grace="30"),
                            '<response_rule app_id="-1" response_codes="200"/>')
# Slow to build; says how long it waited before it ran, which the engine
# counts from the moment it took the request.
SLOW = """<?php
require __DIR__ . '/_record.php';
header(sprintf('X-Waited: %.3f', microtime(true) - $_SERVER['REQUEST_TIME_FLOAT']));
usleep((int)($_GET['ms'] ?? 500) * 1000);
http_response_code((int)($_GET['code'] ?? 200));
if (isset($_GET['fatal'])) {
    no_such_function();
}
echo str_pad('<p>slow ' . microtime(true) . '</p>', 3000, '.');
"""
CLIENTS = 16
WORKERS = 4
LIMIT_MS = 2000


def whole(body):
    return len(body) == 3000 and body.startswith(b"<p>slow ") and body.endswith(b".")


class Stampede(harness.Case):
    def start(self, rules=RULES, **directives):
        self.use_site(rules)
        harness.write(os.path.join(self.site, "slow.php"), SLOW)
        # The statistics tell of the stale hits and of the waits.
        socket = "unix:" + self.workspace.path("run", "statsd.sock")
        self.listener = harness.StatsListener(socket)
        self.addCleanup(self.listener.stop)
        return self.serve("php-fpm", self.directives(vesk_pagecache__enable_qa_info="1",
                                                     vesk__statsd_connection_string=socket, **directives),
                          workers=WORKERS)

    def counted(self, counter_type):
        lines = self.listener.take(1000, seconds=1)
        return sum(1 for line in lines if re.search(r"CounterType: %d\b" % counter_type, line))

    def burst(self, port, path, during=None):
        """CLIENTS requests for `path` at once: each one's status, headers and
        body (None when the connection failed), and its time in seconds."""
        results = [None] * CLIENTS
        gate = threading.Barrier(CLIENTS)

        def client(i):
            gate.wait()
            began = time.monotonic()
            try:
                answer = harness.http_get(port, path)
            except OSError:
                answer = None
            results[i] = (answer, time.monotonic() - began)

        threads = [threading.Thread(target=client, args=(i,)) for i in range(CLIENTS)]
        for thread in threads:
            thread.start()
        if during:
            during()
        for thread in threads:
            thread.join(30)
        self.assertTrue(all(result for result in results), "a client hung")
        return results

    def locks(self):
        store = self.workspace.path("tmp", "pagecache", "HTML-Cache")
        return glob.glob(os.path.join(store, "**", ".lock-*"), recursive=True)

    def assertNoneWaitedTheLimit(self, results):
        # Every request gives up its lock when it ends, stored or not.
        self.wait_until(lambda: not self.locks(), 1, "a lock outlived its request")
        for answer, _ in results:
            if answer:
                self.assertNotIn("lock timeout", answer[1].get("x-pagecache", ""))
                # Whoever ran the script waited for no more than another's run.
                self.assertLess(float(answer[1].get("x-waited", "0")), LIMIT_MS / 1000 * 0.75, answer[1])

    def assertOnePageForAll(self, results):
        bodies = set()
        for (status, headers, body), _ in results:
            self.assertEqual(200, status)
            self.assertTrue(whole(body), body[:60])
            bodies.add(body)
        self.assertEqual(1, len(bodies))
        self.assertNoneWaitedTheLimit(results)

    def test_a_missing_or_expired_page_is_built_once_and_every_client_gets_it(self):
        port = self.start().port
        self.assertOnePageForAll(self.burst(port, "/slow.php"))
        self.assertEqual(1, self.runs("slow.php"))
        # The workers but the builder waited; the clients queued behind them came to a stored page.
        self.assertIn(self.counted(5), range(1, WORKERS), "the waiting clients were not counted")
        time.sleep(LIFETIME + 0.5)
        self.assertOnePageForAll(self.burst(port, "/slow.php"))
        self.assertEqual(2, self.runs("slow.php"))

    def test_an_expired_page_in_its_grace_is_served_at_once_while_one_worker_rebuilds_it(self):
        port = self.start(GRACED).port
        # A build long enough that a client who waited for it stands out
        # from one served at once, even under the sanitizers.
        status, _, first = harness.http_get(port, "/slow.php?ms=1500")
        self.assertEqual(200, status)
        time.sleep(GRACED_LIFETIME + 1.1)
        results = self.burst(port, "/slow.php?ms=1500")
        # Every client, the rebuilder's own among them, gets the stale page
        # at once: php-fpm ends the rebuilder's response before the build.
        for (status, headers, body), seconds in results:
            self.assertEqual((200, "stale", first), (status, headers.get("x-pagecache"), body))
            self.assertLess(seconds, 1.0)
        self.wait_until(lambda: self.runs("slow.php") == 2 and not self.locks(), 5, "the page was not rebuilt")
        # The rebuilder tells of its stale hit once its build is over.
        self.assertEqual(CLIENTS, self.counted(4), "not every stale hit was counted")
        status, headers, body = harness.http_get(port, "/slow.php?ms=1500")
        self.assertEqual((200, "hit"), (status, headers.get("x-pagecache")))
        # The page built after its client left, whole, with its own lines.
        self.assertTrue(whole(body) and body != first, body[:60])
        self.assertIn("x-waited", headers)
        self.assertEqual(2, self.runs("slow.php"))

    def test_a_stale_page_answers_conditional_and_gzip_requests_while_rebuilt(self):
        port = self.start(GRACED).port
        _, headers, first = harness.http_get(port, "/slow.php?ms=1500")
        time.sleep(GRACED_LIFETIME + 1.1)
        builder = threading.Thread(target=harness.http_get, args=(port, "/slow.php?ms=1500"))
        builder.start()
        self.wait_until(lambda: self.runs("slow.php") == 2, 1, "the stale page was not rebuilt")
        conditional = {"If-Modified-Since": headers["last-modified"]}
        status, answer, _ = harness.http_get(port, "/slow.php?ms=1500", conditional)
        self.assertEqual((304, "stale"), (status, answer.get("x-pagecache")))
        status, answer, body = harness.http_get(port, "/slow.php?ms=1500", {"Accept-Encoding": "gzip"})
        self.assertEqual((200, "stale", "1"),
                         (status, answer.get("x-pagecache"), answer.get("x-pagecache-compression")))
        self.assertEqual(first, zlib.decompress(body, 16 + zlib.MAX_WBITS))
        builder.join(10)
        self.assertEqual(2, self.runs("slow.php"))

    def test_a_page_stored_with_grace_is_stale_past_its_lifetime_after_the_grace_is_lowered(self):
        port = self.start(GRACED.replace('lifetime="%d"' % GRACED_LIFETIME, 'lifetime="2"')).port
        self.assertEqual("miss", harness.http_get(port, "/slow.php?ms=0")[1].get("x-pagecache"))
        self.workspace.change_rules(RULES)
        time.sleep(2 + 1.1)
        self.assertEqual("stale", harness.http_get(port, "/slow.php?ms=0")[1].get("x-pagecache"))

    def test_without_the_lock_several_workers_build_it(self):
        port = self.start(vesk_pagecache__lock_timeout="0").port
        results = self.burst(port, "/slow.php")
        self.assertTrue(all(answer[0] == 200 and whole(answer[2]) for answer, _ in results))
        self.assertGreater(self.runs("slow.php"), 1)

    def test_a_refused_page_or_a_fatal_error_holds_no_client(self):
        port = self.start().port
        for path, reason in (("/slow.php?code=500", "status rule"), ("/slow.php?fatal=1", "fatal error")):
            with self.subTest(path=path):
                results = self.burst(port, path)
                for (status, headers, body), _ in results:
                    self.assertEqual(500, status)
                    self.assertEqual("pass (%s)" % reason, headers.get("x-pagecache"))
                self.assertNoneWaitedTheLimit(results)

    def test_a_killed_builder_holds_no_client(self):
        # A limit no build reaches, even under the sanitizers: every client
        # must get the page of the worker that took over from the dead one.
        server = self.start(vesk_pagecache__lock_timeout="10000")
        killed = []

        def kill_the_builder():
            deadline = time.monotonic() + 5
            while not killed and time.monotonic() < deadline:
                # Once it runs the script, sleeping in it.
                if not self.runs("slow.php"):
                    time.sleep(0.01)
                    continue
                for path in self.locks():
                    try:
                        with open(path) as f:
                            pid = int(f.read().split()[0])
                    except (OSError, ValueError, IndexError):
                        continue
                    if pid in server.worker_pids():
                        os.kill(pid, signal.SIGKILL)
                        killed.append(pid)
                        return
                time.sleep(0.01)

        results = self.burst(server.port, "/slow.php?ms=800", during=kill_the_builder)
        self.assertEqual(1, len(killed), "no builder was seen")
        answered = [answer for answer, _ in results if answer and answer[0] != 502]
        self.assertEqual(CLIENTS - 1, len(answered))
        self.assertTrue(all(status == 200 and whole(body) for status, _, body in answered))
        self.assertEqual(1, len({body for _, _, body in answered}))
        # The killed run and the one that took over from it.
        self.assertEqual(2, self.runs("slow.php"))
        self.assertNoneWaitedTheLimit(results)
