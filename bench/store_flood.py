#!/usr/bin/env python3
"""A flood of distinct URLs against a bounded page store: `php -S` with two
workers, one rule split by the request URI, vesk_pagecache.max_store_size set.
Prints the store's size over time (as the cleaner counts it: page files'
blocks), the largest size seen, and the size after the flood's last cleaning.

    bench/store_flood.py [--urls 100000] [--bound-mib 50] [--frequency 5]
                         [--size 2000] [--clients 4] [--sample 5]

Needs the built extension (build/vesk_pagecache.so, or VESK_EXTENSION). Not
part of the test run.
"""
import argparse
import os
import re
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import harness  # noqa: E402

RULES = """<?xml version="1.0" encoding="UTF-8"?>
<cache_settings><dont_cache/><cache>
  <url schema="http" host="&amp;lt;default-server&amp;gt;" path="page\\.php.*" lifetime="3600" match_type="regex_match">
    <name>Pages</name>
    <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by>
  </url>
</cache></cache_settings>
"""
PAGE = "<?php echo str_pad('<p>page ' . microtime(true) . '</p>', (int)$_GET['size'], '.');\n"
EVICTED = re.compile(r"(\d\d):(\d\d):(\d\d\.\d+) [^]]*\] Cache cleaner removed (\d+) pages to keep the store under \d+ bytes: "
                     r"(\d+) before, (\d+) after")


def store_size(root):
    total = files = 0
    for directory, _, names in os.walk(root):
        for name in names:
            if name.startswith("."):
                continue
            try:
                st = os.lstat(os.path.join(directory, name))
            except FileNotFoundError:
                continue
            total += max(st.st_size, st.st_blocks * 512)
            files += 1
    return total, files


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--urls", type=int, default=100000)
    parser.add_argument("--bound-mib", type=int, default=50)
    parser.add_argument("--frequency", type=int, default=5)
    parser.add_argument("--size", type=int, default=2000)
    parser.add_argument("--clients", type=int, default=4)
    # Walking the tree is no cheaper than a cleaning: sample it seldom.
    parser.add_argument("--sample", type=float, default=5)
    args = parser.parse_args()
    bound = args.bound_mib << 20

    workspace = harness.Workspace()
    workspace.use_rules(RULES)
    site = workspace.path("site")
    os.makedirs(site)
    with open(os.path.join(site, "page.php"), "w") as f:
        f.write(PAGE)
    directives = workspace.directives(vesk_pagecache__clean_frequency=str(args.frequency),
                                      vesk_pagecache__max_store_size=str(args.bound_mib),
                                      vesk_pagecache__log_verbosity_level="3",
                                      # every eviction line stays in one file
                                      vesk_pagecache__log_rotation_size="0")
    server = harness.BuiltinServer(workspace, site, directives, workers=2)
    root = workspace.path("tmp", "pagecache", "HTML-Cache")
    samples, failures = [], [0]
    done = threading.Event()
    next_url = iter(range(args.urls))
    lock = threading.Lock()

    def client():
        while True:
            with lock:
                n = next(next_url, None)
            if n is None:
                return
            try:
                status = harness.http_get(server.port, "/page.php?size=%d&n=%d" % (args.size, n))[0]
                failures[0] += status != 200
            except Exception:
                failures[0] += 1

    def sampler():
        while not done.is_set():
            samples.append((time.monotonic() - start,) + store_size(root))
            done.wait(args.sample)

    try:
        start = time.monotonic()
        threads = [threading.Thread(target=client) for _ in range(args.clients)]
        watcher = threading.Thread(target=sampler)
        watcher.start()
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        flood = time.monotonic() - start
        # One whole cleaning after the last write.
        seen = len(EVICTED.findall(workspace.log()))
        deadline = time.monotonic() + 4 * args.frequency + 60
        while len(EVICTED.findall(workspace.log())) < seen + 2 and time.monotonic() < deadline:
            if store_size(root)[0] <= bound and len(EVICTED.findall(workspace.log())) > seen:
                break
            time.sleep(0.5)
        done.set()
        watcher.join()
        final = store_size(root)
    finally:
        server.stop()
        log = workspace.log()
        workspace.remove()

    cleanings = EVICTED.findall(log)
    print("%d URLs of %d bytes in %.1f s (%.0f requests/s), %d failed; bound %d MiB, cleaning every %d s"
          % (args.urls, args.size, flood, args.urls / flood, failures[0], args.bound_mib, args.frequency))
    print("store size over time, sampled every %g s (s, MiB, files):" % args.sample)
    for t, size, files in samples[::max(1, len(samples) // 30)]:
        print("  %6.1f  %7.2f  %7d" % (t, size / 1048576.0, files))
    print("cleanings that removed pages (clock, MiB before, MiB after, pages):")
    for h, m, sec, pages, before, after in cleanings:
        print("  %s:%s:%s  %7.2f  %7.2f  %6s" % (h, m, sec[:4], int(before) / 1048576.0, int(after) / 1048576.0, pages))
    top = max(samples, key=lambda s: s[1])
    print("largest seen: %.2f MiB at %.1f s; after the last cleaning: %.2f MiB in %d files"
          % (top[1] / 1048576.0, top[0], final[0] / 1048576.0, final[1]))
    if cleanings:
        times = [int(h) * 3600 + int(m) * 60 + float(s) for h, m, s, _, _, _ in cleanings]
        gaps = [b - a for a, b in zip(times, times[1:])]
        print("%d cleanings removed pages: %d pages in all; largest before %.2f MiB, largest after %.2f MiB; "
              "%.1f s between them on average"
              % (len(cleanings), sum(int(c[3]) for c in cleanings), max(int(c[4]) for c in cleanings) / 1048576.0,
                 max(int(c[5]) for c in cleanings) / 1048576.0, sum(gaps) / len(gaps) if gaps else 0))
    return 0 if final[0] <= bound else 1


if __name__ == "__main__":
    sys.exit(main())
