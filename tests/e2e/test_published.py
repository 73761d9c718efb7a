"""Published pages under nginx + php-fpm and Apache + mod_php, each with the
configuration the tool generates: a published page goes out without PHP,
byte for byte the miss, and every ending of the page ends its files."""
import gzip
import os
import subprocess
import time
import unittest

import harness

RULE = harness.url_rule("(page|sized|off)\\.php", "Published", id="7", publish="true",
                        conditions=('global="_COOKIE[logged_in]" type="not_exists" value=""',))
SHORT = harness.url_rule("(short)\\.php", "Short", id="8", publish="true", lifetime="2")
BIG = harness.url_rule("(big1|big2)\\.php", "Big", id="9", publish="true", compress="false")
RULES = harness.rules_file(RULE, SHORT, BIG)


class Published:
    """The scenarios, for one kind of server (KIND)."""

    KIND = None

    def setUp(self):
        self.use_site(RULES)
        self.publish_dir = self.workspace.path("tmp", "published")
        for name in ("short", "off"):
            with open(os.path.join(self.site, name + ".php"), "w") as f:
                f.write("<?php require __DIR__ . '/_record.php';\n%secho '<p>%s ' . microtime(true) . '</p>';\n"
                        % ("page_cache_disable_caching();\n" if name == "off" else "", name))
        # Two pages of 700 kB that a store bound of 1 MiB can't both keep.
        for name in ("big1", "big2"):
            with open(os.path.join(self.site, name + ".php"), "w") as f:
                f.write("<?php require __DIR__ . '/_record.php';\necho bin2hex(random_bytes(350000));\n")
        with open(os.path.join(self.site, "size.txt"), "w") as f:
            f.write("3000")
        self.values = self.directives(vesk_pagecache__log_verbosity_level="4", vesk_pagecache__enable_qa_info="1",
                                      vesk_pagecache__clean_frequency="1", vesk_pagecache__max_store_size="1",
                                      vesk_pagecache__publish_dir=self.publish_dir, vesk__file_mode="0644")
        self.server = self.serve(self.KIND, directives=self.values, server_config=self.generated())

    def generated(self):
        """The tool's configuration for this server, from the workers' directives."""
        ini = self.workspace.path("tool.ini")
        with open(ini, "w") as f:
            f.write("".join('%s = "%s"\n' % item for item in self.values.items()))
        name = "nginx" if self.KIND == "php-fpm" else "apache"
        result = subprocess.run([harness.TOOL, "--ini", ini, "publish-config", name], capture_output=True,
                                text=True, timeout=30, env=dict(os.environ, PHP_INI_SCAN_DIR=""))
        self.assertEqual(0, result.returncode, result.stderr)
        return result.stdout

    def get(self, path, **headers):
        return harness.http_get(self.server.port, path, headers)

    def published_files(self):
        return sorted(os.path.relpath(os.path.join(d, n), self.publish_dir)
                      for d, _, names in os.walk(self.publish_dir) for n in names if n.endswith((".html", ".gz")))

    def assertFromPhp(self, path, **headers):
        status, response, body = self.get(path, **headers)
        self.assertEqual(200, status)
        self.assertIn("x-pagecache", response)
        return response, body

    def assertWithoutPhp(self, path, **headers):
        runs = self.runs(path.lstrip("/"))
        status, response, body = self.get(path, **headers)
        self.assertEqual(200, status, body)
        # Every answer of PHP's on a covered URL says what became of it.
        self.assertNotIn("x-pagecache", response)
        self.assertEqual(runs, self.runs(path.lstrip("/")))
        return response, body

    def test_published_page_is_the_miss_without_php(self):
        _, miss = self.assertFromPhp("/sized.php")
        self.assertEqual(2, len(self.published_files()), self.published_files())
        response, clear = self.assertWithoutPhp("/sized.php")
        self.assertEqual(miss, clear)
        self.assertEqual("text/html; charset=UTF-8", response["content-type"])
        response, packed = self.assertWithoutPhp("/sized.php", **{"Accept-Encoding": "gzip"})
        self.assertEqual("gzip", response["content-encoding"])
        self.assertIn("Accept-Encoding", response["vary"])
        self.assertEqual(miss, gzip.decompress(packed))
        status, _, body = self.get("/sized.php", **{"If-Modified-Since": response["last-modified"]})
        self.assertEqual((304, b""), (status, body))

    def test_logged_in_visitor_always_reaches_php(self):
        self.assertFromPhp("/page.php")
        self.assertWithoutPhp("/page.php")
        # PHP reads the last one as logged_in too.
        for cookie in ("logged_in=1", "a=1; logged_in=x", "logged.in=1"):
            with self.subTest(cookie):
                response, _ = self.assertFromPhp("/page.php", Cookie=cookie)
                self.assertEqual("pass (conditions)", response["x-pagecache"])

    def test_requests_of_another_form_reach_php(self):
        self.assertFromPhp("/page.php")
        self.assertWithoutPhp("/page.php")
        for method, path in (("GET", "/page.php?x=1"), ("GET", "/page.php?"), ("GET", "/page%2Ephp"),
                             ("GET", "/x/../page.php"), ("POST", "/page.php")):
            with self.subTest(method + " " + path):
                runs = self.runs()
                harness.http_get(self.server.port, path, method=method)
                self.assertEqual(runs + 1, self.runs())
        self.assertWithoutPhp("/page.php")

    def test_each_ending_removes_the_files(self):
        functions = [
            ("page_cache_remove_cached_contents", "http://<default-server>/(page|sized|off)\\.php"),
            ("page_cache_remove_cached_contents_by_uri", "Published", "/page.php"),
            ("page_cache_remove_cached_contents_by_rule", "Published"),
            ("page_cache_remove_cached_contents_by_rules_ids", [7]),
            ("page_cache_remove_all_cached_contents",),
        ]
        endings = [(f[0], lambda f=f: self.assertIs(True, self.call(self.server.port, *f))) for f in functions]
        # The operators' tool removes as the workers do.
        endings.append(("vesk-pagecache remove all", self.tool_removes_all))
        # Last: the cleaner ends every file once more after the purge.
        endings.append(("page_cache_purge", lambda: self.assertIs(True, self.call(
            self.server.port, "page_cache_purge",
            {"url": "http://127.0.0.1:%d/page.php" % self.server.port, "created_ago": 0}))))
        self.assertFromPhp("/page.php")
        for name, ending in endings:
            with self.subTest(name):
                self.assertWithoutPhp("/page.php")
                ending()
                self.assertEqual([], self.published_files())
                # Stored and published again.
                self.assertFromPhp("/page.php")

    def tool_removes_all(self):
        result = subprocess.run([harness.TOOL, "--ini", self.workspace.path("tool.ini"), "remove", "all"],
                                capture_output=True, text=True, timeout=30, env=dict(os.environ, PHP_INI_SCAN_DIR=""))
        self.assertEqual(0, result.returncode, result.stderr)

    def test_purge_by_another_process_removes_the_files_at_the_next_cleaning(self):
        self.assertFromPhp("/page.php")
        self.assertWithoutPhp("/page.php")
        # The command line's PHP, which publishes nothing: only the cleaner
        # sees the purge database change.
        directives = dict(self.values, **{"vesk_pagecache.enable_cli": "1"})
        directives.pop("vesk_pagecache.publish_dir")
        code = "var_dump(page_cache_purge(['url' => 'http://127.0.0.1:%d/page.php', 'created_ago' => 0]));"
        result = subprocess.run(harness.php_command(directives) + ["-r", code % self.server.port],
                                capture_output=True, timeout=60)
        self.assertEqual(b"bool(true)\n", result.stdout)
        self.wait_until(lambda: not self.published_files(), 5, "a purge left files published")
        self.assertFromPhp("/page.php")

    def test_expiry_removes_the_files_at_the_next_cleaning(self):
        self.assertFromPhp("/short.php")
        self.assertWithoutPhp("/short.php")
        self.wait_until(lambda: not self.published_files(), 5, "the cleaner left an expired page's files")
        self.assertFromPhp("/short.php")

    def test_eviction_under_the_store_bound_removes_the_files(self):
        self.assertFromPhp("/big1.php")
        time.sleep(1.1)
        self.assertFromPhp("/big2.php")
        # The cleaner evicts the older page, and its files with it.
        self.wait_until(lambda: len(self.published_files()) == 1, 5, "an evicted page's files stayed")
        self.assertTrue(self.published_files()[0].endswith("big2.php.vesk.html"), self.published_files())
        self.assertWithoutPhp("/big2.php")
        self.assertFromPhp("/big1.php")

    def test_disabled_caching_and_a_changed_rule_leave_nothing_published(self):
        self.assertFromPhp("/off.php")
        self.assertEqual([], self.published_files())
        self.assertFromPhp("/page.php")
        self.assertEqual(1, len(self.published_files()))
        # A rules file without publish: the first worker to reload ends the files.
        time.sleep(1.1)
        self.workspace.use_rules(RULES.replace('publish="true"', ""))
        self.wait_until(lambda: self.get("/off.php") and not self.published_files(), 10,
                        "a reload left files published")

    def test_crafted_urls_publish_nothing_outside(self):
        before = set(self.all_files())
        for path in ("/x/../page.php", "/x/%2e%2e/page.php", "//page.php", "/x/..%2f..%2f../page.php"):
            self.get(path)
        self.assertEqual([], self.published_files())
        for name in set(self.all_files()) - before:
            self.assertFalse(name.endswith((".vesk.html", ".gz")), name)

    def all_files(self):
        return [os.path.join(d, n) for d, _, names in os.walk(self.workspace.root) for n in names]


class PublishedUnderNginx(Published, harness.Case):
    KIND = "php-fpm"


class PublishedUnderApache(Published, harness.Case):
    KIND = "apache"


if __name__ == "__main__":
    unittest.main()
