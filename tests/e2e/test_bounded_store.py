"""A store with vesk_pagecache.max_store_size under a flood of distinct URLs:
each cleaning brings it back under the bound, the pages that expire soonest
(here the oldest) go first, and readers meanwhile get whole pages only."""
import gzip
import os
import random
import re
import threading
import time

import harness

RULES = harness.rules_file(harness.url_rule("page\\.php.*"))

BOUND_MIB = 1
SIZE = 3000         # more than 1024 bytes: each page has a gzip copy too
ROUNDS = 3
PAGES_PER_ROUND = 300
EVICTED = re.compile(r"Cache cleaner removed (\d+) pages to keep the store under (\d+) bytes: (\d+) before, (\d+) after")


def url(n):
    return "/page.php?size=%d&n=%d" % (SIZE, n)


def whole(body):
    return len(body) == SIZE and body.startswith(b"<p>page ") and body.endswith(b".")


class BoundedStore(harness.Case):
    def setUp(self):
        self.use_site(RULES)
        directives = self.directives(vesk_pagecache__clean_frequency="1",
                                     vesk_pagecache__max_store_size=str(BOUND_MIB),
                                     vesk_pagecache__log_verbosity_level="3")
        self.server = self.serve(directives=directives, workers=2)

    def store_size(self):
        """What the page files take on disk, counted as the store counts it."""
        total = 0
        for record in self.records():
            try:
                st = os.lstat(record)
            except FileNotFoundError:
                continue
            total += max(st.st_size, st.st_blocks * 512)
        return total

    def wait_until_under(self, bound, cleanings):
        """Until the store is under `bound` and the cleaner has logged
        `cleanings` cleanings that removed pages."""
        self.wait_until(lambda: self.store_size() <= bound and len(EVICTED.findall(self.workspace.log())) >= cleanings,
                        30, "the store stayed over its bound")

    def test_flood_of_distinct_urls(self):
        bound = BOUND_MIB << 20
        written = []
        problems = []
        stop = threading.Event()
        reading = threading.Event()
        lock = threading.Condition()
        busy = [0]

        def read(seed):
            # Pages of this round and the one before, the ones the cleaner
            # is removing among them; a page read after its removal is
            # stored again. Paused while the test waits for the bound.
            rng = random.Random(seed)
            while not stop.is_set():
                with lock:
                    go = reading.is_set() and bool(written)
                    busy[0] += go
                if not go:
                    time.sleep(0.05)
                    continue
                compressed = rng.random() < 0.5
                headers = {"Accept-Encoding": "gzip"} if compressed else {}
                n = rng.choice(written[-2 * PAGES_PER_ROUND:])
                try:
                    status, answer, body = harness.http_get(self.server.port, url(n), headers)
                except Exception as error:
                    problems.append(("request", repr(error)))
                    continue
                finally:
                    with lock:
                        busy[0] -= 1
                        lock.notify_all()
                if answer.get("content-encoding") == "gzip":
                    try:
                        body = gzip.decompress(body)
                    except (OSError, EOFError) as error:
                        problems.append((status, "gzip", repr(error)))
                        continue
                if status != 200 or not whole(body):
                    problems.append((status, len(body), body[:40]))

        readers = [threading.Thread(target=read, args=(i,)) for i in range(2)]
        for reader in readers:
            reader.start()
        try:
            page_bytes = None
            for round_ in range(ROUNDS):
                # Each round starts under the bound and adds at most the pages
                # it stores.
                before, runs = self.store_size(), self.runs()
                self.assertLessEqual(before, bound)
                reading.set()
                for i in range(PAGES_PER_ROUND):
                    n = round_ * PAGES_PER_ROUND + i
                    status, _, body = harness.http_get(self.server.port, url(n))
                    self.assertEqual(200, status)
                    self.assertTrue(whole(body))
                    written.append(n)
                    if page_bytes is None:
                        page_bytes = self.store_size()
                with lock:
                    reading.clear()
                    self.assertTrue(lock.wait_for(lambda: busy[0] == 0, timeout=30))
                self.assertLessEqual(self.store_size(), before + (self.runs() - runs) * page_bytes)
                self.wait_until_under(bound, round_ + 1)
        finally:
            stop.set()
            for reader in readers:
                reader.join(timeout=60)
        self.assertEqual([], problems[:5])
        # Each round wrote more than the bound holds, and every cleaning that
        # removed pages left the store under its bound.
        self.assertGreater(PAGES_PER_ROUND * page_bytes, bound)
        cleanings = EVICTED.findall(self.workspace.log())
        self.assertGreaterEqual(len(cleanings), ROUNDS)
        for pages, limit, before, after in cleanings:
            self.assertEqual(bound, int(limit))
            self.assertGreater(int(before), bound)
            self.assertLessEqual(int(after), bound)

        # All pages live as long: the oldest went, the newest are still served.
        runs = self.runs()
        for n in written[-20:]:
            self.assertTrue(whole(harness.http_get(self.server.port, url(n))[2]))
        self.assertEqual(runs, self.runs(), "a page of the last round was removed")
        for n in written[:20]:
            self.assertTrue(whole(harness.http_get(self.server.port, url(n))[2]))
        self.assertEqual(runs + 20, self.runs(), "a page of the first round was kept")
