"""A web farm on one machine: a redis-server and php -S nodes, each
with its own store and node id. Removals and purges made on one node reach
the others through the task stream; without Redis the nodes go on alone."""
import os
import signal
import subprocess
import time

import harness

RULES = harness.rules_file(harness.url_rule("(page)\\.php", id="7"))
# What the load balancer would send to every node: one site, one URL.
HOST = {"Host": "farm.test:80"}
# The most a removal may take to reach the other nodes.
REACH = 1.0
# The most a request waits on Redis (TKDTaskInserter::TimeoutMs), in seconds.
QUEUE_LIMIT = 0.1

REMOVALS = harness.removals("page", "Pages", 7)


class Node:
    """One node of the farm: a workspace with its own store, site and log."""

    def __init__(self, test, node_id, queue, kind="php -S", **options):
        self.test = test
        self.workspace, self.site = harness.Workspace.with_site(test, RULES)
        self.directives = self.workspace.directives(vesk__node_id=str(node_id), vesk__cluster_queue=queue,
                                                    vesk_pagecache__log_verbosity_level="5")
        self.kind, self.options = kind, options
        if kind != "php -S":
            harness.make_shared(self.workspace, "log", "tmp", "run", "site", "var")
        self.server = None
        self.start()

    def start(self):
        """Starts the node, and waits until its agent reads the queue."""
        joined = self.workspace.log().count("Cluster agent reads the task queue")
        self.server = harness.SERVERS[self.kind](self.workspace, self.site, self.directives, **self.options)
        self.test.addCleanup(self.server.stop)
        self.test.wait_until(lambda: self.workspace.log().count("Cluster agent reads the task queue") > joined,
                             10, "the node's agent didn't join the queue")

    runs = harness.Case.runs

    def get(self, path="/page.php"):
        status, _, body = harness.http_get(self.server.port, path, HOST)
        self.test.assertEqual(200, status)
        return body

    def hit(self, path="/page.php"):
        """Whether a request for `path` is served from the store."""
        runs = self.runs()
        self.get(path)
        return self.runs() == runs

    def status(self):
        """What `vesk-pagecache status` says of the node's queue."""
        result = harness.run_tool(self.workspace, self.directives, "status")
        self.test.assertEqual(0, result.returncode, result.stderr)
        return [line for line in result.stdout.splitlines() if line.startswith("queue: ")][0]

    def cleaner(self):
        with open(self.workspace.path("run", "pagecache_cleaner.pid")) as f:
            return int(f.read().strip())


class FarmCase(harness.Case):
    """A redis-server and the nodes a test starts around it."""

    def setUp(self):
        self.redis = harness.RedisServer(self.redis_dir())
        self.addCleanup(self.redis.stop)

    def redis_dir(self):
        workspace = harness.Workspace()
        self.addCleanup(workspace.remove)
        return workspace.path("tmp")

    def store_everywhere(self, path="/page.php"):
        for node in self.nodes:
            node.get(path)
            self.assertTrue(node.hit(path))

    def call(self, node, *call):
        return super().call(node.server.port, *call)

    def assertReached(self, nodes, path="/page.php"):
        """Each of `nodes` misses `path` within REACH of now."""
        deadline = time.monotonic() + REACH
        for node in nodes:
            while node.hit(path):
                self.assertLess(time.monotonic(), deadline, "the removal didn't reach the node in time")
                time.sleep(0.02)

    def redis_cli(self, *command):
        return subprocess.run(["redis-cli", "-p", str(self.redis.port)] + list(command), capture_output=True,
                              text=True, timeout=10).stdout

    @staticmethod
    def group(node):
        return "node-%s:%s" % (node.directives["vesk.node_id"], node.workspace.path("tmp", "pagecache", "HTML-Cache"))

    def pending(self, node):
        """How many tasks `node`'s agent was handed and hasn't acknowledged."""
        return int(self.redis_cli("XPENDING", "vesk:pagecache:tasks", self.group(node)).split()[0])

    def hand_over(self, node):
        """Hands the next task to `node`'s agent as its own read would: a
        stopped agent that was waiting on Redis has it already."""
        self.redis_cli("XREADGROUP", "GROUP", self.group(node), "agent", "COUNT", "1", "STREAMS",
                       "vesk:pagecache:tasks", ">")
        self.assertEqual(1, self.pending(node))

class Farm(FarmCase):
    def setUp(self):
        super().setUp()
        self.nodes = [Node(self, node_id, self.redis.url) for node_id in (1, 2)]

    def removal_time(self, node, *removal):
        start = time.monotonic()
        self.assertIs(True, self.call(node, *removal))
        return time.monotonic() - start

    def assertAloneButServing(self, failure):
        """With Redis out of reach: requests are served, a removal works
        here, waits no longer than the limit, and its failure is logged."""
        first, second = self.nodes
        local = min(self.removal_time(first, "page_cache_remove_all_cached_contents", False) for _ in range(3))
        self.store_everywhere()
        queued = self.removal_time(first, "page_cache_remove_cached_contents_by_rule", "Pages")
        self.assertLess(queued, local + QUEUE_LIMIT + 0.15)
        self.assertFalse(first.hit())
        self.assertTrue(second.hit())
        self.assertIn("page_cache_remove_cached_contents_by_rule: failed to add TKD task. " + failure,
                      first.workspace.log())

    def test_redis_down_leaves_each_node_alone_until_it_is_back(self):
        port = self.redis.port
        self.redis.stop()
        self.assertAloneButServing("Redis at 127.0.0.1:%d: cannot connect" % port)
        # Redis back, empty: the agents join it again, and removals reach
        # every node once more.
        self.redis = harness.RedisServer(self.redis_dir(), port)
        self.addCleanup(self.redis.stop)
        for node in self.nodes:
            self.wait_until(lambda: node.workspace.log().count("Cluster agent reads the task queue") > 1, 10,
                            "the node's agent didn't come back")
        # Nothing tells the others what was removed meanwhile: their pages are gone.
        self.assertFalse(self.nodes[1].hit())
        self.store_everywhere()
        self.assertIs(True, self.call(self.nodes[0], "page_cache_remove_all_cached_contents"))
        self.assertReached(self.nodes[1:])

    def test_a_node_whose_group_redis_lost_serves_no_removed_page(self):
        self.store_everywhere()
        self.redis_cli("FLUSHDB")
        self.assertIs(True, self.call(self.nodes[0], "page_cache_remove_all_cached_contents"))
        self.wait_until(lambda: not self.nodes[1].hit(), 10, "a removed page was served")

    def test_two_nodes_with_one_id_are_logged_on_both(self):
        for node in (self.nodes[0], Node(self, 1, self.redis.url)):
            self.wait_until(lambda: "node id 1 is used by another node too" in node.workspace.log(), 10, "not logged")

    def test_a_node_that_was_down_catches_up(self):
        first, second = self.nodes
        self.store_everywhere()
        self.store_everywhere("/page.php?b")
        second.server.stop()
        self.assertIs(True, self.call(first, "page_cache_remove_cached_contents_by_uri", "Pages", "/page.php"))
        self.assertIs(True, self.call(first, "page_cache_remove_cached_contents_by_uri", "Pages", "/page.php?b"))
        # The operator sees the node fall behind.
        self.assertRegex(second.status(), r"0 unfinished, lag 2, 2 tasks in the stream")
        second.start()
        self.assertReached([second])
        self.assertReached([second], "/page.php?b")

    def test_a_node_killed_midway_carries_the_task_out_when_back(self):
        first, second = self.nodes
        self.store_everywhere()
        cleaner = second.cleaner()
        # The agent is handed the task while it can't act on it, and dies.
        os.kill(cleaner, signal.SIGSTOP)
        self.assertIs(True, self.call(first, "page_cache_remove_all_cached_contents"))
        self.hand_over(second)
        self.assertRegex(second.status(), r"group node-2:.*: last task \d+-\d+, 1 unfinished, lag 0, 1 tasks")
        os.kill(cleaner, signal.SIGKILL)
        self.wait_until(lambda: cleaner not in harness.processes(), 5, "the agent didn't die")
        self.assertTrue(second.hit())
        second.server.stop()
        second.start()
        self.assertReached([second])


class FarmOfPools(FarmCase):
    """Nodes of several workers each: php-fpm, daemonized as a system runs
    it, behind nginx, and php -S with two workers. Every kind of removal and
    purge is sent across here, where it has to reach each worker."""

    def setUp(self):
        if not harness.FpmBehindNginx.available():
            self.fail("php-fpm is not installed: scripts/bootstrap installs it")
        super().setUp()
        self.nodes = [Node(self, 1, self.redis.url, "php-fpm", daemonize=True, workers=2),
                      Node(self, 2, self.redis.url, workers=2)]

    def test_removals_and_purges_reach_every_worker_of_the_other_node(self):
        first, second = self.nodes
        for call in REMOVALS + [("page_cache_purge", {"url": "http://farm.test/page.php"})]:
            with self.subTest(call[0]):
                self.store_everywhere()
                # Whichever worker answers, the page is gone from the node's store.
                self.assertIs(True, self.call(first, *call))
                self.assertReached([second])
                for _ in range(4):
                    self.assertTrue(second.hit())

    def test_a_purge_reaches_every_worker_of_every_node(self):
        # nginx names its own port in the URL, so the nodes' URLs differ: a
        # purge by creation time covers both.
        self.store_everywhere()
        self.assertIs(True, self.call(self.nodes[1], "page_cache_purge", {"created_ago": 0}))
        self.assertReached(self.nodes)
        for node in self.nodes:
            for _ in range(4):
                self.assertTrue(node.hit())
