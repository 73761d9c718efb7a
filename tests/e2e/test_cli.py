"""The operators' tool against pages stored by a real server: it reads the
workers' directives from ini files, finds what they stored, removes it so
that the next request is a miss, and shows their statistics."""
import os
import sqlite3
import subprocess
import time
import urllib.request

import harness

RULES = """<?xml version="1.0" encoding="UTF-8"?>
<cache_settings><dont_cache><url path="http://127.0.0.1/never.php"/></dont_cache><cache>
  <url schema="http" host="&lt;default-server&gt;" path="(page)\\.php" lifetime="300"
       match_type="regex_match" id="7" priority="2">
    <name>Pages</name>
    <conditions_OR_block><conditions_AND_block>
      <condition global="_COOKIE[session]" type="not_exists" value=""/>
    </conditions_AND_block></conditions_OR_block>
    <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by>
  </url>
  <url schema="http" host="&lt;default-server&gt;" path="sized.php" lifetime="300" id="8" priority="1">
    <name>Sized</name>
  </url>
</cache></cache_settings>
"""


def ini_text(values):
    return "".join('%s = "%s"\n' % item for item in values.items())


class Tool(harness.Case):
    def setUp(self):
        self.use_site(RULES)
        self.statsd = "unix:" + self.workspace.path("run", "statsd.sock")
        self.directives = self.workspace.directives(vesk_pagecache__log_verbosity_level="3",
                                                    vesk__statsd_connection_string=self.statsd)
        del self.directives["vesk.pid_dir"]  # the cleaner and the tool share a default
        self.directives["vesk_pagecache.clean_frequency"] = "1"
        self.server = None

    def start_server(self, **extra):
        self.server = harness.BuiltinServer(self.workspace, self.site, dict(self.directives, **extra))
        self.addCleanup(self.server.stop)

    def write_ini(self):
        """The workers' directives for the tool: half in the file it gets
        with --ini, the rest in a scan directory named by PHP_INI_SCAN_DIR.
        Answers the command's start and its environment."""
        items = sorted(self.directives.items())
        ini = self.workspace.path("cli-php.ini")
        harness.write(ini, "[PHP]\n" + ini_text(dict(items[::2])))
        scan = self.workspace.path("cli-conf.d")
        os.makedirs(scan, exist_ok=True)
        harness.write(os.path.join(scan, "50-vesk.ini"), ini_text(dict(items[1::2])))
        return [harness.TOOL, "--ini", ini], dict(os.environ, PHP_INI_SCAN_DIR=scan)

    def tool(self, *args):
        command, env = self.write_ini()
        return subprocess.run(command + list(args), capture_output=True, text=True, timeout=60, env=env)

    def ok(self, *args):
        result = self.tool(*args)
        self.assertEqual(0, result.returncode, result.stderr)
        return result.stdout

    def page(self, path):
        status, headers, body = self.server.get(path)
        self.assertEqual(200, status)
        return body

    def assertServedFromStore(self, path, expected):
        runs = self.runs()
        self.assertEqual(expected, expected and self.page(path))
        self.assertEqual(runs, self.runs(), "%s was built again" % path)

    def store_pages(self):
        self.start_server()
        for path in ("/page.php?a=1", "/page.php?a=2"):
            self.assertServedFromStore(path, self.page(path))
        harness.write(os.path.join(self.site, "size.txt"), "5000")
        sized = self.page("/sized.php")
        self.assertEqual(sized, self.page("/sized.php"))

    def test_status_list_and_inspect_show_what_the_workers_stored(self):
        self.store_pages()
        # The cleaner's first round after the store was made writes its pid file.
        self.wait_until(lambda: "cleaner: running, pid" in self.ok("status"), 5, "the cleaner wasn't found")
        status = self.ok("status")
        self.assertIn('rule "Pages": 2 pages, 0 gzip copies', status)
        self.assertIn('rule "Sized": 1 pages, 1 gzip copies', status)
        listed = self.ok("list", "--rule", "Pages").splitlines()
        self.assertEqual(2, len(listed), listed)
        for line in listed:
            self.assertRegex(line, r"^Pages\thttp://127\.0\.0\.1:\d+/page\.php\?a=[12]\t[0-9a-f]{32}\tstatus 200\t")
        inspected = self.ok("inspect", "http://127.0.0.1:%d//page.php?a=9" % self.server.port)
        self.assertIn('covered by rule "Pages" (id 7)', inspected)
        self.assertEqual(2, inspected.count("stored copy "), inspected)
        self.assertIn("block 1: _COOKIE[session] does not exist: yes", inspected)
        self.assertIn("this request: conditions hold; its copy is", inspected)
        # The copy of the URL's own query is told from the others.
        own = self.ok("inspect", "http://127.0.0.1:%d/page.php?a=2" % self.server.port)
        self.assertRegex(own, r"stored copy [0-9a-f]{32} of http://127\.0\.0\.1:\d+/page\.php\?a=2: .* "
                              r"\(this request's\)\n")
        self.assertEqual(1, own.count("(this request's)"), own)
        logged_in = self.ok("inspect", "--cookie", "session=1", "http://127.0.0.1/page.php")
        self.assertIn("block 1: _COOKIE[session] does not exist: no", logged_in)
        self.assertIn("this request: conditions fail: the page is neither served from the store nor stored",
                      logged_in)
        self.assertRegex(inspected, r"of http://127\.0\.0\.1:\d+/page\.php\?a=1: status 200, age \d+ s, expires in \d+ s, \d+ bytes\n    Last-Modified: ")
        self.assertIn("not covered: no enabled rule", self.ok("inspect", "http://127.0.0.1/other.php"))

    def test_each_removal_makes_the_next_request_a_miss(self):
        removals = [
            ("pattern", "http://<default-server>/(page)\\.php"),
            ("uri", "Pages", "/page.php?a=1"),
            ("rule", "Pages"),
            ("ids", "7"),
            ("all",),
        ]
        self.start_server()
        for removal in removals:
            with self.subTest(removal[0]):
                body = self.page("/page.php?a=1")
                if removal is removals[0]:
                    # Two seconds old, the page is kept in the worker's memory
                    # and trusted there while its folders' watches say nothing.
                    time.sleep(2.1)
                    self.assertServedFromStore("/page.php?a=1", body)
                self.assertServedFromStore("/page.php?a=1", body)
                self.assertIn("removed: " + " ".join(removal), self.ok("remove", *removal))
                runs = self.runs()
                self.assertNotEqual(body, self.page("/page.php?a=1"))
                self.assertEqual(runs + 1, self.runs())
        # What no rule names removes nothing and says so.
        result = self.tool("remove", "rule", "Nothing")
        self.assertEqual(1, result.returncode)
        self.assertEqual('vesk-pagecache: no rule "Nothing" in the rules file; nothing removed\n', result.stderr)

    def test_cluster_removal_is_queued_for_the_other_nodes_only_on_a_node(self):
        self.directives["vesk.node_id"] = "3"
        self.ok("remove", "--cluster", "ids", "7", "8")
        self.ok("remove", "rule", "Pages")
        with sqlite3.connect(self.workspace.path("var", "db", "tkd.db")) as db:
            rows = db.execute("SELECT type, payload, other_nodes_only, server FROM tkd_tasks").fetchall()
        self.assertEqual([(80, '["page_cache_remove_cached_contents_by_rules_ids",7,8]', 1, 3)], rows)

    def test_check_rules_shows_the_order_of_trial_warnings_and_errors(self):
        checked = self.ok("check-rules")
        self.assertIn("valid, 2 rules, in order of trial:", checked)
        self.assertLess(checked.index('1. "Pages" (id 7)'), checked.index('2. "Sized" (id 8)'))
        self.assertIn("never cached: http://127.0.0.1/never.php", checked)
        self.assertIn("warning: Rule Pages ( http://<default-server>/(?:page)\\.php ) shares its pages across hosts",
                      checked)
        broken = self.workspace.path("conf", "broken.xml")
        harness.write(broken, RULES.replace('match_type="regex_match"', 'match_type="fuzzy"'))
        result = self.tool("check-rules", broken)
        self.assertEqual(1, result.returncode)
        self.assertEqual(1, len(result.stderr.splitlines()), result.stderr)
        self.assertIn("broken.xml", result.stderr)
        self.assertIn("fuzzy", result.stderr)

    def test_stats_sums_the_workers_stream_and_serves_it_to_prometheus(self):
        metrics_port = harness.free_port()
        command, env = self.write_ini()
        stats = subprocess.Popen(command + ["stats", "--exit-after", "5", "--prometheus", "127.0.0.1:%d" % metrics_port],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, start_new_session=True,
                                 env=env)
        self.addCleanup(lambda: stats.poll() is None and harness._terminate(stats))
        self.assertTrue(stats.stderr.readline().startswith("listening on"))
        self.start_server()
        body = self.page("/page.php")   # possible, miss, time saved
        metrics = urllib.request.urlopen("http://127.0.0.1:%d/metrics" % metrics_port, timeout=10).read()
        self.assertIn(b'vesk_pagecache_misses_total{rule_id="7",app_id="-1",rule="Pages"} 1\n', metrics)
        self.assertEqual(body, self.page("/page.php"))  # possible, hit
        out, _ = stats.communicate(timeout=30)
        self.assertEqual(0, stats.returncode)
        self.assertRegex(out, r"7 +-1 +Pages +2 +1 +1 +50\.0% +\d+")

    def as_nobody(self):
        self.directives.update({"vesk.httpd_uid": "65534", "vesk.httpd_gid": "65534"})
        for name in ("", "log", "tmp", "conf"):
            os.chmod(self.workspace.path(name), 0o777 if name in ("log", "tmp") else 0o755)

    def test_a_store_it_cannot_read_and_an_unknown_rule_are_errors_not_emptiness(self):
        self.store_pages()
        unknown = self.tool("list", "--rule", "NoSuchRule")
        self.assertEqual((1, 'vesk-pagecache: no rule "NoSuchRule" in the rules file\n'),
                         (unknown.returncode, unknown.stderr))
        if os.geteuid() == 0:
            self.as_nobody()  # root reads any directory
        os.chmod(self.workspace.path("tmp", "pagecache", "HTML-Cache"), 0)
        for args in (["status"], ["list"], ["inspect", "http://127.0.0.1:%d/page.php" % self.server.port]):
            result = self.tool(*args)
            self.assertEqual(1, result.returncode, args)
            self.assertRegex(result.stderr, r"^vesk-pagecache: cannot read .*HTML-Cache: Permission denied\n$")

    def test_bad_arguments_get_one_line_and_exit_code_2(self):
        for args in (["frobnicate"], [], ["list", "--rul", "x"], ["inspect"], ["inspect", "ftp://x/"],
                     ["inspect", "--cookie", "session", "http://127.0.0.1/page.php"],
                     ["remove", "ids", "seven"], ["remove", "uri", "Pages"], ["remove", "everything"],
                     ["check-rules", "a", "b"], ["stats", "--prometheus", "nowhere"],
                     ["stats", "--exit-after", "0"]):
            with self.subTest(args):
                result = self.tool(*args)
                self.assertEqual(2, result.returncode, result.stderr)
                self.assertEqual(1, len(result.stderr.splitlines()), result.stderr)
                self.assertTrue(result.stderr.startswith("vesk-pagecache: "), result.stderr)
