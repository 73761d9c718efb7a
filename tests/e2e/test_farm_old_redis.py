"""A farm's queue on a Redis older than 7.0 (a stand-in that answers as
Redis 6.2: Debian 12 ships Redis 7 only): the node says why once, at level
0, puts no task on it, and works alone."""
import contextlib
import socket
import threading

import harness

INFO = b"# Server\r\nredis_version:6.2.14\r\n"


def old_redis(commands):
    """Answers INFO as Redis 6.2 and refuses all else; notes the commands."""
    listener = socket.create_server(("127.0.0.1", 0))

    def answer(connection):
        with connection, connection.makefile("rb") as requests:
            for header in iter(requests.readline, b""):
                words = [requests.read(int(requests.readline()[1:]) + 2)[:-2] for _ in range(int(header[1:]))]
                commands.append(words[0].upper())
                connection.sendall(b"$%d\r\n%s\r\n" % (len(INFO), INFO) if commands[-1] == b"INFO"
                                   else b"-ERR unknown command\r\n")

    def accept():
        with contextlib.suppress(OSError):  # closed at the test's end
            for connection in iter(lambda: listener.accept()[0], None):
                threading.Thread(target=answer, args=(connection,), daemon=True).start()

    threading.Thread(target=accept, daemon=True).start()
    return listener


class FarmOnOldRedis(harness.Case):
    def test_the_node_refuses_the_queue_and_works_alone(self):
        commands = []
        listener = old_redis(commands)
        self.addCleanup(listener.close)
        self.use_site(harness.rules_file(harness.url_rule("(page)\\.php", "Pages", id="7")))
        queue = "redis://127.0.0.1:%d" % listener.getsockname()[1]
        port = self.serve(directives=self.directives(vesk__node_id="1", vesk__cluster_queue=queue)).port
        line = "Cluster agent refuses the task queue: Redis 6.2.14 is older than 7.0, which the cluster queue needs"
        self.wait_until(lambda: line in self.workspace.log(), 10, "the refusal was not logged")
        for _ in range(2):
            harness.http_get(port, "/page.php")
        # Stored and served here; a removal for the farm removes here, and says the farm didn't get it.
        self.assertIs(True, self.call(port, "page_cache_remove_all_cached_contents", True))
        harness.http_get(port, "/page.php")
        self.assertLogged("failed to add TKD task. Redis 6.2.14 is older than 7.0")
        self.assertEqual((2, 1, {b"INFO"}), (self.runs(), self.workspace.log().count(line), set(commands)))
