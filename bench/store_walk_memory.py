#!/usr/bin/env python3
"""Peak memory of the processes that walk the whole page store, for a small
and a large store: the worker that carries out a page_cache_purge, the
cleaner over its cleanings and over an eviction down to half the store
(vesk_pagecache.max_store_size), and the tool's `status` and `list`. A walk
reads one record at a time and an eviction gathers a bounded batch, so the
larger store should cost at most a few MB more.

    bench/store_walk_memory.py [--sizes-mib 10,200] [--page-kib 100]

Each size gets a fresh workspace: `php -S` with one worker stores pages of
--page-kib until the store holds the size, then the purge (of a URL no page
has, so that it walks everything and removes nothing) and the tool run.
Then the server starts again with max_store_size at half the store, and the
cleaner's peak is read once the store is within it. Peaks are VmHWM (kB). Needs the built extension and tool (build/, or
VESK_EXTENSION). Not part of the test run.
"""
import argparse
import os
import resource
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import harness  # noqa: E402

RULES = harness.rules_file(harness.url_rule("walk\\.php", lifetime="3600", compress="false"))
PAGE = "<?php echo str_pad('<p>page ' . $_GET['i'] . '</p>', (int)$_GET['size'], '.');\n"


def peak(pid):
    with open("/proc/%d/status" % pid) as f:
        return int(next(line for line in f if line.startswith("VmHWM:")).split()[1])


def store_bytes(root):
    return sum(os.path.getsize(os.path.join(d, n)) for d, _, names in os.walk(root) for n in names)


def tool_peak(workspace, directives, *args):
    """The tool's peak RSS (kB), run in a child of its own so that no other
    child's peak counts."""
    ini = workspace.path("bench-php.ini")
    with open(ini, "w") as f:
        f.write("[PHP]\n" + "".join('%s = "%s"\n' % item for item in directives.items()))
    probe = ("import resource, subprocess, sys; subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, check=True); "
             "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)")
    out = subprocess.run([sys.executable, "-c", probe, harness.TOOL, "--ini", ini] + list(args),
                         capture_output=True, text=True, timeout=600, env=dict(os.environ, PHP_INI_SCAN_DIR=""))
    return int(out.stdout.strip() or 0)


def fill(port, size_bytes, page_bytes, root):
    count = max(1, size_bytes // page_bytes)
    next_index = iter(range(count))
    lock = threading.Lock()

    def client():
        while True:
            with lock:
                i = next(next_index, None)
            if i is None:
                return
            harness.http_get(port, "/walk.php?i=%d&size=%d" % (i, page_bytes))

    threads = [threading.Thread(target=client) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return store_bytes(root)


def evict(workspace, site, directives, size_mib):
    """The cleaner's peak (kB) over the cleanings that bring the store down
    to half its size, and the store's size then (MB)."""
    bound = max(1, size_mib // 2)
    root = workspace.path("tmp", "pagecache", "HTML-Cache")
    pid_file = workspace.path("run", "pagecache_cleaner.pid")
    os.unlink(pid_file)
    server = harness.BuiltinServer(workspace, site, dict(directives, **{"vesk_pagecache.max_store_size": str(bound)}))
    try:
        deadline = time.monotonic() + 300
        while (not os.path.exists(pid_file) or store_bytes(root) > bound << 20) and time.monotonic() < deadline:
            time.sleep(0.5)
        with open(pid_file) as f:
            return peak(int(f.read())), round(store_bytes(root) / 1e6, 1)
    finally:
        server.stop()


def measure(size_mib, page_kib):
    class Owner:
        def __init__(self):
            self.cleanups = []

        def addCleanup(self, fn):
            self.cleanups.append(fn)

    owner = Owner()
    workspace, site = harness.Workspace.with_site(owner, RULES)
    with open(os.path.join(site, "walk.php"), "w") as f:
        f.write(PAGE)
    directives = workspace.directives(vesk_pagecache__clean_frequency="1")
    server = harness.BuiltinServer(workspace, site, directives)
    try:
        root = workspace.path("tmp", "pagecache", "HTML-Cache")
        stored = fill(server.port, size_mib << 20, page_kib << 10, root)
        with open(workspace.path("run", "pagecache_cleaner.pid")) as f:
            cleaner = int(f.read())
        worker_before = peak(server.process.pid)
        status, _, body = harness.http_get(server.port, "/call.php?fn=page_cache_purge&args=" +
                                           "%5B%7B%22url%22%3A%22http%3A%2F%2Fnowhere.test%2F%22%7D%5D")
        assert status == 200 and body == b"true", body
        time.sleep(3)  # cleanings over the full store
        row = {
            "store MB": round(stored / 1e6, 1),
            "worker before purge kB": worker_before,
            "worker after purge kB": peak(server.process.pid),
            "cleaner kB": peak(cleaner),
            "tool status kB": tool_peak(workspace, directives, "status"),
            "tool list kB": tool_peak(workspace, directives, "list"),
        }
        server.stop()
        row["cleaner evicting kB"], row["store after eviction MB"] = evict(workspace, site, directives, size_mib)
        return row
    finally:
        server.stop()
        for cleanup in reversed(owner.cleanups):
            cleanup()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--sizes-mib", default="10,200")
    parser.add_argument("--page-kib", type=int, default=100)
    options = parser.parse_args()
    rows = [measure(int(size), options.page_kib) for size in options.sizes_mib.split(",")]
    for key in rows[0]:
        print("%-24s" % key + "".join("%14s" % row[key] for row in rows))


if __name__ == "__main__":
    main()
