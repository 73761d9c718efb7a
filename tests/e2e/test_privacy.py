"""No visitor's cookie or session ever reaches another visitor: 20 clients
at once, each with its own cookies, under nginx with php-fpm and the
shipped example rules."""
import http.client
import os
import random
import re
import threading
import unittest

import harness

CLIENTS = 20
REQUESTS = 25


class Client:
    """Keeps its own cookies, as a browser would."""

    def __init__(self, name, port):
        self.name = name
        self.port = port
        self.cookies = {}
        self.received = []     # (cookie name, value) of every Set-Cookie
        self.mismatches = []   # split pages that answered for another value

    def get(self, path):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        headers = {"X-Client": self.name}
        if self.cookies:
            headers["Cookie"] = "; ".join("%s=%s" % item for item in self.cookies.items())
        connection.request("GET", path, headers=headers)
        response = connection.getresponse()
        body = response.read()
        for header, value in response.getheaders():
            if header.lower() == "set-cookie":
                name, _, rest = value.partition("=")
                cookie = rest.split(";")[0]
                self.received.append((name, cookie))
                if "expires=Thu, 01 Jan 1970" in value or cookie == "deleted":
                    self.cookies.pop(name, None)
                else:
                    self.cookies[name] = cookie
        connection.close()
        return response.status, body

    def run(self, seed):
        rng = random.Random(seed)
        for _ in range(REQUESTS):
            action = rng.choice(["plain", "plain", "start", "regen", "cookie"])
            value = str(rng.randrange(5))
            if rng.random() < 0.2:
                self.cookies.clear()   # a new visit without cookies
            status, body = self.get("/?a=%s&v=%s" % (action, value))
            if status != 200 or body != ("<p>value %s</p>" % value).encode():
                self.mismatches.append((action, value, status, body[:80]))


class Privacy(harness.Case):
    def test_twenty_visitors_never_share_a_cookie(self):
        # The shipped example rules, as they are.
        workspace, site = self.use_site(harness.shipped_rules(), "private_site", sessions=True)
        directives = self.directives(vesk_pagecache__log_verbosity_level="3")
        directives["session.use_strict_mode"] = "1"
        server = self.serve("php-fpm", directives)

        clients = [Client("client%02d" % i, server.port) for i in range(CLIENTS)]
        threads = [threading.Thread(target=c.run, args=(i,)) for i, c in enumerate(clients)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(timeout=300)
        self.assertFalse(any(t.is_alive() for t in threads), "clients did not finish")

        issued = {}
        with open(os.path.join(site, "issued.log")) as f:
            for line in f:
                kind, value, client = line.split()
                issued[(kind, value)] = client
        received = 0
        for client in clients:
            self.assertEqual([], client.mismatches, client.name)
            for name, value in client.received:
                kind = {"PHPSESSID": "session", "token": "token"}.get(name)
                if kind is None or value == "deleted":
                    continue
                received += 1
                self.assertEqual(client.name, issued.get((kind, value)),
                                 "%s received %s=%s" % (client.name, name, value))
        self.assertGreater(received, CLIENTS)

        # Some pages were served from the cache, and none of them stored a cookie.
        with open(os.path.join(site, "runs.log")) as f:
            self.assertLess(len(f.read().split()), CLIENTS * REQUESTS)
        stored = []
        for directory, _, names in os.walk(workspace.path("tmp")):
            for name in names:
                with open(os.path.join(directory, name), "rb") as f:
                    stored.append(f.read())
        self.assertTrue(stored)
        self.assertFalse([s for s in stored if re.search(rb"Set-Cookie|PHPSESSID", s, re.I)])


if __name__ == "__main__":
    unittest.main()
