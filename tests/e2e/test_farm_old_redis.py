"""A farm's queue on a Redis older than 7.0, whose streams can't tell a node
what it missed (Debian 12 ships Redis 7 only, so a stand-in on 127.0.0.1
answers as Redis 6.2 does): the node says so at level 0, once, keeps no task
on it, and works alone."""
import socket
import threading

import harness

RULES = harness.rules_file(harness.url_rule("(page)\\.php", "Pages", id="7"))
INFO = b"# Server\r\nredis_version:6.2.14\r\nredis_mode:standalone\r\n"


class OldRedis:
    """Answers INFO as Redis 6.2 and refuses every other command; keeps the
    names of the commands it was sent."""

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.commands = []
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self.answer, args=(connection,), daemon=True).start()

    def answer(self, connection):
        with connection, connection.makefile("rb") as requests:
            while True:
                header = requests.readline()
                if not header.startswith(b"*"):
                    return
                words = []
                for _ in range(int(header[1:])):
                    length = int(requests.readline()[1:])
                    words.append(requests.read(length + 2)[:-2])
                self.commands.append(words[0].upper())
                connection.sendall(b"$%d\r\n%s\r\n" % (len(INFO), INFO) if words[0].upper() == b"INFO"
                                   else b"-ERR unknown command\r\n")

    def stop(self):
        self.listener.close()


class FarmOnOldRedis(harness.Case):
    def test_the_node_refuses_the_queue_and_works_alone(self):
        redis = OldRedis()
        self.addCleanup(redis.stop)
        self.use_site(RULES)
        server = self.serve(directives=self.directives(
            vesk__node_id="1", vesk__cluster_queue="redis://127.0.0.1:%d" % redis.port,
            vesk_pagecache__clean_frequency="1"))
        line = ("Cluster agent refuses the task queue: Redis 6.2.14 is older than 7.0, which the cluster queue "
                "needs - this node works alone")
        self.wait_until(lambda: line in self.workspace.log(), 10, "the refusal was not logged")
        for runs in (1, 1):
            harness.http_get(server.port, "/page.php")
            self.assertEqual(runs, self.runs())
        # A removal for the whole farm still removes here, and says the
        # farm didn't get it.
        self.assertIs(True, self.call(server.port, "page_cache_remove_all_cached_contents", True))
        self.assertLogged("failed to add TKD task. Redis 6.2.14 is older than 7.0")
        harness.http_get(server.port, "/page.php")
        self.assertEqual(2, self.runs())
        self.assertEqual(1, self.workspace.log().count(line))
        self.assertEqual({b"INFO"}, set(redis.commands))
