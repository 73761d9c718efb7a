"""Removal functions and purge rules, seen from the client: after each the
stored page is no longer served."""
import gzip
import os
import sqlite3
import subprocess
import time

import harness

RULES = harness.rules_file(harness.url_rule("(page)\\.php", id="7"),
                           harness.url_rule("(sized)\\.php", "Pagès", id="8"))


class Removal(harness.Case):
    def setUp(self):
        self.use_site(RULES)

    def start(self, **directives):
        self.server = self.serve(directives=self.directives(vesk_pagecache__log_verbosity_level="5", **directives))
        self.port = self.server.port

    def page(self):
        status, _, body = self.server.get("/page.php")
        self.assertEqual(200, status)
        return body

    def assertStoredThenServed(self):
        first = self.page()
        runs = self.runs()
        self.assertEqual(first, self.page())
        self.assertEqual(runs, self.runs())

    def sized(self, gzip_client):
        status, headers, body = self.server.get("/sized.php", {"Accept-Encoding": "gzip"} if gzip_client else {})
        self.assertEqual(200, status)
        return gzip.decompress(body) if headers.get("Content-Encoding") == "gzip" else body

    def test_each_removal_drops_both_copies_of_the_page(self):
        # Rule names are taken in UTF-8 whatever the worker's locale.
        locale = os.environ.get("LC_ALL")
        os.environ["LC_ALL"] = "C"
        self.addCleanup(lambda: os.environ.pop("LC_ALL") if locale is None else os.environ.update(LC_ALL=locale))
        harness.write(os.path.join(self.site, "size.txt"), "2000")
        self.start()
        both = (True, False)
        for removal in harness.removals("sized", "Pagès", 8):
            with self.subTest(removal[0]):
                old = [self.sized(client) for client in both]
                self.assertEqual(old[0], old[1])
                self.assertIs(True, self.call(self.port, *removal))
                new = [self.sized(client) for client in both]
                self.assertNotEqual(old[0], new[0])
                self.assertEqual(new[0], new[1])
        # A pattern that isn't the rule's removes nothing.
        self.assertIs(True, self.call(self.port, "page_cache_remove_cached_contents", "http://<default-server>/other"))
        self.assertEqual(new, [self.sized(client) for client in both])

    def test_a_purge_holds_for_the_page_stored_before_it(self):
        self.start()
        self.assertStoredThenServed()
        url = "http://127.0.0.1:%d/page.php" % self.port
        for _ in range(2):
            self.assertIs(True, self.call(self.port, "page_cache_purge", {"url": url, "created_ago": 0}))
            runs = self.runs()
            self.page()
            self.assertEqual(runs + 1, self.runs())
            self.assertStoredThenServed()
        self.assertLogged("Cache entry NOT found for :")
        # The rule is in the page cache's database as well.
        with sqlite3.connect(self.workspace.path("var", "db", "pagecache.db")) as db:
            self.assertEqual({(0, url)}, set(db.execute("SELECT rule_id, url FROM pagecache_purge_urls")))

    def test_rule_of_the_scripts_application(self):
        with sqlite3.connect(self.workspace.path("var", "db", "deployment.db")) as db:
            db.execute("CREATE TABLE deployment_apps_info (app_id INTEGER PRIMARY KEY, base_url TEXT, "
                       "path TEXT, name TEXT, version TEXT, webserver_path TEXT)")
            db.execute("CREATE TABLE deployment_libs_info (a, b, c, d, e)")
            db.execute("INSERT INTO deployment_apps_info VALUES (3, '', ?, 'shop', '1', '')",
                       (os.path.realpath(self.site),))
            db.execute("INSERT INTO deployment_apps_info VALUES (4, '', '/elsewhere', 'blog', '1', '')")
        self.start()
        url = "http://127.0.0.1:%d/page.php" % self.port

        def purge(application):
            self.assertIs(True, self.call(self.port, "page_cache_purge", {"application": application, "url": url}))

        self.page()
        purge("blog")
        runs = self.runs()
        self.page()
        self.assertEqual(runs, self.runs(), "another application's rule covered the page")
        purge("shop")
        self.page()
        self.assertEqual(runs + 1, self.runs())
        self.assertLogged("vesk_get_app_id_for_current_path found app id: 0x3")
        # A request that carries a debugger connection belongs to no application.
        self.server.get("/page.php?debugger_connect=1")
        found = [line for line in self.workspace.log().splitlines() if "found app id:" in line]
        self.assertTrue(found[-1].endswith("found app id: 0xffffffff "), found[-1])

    def test_two_writers_both_succeed_after_retries(self):
        directives = self.directives(vesk_pagecache__enable_cli="1", vesk_pagecache__log_verbosity_level="3")
        code = "var_dump(page_cache_purge(['url' => 'http://a.example/' . getmypid()]));"
        # Creates the database and its tables.
        subprocess.run(harness.php_command(directives) + ["-r", "page_cache_purge([]);"], check=True,
                       timeout=60, stdout=subprocess.DEVNULL)

        database = self.workspace.path("var", "db", "pagecache.db")
        holder = sqlite3.connect(database, timeout=0, isolation_level=None)
        holder.execute("BEGIN IMMEDIATE")
        writers = [subprocess.Popen(harness.php_command(directives) + ["-r", code], stdout=subprocess.PIPE,
                                    start_new_session=True) for _ in range(2)]
        try:
            deadline = time.monotonic() + 20
            while self.workspace.log().count("Commit error:") < 2 and time.monotonic() < deadline:
                time.sleep(0.1)
        finally:
            holder.execute("COMMIT")
            holder.close()
            outputs = [writer.communicate(timeout=60)[0] for writer in writers]
        self.assertEqual([b"bool(true)\n"] * 2, outputs)
        commit_errors = "".join(line for line in self.workspace.log().splitlines(True) if "Commit error:" in line)
        for writer in writers:
            self.assertIn("p%d/" % writer.pid, commit_errors)
        with sqlite3.connect(database) as db:
            urls = {row[0] for row in db.execute("SELECT url FROM pagecache_purge_urls")}
        self.assertEqual({"http://a.example/%d" % writer.pid for writer in writers}, urls)
