"""The core of the page cache under the servers sites run in production:
nginx with php-fpm (two workers) and Apache with its PHP module."""
import gzip
import json
import os
import shutil
import unittest
import urllib.parse

import harness

RULES = """<?xml version="1.0" encoding="UTF-8"?>
<cache_settings>
  <dont_cache/>
  <cache>
    <url schema="http" host="&amp;lt;default-server&amp;gt;" path="(anonymous|pre)\\.php" lifetime="300" match_type="regex_match" priority="2">
      <name>Anonymous visitors</name>
      <conditions_OR_block><conditions_AND_block>
        <condition global="_SESSION[user]" type="not_exists"/>
      </conditions_AND_block></conditions_OR_block>
      <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by>
    </url>
    <url schema="http" host="&amp;lt;default-server&amp;gt;" path="variant\\.php" lifetime="300" match_type="regex_match" priority="3">
      <name>Variants by a request header</name>
      <conditions_OR_block><conditions_AND_block>
        <condition global="_SERVER[HTTP_X_VARIANT]" type="regex_match" value="[ab]"/>
      </conditions_AND_block></conditions_OR_block>
      <split_by><split_condition global="_SERVER[HTTP_X_VARIANT]"/></split_by>
    </url>
    <url schema="http" host="&amp;lt;default-server&amp;gt;" path="page\\.php.*" lifetime="300" match_type="regex_match" priority="1">
      <name>Pages</name>
      <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by>
    </url>
  </cache>
</cache_settings>
"""

HERE = os.path.dirname(os.path.abspath(__file__))


class CoreScenarios:
    server_class = None

    def setUp(self):
        if not self.server_class.available():
            self.fail("%s is not installed: scripts/bootstrap installs it" % self.server_class.__name__)
        self.workspace = harness.Workspace()
        self.addCleanup(self.workspace.remove)
        self.workspace.use_rules(RULES)
        self.site = self.workspace.path("site")
        shutil.copytree(os.path.join(HERE, "site"), self.site)
        for name in os.listdir(os.path.join(HERE, "session_site")):
            shutil.copy(os.path.join(HERE, "session_site", name), self.site)
        os.makedirs(self.workspace.path("sessions"))
        harness.make_shared(self.workspace, "log", "tmp", "run", "site", "sessions", "var")
        directives = self.workspace.directives(vesk_pagecache__log_verbosity_level="3")
        if os.geteuid() == 0 and self.server_class is harness.ApacheWithPhp:
            directives["vesk.httpd_uid"] = directives["vesk.httpd_gid"] = "65534"
        directives["session.save_path"] = self.workspace.path("sessions")
        directives["output_buffering"] = "4096"
        self.server = self.server_class(self.workspace, self.site, directives)
        self.addCleanup(self.server.stop)

    def get(self, path, headers=None):
        return harness.http_get(self.server.port, path, headers)

    def count(self, filename, text):
        try:
            with open(os.path.join(self.site, filename)) as f:
                return f.read().splitlines().count(text)
        except FileNotFoundError:
            return 0

    def test_miss_hit_304_and_gzip(self):
        status, headers, body = self.get("/page.php?size=2000")
        self.assertEqual(200, status, self.workspace.log()[-2000:])
        # Both workers (or children) serve the stored page without running it.
        for _ in range(6):
            again = self.get("/page.php?size=2000")
            self.assertEqual((200, body), (again[0], again[2]))
        self.assertEqual(1, self.count("runs.log", "page.php"))
        status, _, empty = self.get("/page.php?size=2000", {"If-Modified-Since": headers["last-modified"]})
        self.assertEqual((304, b""), (status, empty))
        status, headers, packed = self.get("/page.php?size=2000", {"Accept-Encoding": "gzip"})
        self.assertEqual("gzip", headers.get("content-encoding"))
        self.assertEqual(body, gzip.decompress(packed))
        self.assertEqual(1, self.count("runs.log", "page.php"))

    def test_conditions_and_variants_on_a_server_variable(self):
        # Read before the script makes $_SERVER (php-fpm) or after the
        # server made it (Apache): either way the header's variable decides.
        shutil.copy(os.path.join(self.site, "page.php"), os.path.join(self.site, "variant.php"))

        def page(variant):
            headers = {"X-Variant": variant} if variant else {}
            status, _, body = self.get("/variant.php", headers)
            self.assertEqual(200, status, self.workspace.log()[-2000:])
            return body
        a, b = page("a"), page("b")
        self.assertNotEqual(a, b)
        for _ in range(3):
            self.assertEqual((a, b), (page("a"), page("b")))
        self.assertEqual(2, self.count("runs.log", "variant.php"))
        # A value the condition refuses, and none at all: the script runs each time.
        for variant in ("c", "c", None, None):
            self.assertNotIn(page(variant), (a, b))
        self.assertEqual(6, self.count("runs.log", "variant.php"))

    def test_session_dependent_page(self):
        status, first_headers, first = self.get("/anonymous.php")
        self.assertEqual(200, status, self.workspace.log()[-2000:])
        for _ in range(4):
            status, headers, again = self.get("/anonymous.php")
            self.assertEqual((200, first), (status, again))
            self.assertNotEqual(first_headers.get("set-cookie"), headers.get("set-cookie"))
        self.assertEqual(1, self.count("steps.log", "anonymous.php after session_start"))
        self.assertEqual(5, self.count("steps.log", "anonymous.php start"))

    def test_purge_rule_as_the_workers_user(self):
        self.get("/page.php?purge")
        url = "http://127.0.0.1:%d/page.php?purge" % self.server.port
        status, _, answer = self.get("/call.php?" + urllib.parse.urlencode(
            {"fn": "page_cache_purge", "args": json.dumps([{"url": url}])}))
        self.assertEqual((200, b"true"), (status, answer))
        # The worker that made the rule no longer serves the page; whichever
        # worker answers, the page is never older than the rule. The server
        # picks the worker, so ask until the one that made the rule answers.
        runs = self.count("runs.log", "page.php")
        for _ in range(40):
            self.get("/page.php?purge")
            if self.count("runs.log", "page.php") > runs:
                break
        self.assertGreaterEqual(self.count("runs.log", "page.php"), runs + 1)
        self.assertTrue(os.path.exists(self.workspace.path("var", "db", "pagecache.db")))
        self.assertNotIn("ERROR]", self.workspace.log())


class NginxWithFpm(CoreScenarios, unittest.TestCase):
    server_class = harness.FpmBehindNginx


class Apache(CoreScenarios, unittest.TestCase):
    server_class = harness.ApacheWithPhp


if __name__ == "__main__":
    unittest.main()
