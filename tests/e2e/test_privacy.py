"""Nothing of one visitor reaches another: the cookies and sessions of 20
clients at once; pages built for another application's login cookie, for
credentials, for a Host port the client chose or for the site on another
port; a request that would put its page under another's key; URLs under
<dont_cache> in either form; php-fpm's own status page."""
import base64
import http.client
import os
import pathlib
import random
import re
import threading

import harness

CLIENTS = 20
REQUESTS = 25
# Says whose page it is, for which Host and on which port.
WHO = ("<?php require __DIR__ . '/_record.php';\necho 'page of ', $_COOKIE['app_login'] ?? $_SERVER['PHP_AUTH_USER'] "
       "?? 'nobody', ' for ', $_SERVER['HTTP_HOST'], ' on ', $_SERVER['SERVER_PORT'], ' ', microtime(true);\n")
SITE_SPLITS = ("_SERVER[HTTP_HOST]", "_SERVER[HTTPS]", "_SERVER[REQUEST_URI]")
# As a recipe for another application: every path of every host, its own
# login cookie kept away, split by host and URI.
EVERY_ROOT = harness.url_rule(".*", conditions=('global="_COOKIE" type="regex_not_match" value=".*wp_login.*"',),
                              splits=SITE_SPLITS)


class Client(harness.Browser):
    def __init__(self, name, port):
        super().__init__(port, headers={"X-Client": name}, timeout=20)
        self.name = name
        self.mismatches = []   # split pages that answered for another value

    def run(self, seed):
        rng = random.Random(seed)
        for _ in range(REQUESTS):
            action, value = rng.choice(["plain", "plain", "start", "regen", "cookie"]), str(rng.randrange(5))
            if rng.random() < 0.2:
                self.cookies.clear()   # a new visit without cookies
            status, _, body = self.get("/?a=%s&v=%s" % (action, value))
            if status != 200 or body != ("<p>value %s</p>" % value).encode():
                self.mismatches.append((action, value, status, body[:80]))


class Privacy(harness.Case):
    def start(self, kind, rules, **options):
        self.use_site(rules)
        with open(os.path.join(self.site, "who.php"), "w") as f:
            f.write(WHO)
        return self.serve(kind, self.directives(vesk_pagecache__enable_qa_info="1"), **options).port

    def who(self, port, path="/who.php", **headers):
        return harness.http_get(port, path, headers)[2].decode()

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

        with open(os.path.join(site, "issued.log")) as f:
            issued = {(kind, value): client for kind, value, client in (line.split() for line in f)}
        received = 0
        for client in clients:
            self.assertEqual([], client.mismatches, client.name)
            for name, value in client.received:
                kind = {"PHPSESSID": "session", "token": "token"}.get(name)
                if kind is not None and value != "deleted":
                    received += 1
                    self.assertEqual(client.name, issued.get((kind, value)), "%s got %s=%s" % (client.name, name, value))
        self.assertGreater(received, CLIENTS)

        # Some pages were served from the cache, and none of them stored a cookie.
        with open(os.path.join(site, "runs.log")) as f:
            self.assertLess(len(f.read().split()), CLIENTS * REQUESTS)
        stored = [pathlib.Path(name).read_bytes() for name in self.records()]
        self.assertTrue(stored)
        self.assertFalse([s for s in stored if re.search(rb"Set-Cookie|PHPSESSID", s, re.I)])

    def test_another_applications_login_never_reaches_a_visitor(self):
        for kind in ("php-fpm", "apache"):
            with self.subTest(server=kind):
                port = self.start(kind, harness.rules_file(EVERY_ROOT))
                rng = random.Random(kind)
                connection = http.client.HTTPConnection("127.0.0.1", port, timeout=20)
                for i in range(1200):
                    user = rng.choice(["", "", "", "ann", "bob"])
                    connection.request("GET", "/who.php?p=%d" % rng.randrange(6),
                                       headers={"Cookie": "app_login=" + user} if user else {})
                    body = connection.getresponse().read().decode()
                    # A user may get the visitors' page, as the conditions say.
                    self.assertTrue(body.startswith(("page of nobody", "page of " + (user or "nobody"))), (i, body))
                connection.close()
                self.assertEqual("pass (cookie app_login)", harness.http_get(
                    port, "/who.php?p=new", {"Cookie": "app_login=ann"})[1]["x-pagecache"])

    def test_a_page_for_credentials_reaches_no_one_else(self):
        ann = {"Authorization": "Basic " + base64.b64encode(b"ann:secret").decode()}
        for kind in ("php -S", "php-fpm", "apache"):
            with self.subTest(server=kind):
                port = self.start(kind, harness.rules_file(EVERY_ROOT))
                pages = [self.who(port, **headers) for headers in (ann, ann, {}, {}, ann)]
                self.assertEqual(["ann", "ann", "nobody", "nobody", "ann"], [p.split()[2] for p in pages])
                self.assertEqual(pages[2], pages[3])

    def test_a_host_port_the_client_chose_reaches_no_other_visitor(self):
        for kind, options in (("php -S", {}), ("php-fpm", {"host_as_sent": True})):
            with self.subTest(server=kind):
                port = self.start(kind, harness.rules_file(harness.url_rule(".*")), **options)
                for headers in ({"Host": "127.0.0.1:1234"}, {"Host": "127.0.0.1:1234"}, {}, {}):
                    page = self.who(port, **headers)
                self.assertIn(" for 127.0.0.1:%d " % port, page)

    def test_sites_on_two_ports_never_share_a_page(self):
        for kind, extra in (("php-fpm", "listen 127.0.0.1:%d;"), ("apache", "Listen 127.0.0.1:%d")):
            with self.subTest(server=kind):
                second = harness.free_port()
                port = self.start(kind, harness.rules_file(harness.url_rule(".*", splits=SITE_SPLITS)),
                                  server_config=extra % second)
                for each in (port, second, port, second):
                    self.assertIn(" on %d " % each, self.who(each))
                # Hosts alike but for one letter, in turn over the workers.
                for host in ("a.test", "b.test", "c.test") * 2:
                    self.assertIn(" for %s " % host, self.who(port, Host=host))

    def test_dont_cache_holds_in_either_form(self):
        for form, other in (("http://127.0.0.1/who.php", "http://127.0.0.1:80/who.php"),
                            ("http://127.0.0.1:80/who.php", "http://127.0.0.1/who.php"),
                            ("http://127.0.0.1:%d/who.php", None)):
            with self.subTest(form=form):
                port = harness.free_port()
                form = form.replace("%d", str(port))
                rules = harness.rules_file(harness.url_rule(".*")).replace(
                    "<dont_cache/>", '<dont_cache><url path="%s"/></dont_cache>' % form)
                self.start("php-fpm", rules, server_config="listen 127.0.0.1:%d;" % port)
                self.assertNotEqual(self.who(port), self.who(port))
                for url in (form, other or form):
                    result = harness.run_tool(self.workspace, self.workspace.directives(), "inspect", url)
                    self.assertIn("not covered: listed under <dont_cache>", result.stdout)

    def test_php_fpm_answers_its_status_page_alone(self):
        status = ('location = /fpm-status { include /etc/nginx/fastcgi_params; fastcgi_pass unix:%s;'
                  ' fastcgi_param SCRIPT_FILENAME $document_root$fastcgi_script_name; }')
        self.use_site(harness.rules_file(harness.url_rule(".*")))
        server = self.serve("php-fpm", pool_config="pm.status_path = /fpm-status\n",
                            server_config=status % self.workspace.path("fpm.sock"))
        for _ in range(3):
            self.assertEqual(1, harness.http_get(server.port, "/fpm-status")[2].count(b"pool:"))
        self.assertEqual([], self.records())

    def test_a_request_cant_put_its_page_under_another_requests_key(self):
        self.use_site(harness.rules_file(harness.url_rule("page\\.php.*", splits=("_GET[page]", "_GET[a]", "_GET[b]"))))
        port = self.serve(directives=self.directives(vesk_pagecache__log_verbosity_level="3")).port
        # A NUL byte in a split value, and values that run into the next name.
        for query in ("page=2%00poison", "page=2%00poison", "page=2", "a=x_GET&b=y", "a=x&b=_GETy", "a=x_GET_GET&b="):
            runs = self.runs()
            harness.http_get(port, "/page.php?" + query)
            self.assertEqual(runs + 1, self.runs(), query + " was served another request's page")
        self.assertLogged("INFO] Not using the cache: a split value of _GET holds a NUL byte")
        runs = self.runs()
        # Nothing is said of it unless asked.
        self.assertNotIn("x-pagecache", harness.http_get(port, "/page.php?a=x_GET&b=y")[1])
        self.assertEqual(runs, self.runs())
