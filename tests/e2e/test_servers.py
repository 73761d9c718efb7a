"""The core of the page cache under each kind of server: php -S, nginx with
php-fpm (two workers) and Apache with its PHP module. Rules that read
$_SESSION decide when the script starts its session."""
import os
import shutil

import harness

RULES = harness.rules_file(
    harness.url_rule("(anonymous|pre)\\.php", "Anonymous visitors", priority="2",
                     conditions=('global="_SESSION[user]" type="not_exists"',)),
    harness.url_rule("variant\\.php", "Variants by a request header", ("_SERVER[HTTP_X_VARIANT]",), priority="3",
                     conditions=('global="_SERVER[HTTP_X_VARIANT]" type="regex_match" value="[ab]"',)),
    harness.url_rule("member\\.php", "Members", (), conditions=('global="_SESSION[user]" type="exists"',)),
    harness.url_rule("page\\.php.*", priority="1"))

HERE = os.path.dirname(os.path.abspath(__file__))


class CoreScenarios:
    kind = None

    def setUp(self):
        self.use_site(RULES, sessions=True)
        for name in os.listdir(os.path.join(HERE, "session_site")):
            shutil.copy(os.path.join(HERE, "session_site", name), self.site)
        directives = self.directives(vesk_pagecache__log_verbosity_level="5")
        if os.geteuid() == 0 and self.kind == "apache":
            # The user Apache's children run as.
            directives["vesk.httpd_uid"] = directives["vesk.httpd_gid"] = "65534"
        # As Debian's production php.ini has it: output before the session
        # start stays buffered, so a stored page's headers can still follow it.
        directives["output_buffering"] = "4096"
        self.server = self.serve(self.kind, directives)

    def get(self, path, headers=None):
        return harness.http_get(self.server.port, path, headers)

    def steps(self):
        try:
            with open(os.path.join(self.site, "steps.log")) as f:
                return f.read().splitlines()
        except FileNotFoundError:
            return []

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
        self.assertEqual(2, self.runs("variant.php"))
        # A value the condition refuses, and none at all: the script runs each time.
        for variant in ("c", "c", None, None):
            self.assertNotIn(page(variant), (a, b))
        self.assertEqual(6, self.runs("variant.php"))

    def test_stored_page_is_served_when_the_session_starts(self):
        status, headers, first = self.get("/anonymous.php")
        self.assertEqual(200, status, self.workspace.log()[-2000:])
        # The visitor gets the session cookie; the stored page doesn't keep it.
        self.assertTrue(headers.get("set-cookie", "").startswith("PHPSESSID="))
        self.assertLogged("Ignoring header for storing (during session startup): Set-Cookie: PHPSESSID=")
        self.assertLogged("waiting for session data before deciding whether to use cached data")
        for _ in range(4):
            status, again_headers, again = self.get("/anonymous.php")
            self.assertEqual((200, first), (status, again))
            # Each visitor gets a session of its own, never the first one's.
            self.assertEqual(1, again_headers["set-cookie"].count("PHPSESSID="))
            self.assertNotEqual(headers["set-cookie"], again_headers["set-cookie"])
        # The later runs stopped at session_start.
        self.assertEqual(["anonymous.php start", "anonymous.php after session_start"] + ["anonymous.php start"] * 4,
                         self.steps())
        self.assertLogged("Calling vesk_bailout")

    def test_output_before_the_session_goes_out_first_and_is_not_stored(self):
        _, _, first = self.get("/pre.php")
        _, _, second = self.get("/pre.php")
        self.assertTrue(first.startswith(b"printed before the session\nafter the session "))
        self.assertEqual(first, second)
        self.assertEqual(["pre.php start", "pre.php after session_start", "pre.php start"], self.steps())
        self.assertLogged("Storing pre-session data before deciding whether to use cache")

    def test_a_condition_that_fails_leaves_the_script_running(self):
        self.get("/member.php")
        self.get("/member.php")
        self.assertEqual(4, len(self.steps()))
        self.assertLogged("is NOT cacheable")

    def test_purge_rule_as_the_workers_user(self):
        self.get("/page.php?purge")
        url = "http://127.0.0.1:%d/page.php?purge" % self.server.port
        self.assertIs(True, self.call(self.server.port, "page_cache_purge", {"url": url}))
        # The worker that made the rule no longer serves the page; whichever
        # worker answers, the page is never older than the rule. The server
        # picks the worker, so ask until the one that made the rule answers.
        runs = self.runs()
        for _ in range(40):
            self.get("/page.php?purge")
            if self.runs() > runs:
                break
        self.assertGreaterEqual(self.runs(), runs + 1)
        self.assertTrue(os.path.exists(self.workspace.path("var", "db", "pagecache.db")))
        self.assertNotIn("ERROR]", self.workspace.log())


class Builtin(CoreScenarios, harness.Case):
    kind = "php -S"


class NginxWithFpm(CoreScenarios, harness.Case):
    kind = "php-fpm"


class Apache(CoreScenarios, harness.Case):
    kind = "apache"
