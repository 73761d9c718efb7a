"""Workers killed in the middle of their work and stored pages damaged on
disk: no partial or wrong page is ever served, and the cache goes on."""
import os
import random
import signal
import threading
import time

import harness

RULES = harness.rules_file(harness.url_rule("page\\.php"))


def whole(body, size):
    """A page of page.php: exactly `size` bytes of one piece."""
    return len(body) == size and body.startswith(b"<p>page ") and b"</p>" in body[:40]


def cut_short(body, size):
    """A page of page.php that stops early: its own beginning, nothing else."""
    if len(body) >= size:
        return False
    head = b"<p>page "
    if len(body) <= len(head):
        return head.startswith(body)
    end = body.find(b"</p>")
    return body.startswith(head) and (end == -1 or body[end + 4:].strip(b".") == b"")


class Crashes(harness.Case):
    def setUp(self):
        self.use_site(RULES)

    def test_workers_killed_under_load(self):
        server = self.serve("php-fpm")
        sizes = {n: 2000 + n * 37000 for n in range(12)}   # up to about 400 KB
        stop = threading.Event()
        problems, answers = [], {"whole": 0, "failed": 0, "cut": 0}

        def load(seed):
            rng = random.Random(seed)
            while not stop.is_set():
                n = rng.randrange(len(sizes))
                try:
                    status, _, body = harness.http_get(server.port, "/page.php?size=%d" % sizes[n])
                except Exception:
                    answers["failed"] += 1
                    continue
                if status == 200:
                    if whole(body, sizes[n]):
                        answers["whole"] += 1
                    elif cut_short(body, sizes[n]):
                        # The worker died while it sent the page, and nginx
                        # ends such a response as if it were complete.
                        answers["cut"] += 1
                    else:
                        problems.append((n, len(body), body[:60]))
                else:
                    answers["failed"] += 1   # the worker died under this request

        clients = [threading.Thread(target=load, args=(i,)) for i in range(4)]
        for client in clients:
            client.start()
        rng = random.Random(7)
        killed = 0
        deadline = time.monotonic() + 8
        while time.monotonic() < deadline:
            time.sleep(rng.uniform(0.05, 0.25))
            workers = harness.processes(name="php-fpm8.2", parent=server.fpm.pid)
            if workers:
                os.kill(rng.choice(workers), signal.SIGKILL)
                killed += 1
        stop.set()
        for client in clients:
            client.join(timeout=60)

        self.assertEqual([], problems)
        self.assertGreater(killed, 10)
        # Each page cut short is one that nginx saw its worker die under.
        with open(self.workspace.path("nginx-error.log")) as f:
            died_sending = f.read().count("while reading upstream")
        self.assertLessEqual(answers["cut"], died_sending)
        self.assertGreater(answers["whole"], 50)
        # Afterwards every page is served whole, from the store.
        for n, size in sizes.items():
            status, _, body = harness.http_get(server.port, "/page.php?size=%d" % size)
            self.assertEqual(200, status)
            self.assertTrue(whole(body, size))
        runs = self.runs()
        for n, size in sizes.items():
            harness.http_get(server.port, "/page.php?size=%d" % size)
        self.assertEqual(runs, self.runs())

    def test_a_client_that_leaves_during_a_hit_costs_no_worker(self):
        server = self.serve("php-fpm")
        # Larger than any output buffer, so that the stored page goes out
        # while the request is still starting.
        size = 200000
        path = "/page.php?size=%d" % size
        self.assertEqual(200, harness.http_get(server.port, path)[0])
        workers = sorted(harness.processes(name="php-fpm8.2", parent=server.fpm.pid))
        params = {"GATEWAY_INTERFACE": "CGI/1.1", "REQUEST_METHOD": "GET", "REQUEST_URI": path,
                  "QUERY_STRING": path.split("?")[1], "SCRIPT_NAME": "/page.php",
                  "SCRIPT_FILENAME": os.path.join(self.site, "page.php"), "DOCUMENT_ROOT": self.site,
                  "HTTP_HOST": "127.0.0.1:%d" % server.port, "SERVER_PORT": str(server.port),
                  "SERVER_NAME": "127.0.0.1", "SERVER_PROTOCOL": "HTTP/1.1"}
        for _ in range(20):
            harness.fastcgi_send_and_leave(server.socket_path, params)
        time.sleep(1)
        status, _, body = harness.http_get(server.port, path)
        self.assertEqual(200, status)
        self.assertTrue(whole(body, size))
        self.assertEqual(1, self.runs(), "the page was not served from the store")
        with open(self.workspace.path("fpm.log")) as f:
            self.assertNotIn("exited", f.read())
        self.assertEqual(workers, sorted(harness.processes(name="php-fpm8.2", parent=server.fpm.pid)))

    def test_damaged_records_are_misses_and_are_replaced(self):
        server = self.serve()
        rng = random.Random(3)
        for round_ in range(6):
            path = "/page.php?size=3000&r=%d" % round_
            server.get(path)
            before = self.runs()
            self.assertEqual(200, server.get(path)[0])
            self.assertEqual(before, self.runs(), "not served from the store")
            # Damage every copy of the page on disk: flip a bit, or cut it short.
            for record in self.records():
                with open(record, "r+b") as f:
                    data = bytearray(f.read())
                    if round_ % 2:
                        f.truncate(rng.randrange(len(data)))
                    else:
                        at = rng.randrange(len(data))
                        data[at] ^= 1 << rng.randrange(8)
                        f.seek(0)
                        f.write(data)
            status, _, body = server.get(path)
            self.assertEqual(200, status)
            self.assertTrue(whole(body, 3000))
            status, _, again = server.get(path)
            self.assertEqual(200, status)
            self.assertTrue(whole(again, 3000))
            # Caught: the page was built once more, then served from its new record.
            self.assertEqual(1, self.runs() - before)
            for record in self.records():
                os.unlink(record)
