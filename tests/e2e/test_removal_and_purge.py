"""Removal functions and purge rules, seen from the client: after each the
stored page is no longer served."""
import gzip
import json
import os
import sqlite3
import subprocess
import time
import unittest
import urllib.parse

import harness

RULES = """<?xml version="1.0" encoding="UTF-8"?>
<cache_settings><dont_cache/><cache>
  <url schema="http" host="&lt;default-server&gt;" path="(page)\\.php" lifetime="300"
       match_type="regex_match" id="7">
    <name>Pages</name>
    <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by>
  </url>
</cache></cache_settings>
"""


class Site:
    """A workspace with the test site and the rules above."""

    def __init__(self, test):
        self.workspace, self.root = harness.Workspace.with_site(test, RULES)

    def runs(self):
        try:
            with open(os.path.join(self.root, "runs.log")) as f:
                return f.read().split().count("page.php")
        except FileNotFoundError:
            return 0


class Removal(unittest.TestCase):
    def setUp(self):
        self.site = Site(self)
        directives = self.site.workspace.directives(
            vesk_pagecache__log_verbosity_level="5")
        self.server = harness.BuiltinServer(self.site.workspace, self.site.root, directives)
        self.addCleanup(self.server.stop)

    def call(self, name, *args):
        query = urllib.parse.urlencode({"fn": name, "args": json.dumps(list(args))})
        status, _, body = self.server.get("/call.php?" + query)
        self.assertEqual(200, status, body)
        return json.loads(body)

    def page(self):
        status, _, body = self.server.get("/page.php")
        self.assertEqual(200, status)
        return body

    def assertStoredThenServed(self):
        first = self.page()
        runs = self.site.runs()
        self.assertEqual(first, self.page())
        self.assertEqual(runs, self.site.runs())

    def test_each_removal_makes_the_next_request_a_miss(self):
        removals = [
            # A plain group stands for the rule's non-capturing one.
            ("page_cache_remove_cached_contents", "http://<default-server>/(page)\\.php"),
            ("page_cache_remove_cached_contents_by_uri", "Pages", "/page.php"),
            ("page_cache_remove_cached_contents_by_rule", "Pages"),
            ("page_cache_remove_cached_contents_by_rules_ids", [7]),
            ("page_cache_remove_all_cached_contents",),
        ]
        for removal in removals:
            with self.subTest(removal[0]):
                self.assertStoredThenServed()
                self.assertIs(True, self.call(*removal))
                runs = self.site.runs()
                self.page()
                self.assertEqual(runs + 1, self.site.runs())
        # A pattern that isn't the rule's removes nothing.
        self.assertStoredThenServed()
        self.assertIs(True, self.call("page_cache_remove_cached_contents", "http://<default-server>/other"))
        runs = self.site.runs()
        self.page()
        self.assertEqual(runs, self.site.runs())

    def test_purged_url_misses_from_then_on(self):
        self.assertStoredThenServed()
        url = "http://127.0.0.1:%d/page.php" % self.server.port
        self.assertIs(True, self.call("page_cache_purge", {"url": url, "created_ago": 0}))
        for _ in range(3):
            runs = self.site.runs()
            self.page()
            self.assertEqual(runs + 1, self.site.runs())
        self.assertIn("Cache entry NOT found for :", self.site.workspace.log())
        # The rule is in the page cache's database as well.
        with sqlite3.connect(self.site.workspace.path("var", "db", "pagecache.db")) as db:
            self.assertEqual([(0, url)], db.execute("SELECT rule_id, url FROM pagecache_purge_urls").fetchall())


GZIP_RULES = """<?xml version="1.0" encoding="UTF-8"?>
<cache_settings><dont_cache/><cache>
  <url schema="http" host="&lt;default-server&gt;" path="(sized)\\.php" lifetime="300"
       match_type="regex_match" id="8">
    <name>Pagès</name>
    <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by>
  </url>
</cache></cache_settings>
"""


class RemovalOfBothCopies(unittest.TestCase):
    """Each removal drops the gzip copy too, and takes rule names in UTF-8
    whatever the worker's locale."""

    def setUp(self):
        locale = os.environ.get("LC_ALL")
        os.environ["LC_ALL"] = "C"
        self.addCleanup(lambda: os.environ.pop("LC_ALL") if locale is None else os.environ.update(LC_ALL=locale))
        self.workspace, self.root = harness.Workspace.with_site(self, GZIP_RULES)
        self.server = harness.BuiltinServer(self.workspace, self.root, self.workspace.directives())
        self.addCleanup(self.server.stop)

    def sized(self, size):
        with open(os.path.join(self.root, "size.txt"), "w") as f:
            f.write(str(size))
        status, headers, body = self.server.get("/sized.php", {"Accept-Encoding": "gzip"})
        self.assertEqual(200, status)
        return gzip.decompress(body) if headers.get("Content-Encoding") == "gzip" else body

    def test_a_gzip_client_gets_the_page_stored_after_the_removal(self):
        removals = [
            ("page_cache_remove_cached_contents_by_uri", "Pagès", "/sized.php"),
            ("page_cache_remove_cached_contents_by_rule", "Pagès"),
            ("page_cache_remove_cached_contents", "http://<default-server>/(sized)\\.php"),
            ("page_cache_remove_cached_contents_by_rules_ids", [8]),
            ("page_cache_remove_all_cached_contents",),
        ]
        for removal in removals:
            with self.subTest(removal[0]):
                old = self.sized(2000)
                self.assertEqual(old, self.sized(2000))
                query = urllib.parse.urlencode({"fn": removal[0], "args": json.dumps(list(removal[1:]))})
                self.assertEqual(b"true", self.server.get("/call.php?" + query)[2])
                new = self.sized(100)
                self.assertEqual(100, len(new))
                self.assertEqual(new, self.sized(100))


class ApplicationPurge(unittest.TestCase):
    def test_rule_of_the_scripts_application(self):
        site = Site(self)
        data = site.workspace.path("var", "db")
        os.makedirs(data, exist_ok=True)
        with sqlite3.connect(os.path.join(data, "deployment.db")) as db:
            db.execute("CREATE TABLE deployment_apps_info (app_id INTEGER PRIMARY KEY, base_url TEXT, "
                       "path TEXT, name TEXT, version TEXT, webserver_path TEXT)")
            db.execute("CREATE TABLE deployment_libs_info (a, b, c, d, e)")
            db.execute("INSERT INTO deployment_apps_info VALUES (3, '', ?, 'shop', '1', '')",
                       (os.path.realpath(site.root),))
            db.execute("INSERT INTO deployment_apps_info VALUES (4, '', '/elsewhere', 'blog', '1', '')")
        directives = site.workspace.directives(
            vesk_pagecache__log_verbosity_level="5")
        server = harness.BuiltinServer(site.workspace, site.root, directives)
        self.addCleanup(server.stop)
        url = "http://127.0.0.1:%d/page.php" % server.port

        def purge(application):
            query = urllib.parse.urlencode({"fn": "page_cache_purge",
                                            "args": json.dumps([{"application": application, "url": url}])})
            self.assertEqual(b"true", server.get("/call.php?" + query)[2])

        server.get("/page.php")
        purge("blog")
        runs = site.runs()
        server.get("/page.php")
        self.assertEqual(runs, site.runs(), "another application's rule covered the page")
        purge("shop")
        server.get("/page.php")
        self.assertEqual(runs + 1, site.runs())
        self.assertIn("vesk_get_app_id_for_current_path found app id: 0x3", site.workspace.log())
        # A request that carries a debugger connection belongs to no application.
        server.get("/page.php?debugger_connect=1")
        found = [line for line in site.workspace.log().splitlines() if "found app id:" in line]
        self.assertTrue(found[-1].endswith("found app id: 0xffffffff "), found[-1])


class ConcurrentPurge(unittest.TestCase):
    def test_two_writers_both_succeed_after_retries(self):
        workspace = harness.Workspace()
        self.addCleanup(workspace.remove)
        directives = workspace.directives(vesk_pagecache__enable_cli="1",
                                          vesk_pagecache__log_verbosity_level="3")
        code = "var_dump(page_cache_purge(['url' => 'http://a.example/' . getmypid()]));"
        # Creates the database and its tables.
        subprocess.run(harness.php_command(directives) + ["-r", "page_cache_purge([]);"], check=True,
                       timeout=60, stdout=subprocess.DEVNULL)

        database = workspace.path("var", "db", "pagecache.db")
        holder = sqlite3.connect(database, timeout=0, isolation_level=None)
        holder.execute("BEGIN IMMEDIATE")
        writers = [subprocess.Popen(harness.php_command(directives) + ["-r", code], stdout=subprocess.PIPE,
                                    start_new_session=True) for _ in range(2)]
        try:
            deadline = time.monotonic() + 20
            while workspace.log().count("Commit error:") < 2 and time.monotonic() < deadline:
                time.sleep(0.1)
        finally:
            holder.execute("COMMIT")
            holder.close()
            outputs = [writer.communicate(timeout=60)[0] for writer in writers]
        self.assertEqual([b"bool(true)\n"] * 2, outputs)
        log = workspace.log()
        for writer in writers:
            self.assertIn("p%d/" % writer.pid, "".join(
                line for line in log.splitlines(True) if "Commit error:" in line))
        with sqlite3.connect(database) as db:
            urls = {row[0] for row in db.execute("SELECT url FROM pagecache_purge_urls")}
        self.assertEqual({"http://a.example/%d" % writer.pid for writer in writers}, urls)


if __name__ == "__main__":
    unittest.main()
