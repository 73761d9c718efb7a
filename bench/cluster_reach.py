#!/usr/bin/env python3
"""The reach of a removal in a farm: a redis-server and two php -S nodes,
each with its own store. For each of N removals, a page is stored on node 2,
removed on node 1 with the cluster flag, and node 2 is asked for it until it
is a miss. Prints the median and worst time from the call on node 1 to the
miss on node 2, and the cost the queue adds to the removing request: the
removal function's own time with the flag against without it, measured in
the worker.

    bench/cluster_reach.py [--removals 100]

Needs the built extension (build/vesk_pagecache.so, or VESK_EXTENSION) and
redis-server. Not part of the test run.
"""
import argparse
import json
import os
import shutil
import statistics
import sys
import time
import urllib.parse

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import harness  # noqa: E402

RULES = harness.rules_file(harness.url_rule("(page)\\.php", id="7"))
# The removal function's own time in the worker, in microseconds.
TIMED = """<?php
$start = hrtime(true);
$done = page_cache_remove_cached_contents_by_uri('Pages', $_GET['uri'], $_GET['cluster'] === '1');
echo json_encode([$done, (hrtime(true) - $start) / 1000]);
"""


def start_node(node_id, queue, cleanups):
    workspace = harness.Workspace()
    cleanups.append(workspace.remove)
    workspace.use_rules(RULES)
    site = workspace.path("site")
    shutil.copytree(os.path.join(harness.SOURCE_ROOT, "tests", "e2e", "site"), site)
    with open(os.path.join(site, "timed.php"), "w") as f:
        f.write(TIMED)
    directives = workspace.directives(vesk__node_id=str(node_id), vesk__cluster_queue=queue,
                                      vesk_pagecache__log_verbosity_level="3")
    server = harness.BuiltinServer(workspace, site, directives)
    cleanups.append(server.stop)
    deadline = time.monotonic() + 10
    while "Cluster agent reads the task queue" not in workspace.log():
        if time.monotonic() > deadline:
            raise RuntimeError("node %d's agent didn't join the queue" % node_id)
        time.sleep(0.05)
    return server, site


def runs(site):
    try:
        with open(os.path.join(site, "runs.log")) as f:
            return f.read().count("\n")
    except FileNotFoundError:
        return 0


def timed_removal(server, uri, cluster):
    query = urllib.parse.urlencode({"uri": uri, "cluster": "1" if cluster else "0"})
    status, _, body = harness.http_get(server.port, "/timed.php?" + query)
    done, micros = json.loads(body)
    if status != 200 or done is not True:
        raise RuntimeError("the removal failed: %s" % body)
    return micros


def reach(first, second, second_site, i):
    """Seconds from the call on `first` to the miss on `second`."""
    uri = "/page.php?n=%d" % i
    harness.http_get(second.port, uri)
    stored = runs(second_site)
    start = time.monotonic()
    timed_removal(first, uri, True)
    while True:
        harness.http_get(second.port, uri)
        if runs(second_site) > stored:
            return time.monotonic() - start
        if time.monotonic() - start > 10:
            raise RuntimeError("removal %d never reached node 2" % i)


def summary(name, values, unit, scale):
    print("%s: median %.3f %s, worst %.3f %s over %d" % (name, statistics.median(values) * scale, unit,
                                                           max(values) * scale, unit, len(values)))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--removals", type=int, default=100)
    args = parser.parse_args()
    cleanups = []
    try:
        redis_dir = harness.Workspace()
        cleanups.append(redis_dir.remove)
        redis = harness.RedisServer(redis_dir.path("tmp"))
        cleanups.append(redis.stop)
        first, _ = start_node(1, redis.url, cleanups)
        second, second_site = start_node(2, redis.url, cleanups)
        reaches = [reach(first, second, second_site, i) for i in range(args.removals)]
        summary("reach, call on node 1 to miss on node 2", reaches, "ms", 1000)
        local = [timed_removal(first, "/page.php?local", False) for _ in range(args.removals)]
        queued = [timed_removal(first, "/page.php?queued", True) for _ in range(args.removals)]
        summary("removal without the flag", local, "ms", 0.001)
        summary("removal with the flag (queued on Redis)", queued, "ms", 0.001)
        print("cost the queue adds to a removing request: %.3f ms (median)"
              % ((statistics.median(queued) - statistics.median(local)) / 1000))
    finally:
        for cleanup in reversed(cleanups):
            cleanup()


if __name__ == "__main__":
    main()
