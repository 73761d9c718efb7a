"""Forked workers share the one start-up, and pick up a changed rules file
at their next request, once each."""
import os
import re

import harness

SITE = os.path.join(harness.SOURCE_ROOT, "examples", "site")


class RulesReload(harness.Case):
    def setUp(self):
        self.use_site(harness.shipped_rules(), SITE)
        self.server = self.serve(directives=self.directives(vesk_pagecache__log_verbosity_level="3"), workers=2)

    def serve_pages(self, count):
        for _ in range(count):
            self.assertEqual(200, self.server.get("/info.php")[0])

    def reloads_by_pid(self):
        pids = re.findall(r" p(\d+)/t\d+ INFO\] Reloading rules File\.\. \n", self.workspace.log())
        return {pid: pids.count(pid) for pid in set(pids)}

    def test_a_later_file_is_reloaded_once_by_each_worker(self):
        self.serve_pages(4)
        self.assertEqual({}, self.reloads_by_pid())
        # Start-up ran once, before the workers were forked.
        self.assertEqual(1, self.workspace.log().count("Rules File:"))
        self.workspace.change_rules()
        self.serve_pages(20)
        reloads = self.reloads_by_pid()
        self.assertTrue(reloads)
        self.assertEqual({1}, set(reloads.values()))
        # The built-in server's parent serves requests beside its two workers.
        self.assertLessEqual(len(reloads), 3)
        self.assertNotIn("ERROR]", self.workspace.log())

    def test_a_broken_file_is_reported_and_not_retried_until_it_changes(self):
        self.workspace.change_rules("<cache_settings><cache><url schema='http' match_type='glob'/></cache></cache_settings>")
        self.serve_pages(20)
        log = self.workspace.log()
        errors = re.findall(r"ERROR\] Dependencies file validation error on line 1 column \d+ during Vesk Page "
                            r"Cache reload\. .*glob.*\n", log)
        self.assertEqual(sum(self.reloads_by_pid().values()), len(errors))
        self.assertEqual({1}, set(self.reloads_by_pid().values()))
        # The pages are still served.
        status, _, body = self.server.get("/info.php")
        self.assertEqual(200, status)
        self.assertIn(b"Enable => Yes", body)


class ResponseRulesReload(harness.Case):
    """A hit skips the response rules that its page passed when stored only
    while those very rules are in force."""

    def test_a_page_stored_before_a_response_rule_is_held_to_it(self):
        base = harness.url_rule(".*", compress="true")
        self.use_site(harness.rules_file(base))
        server = self.serve(directives=self.directives(vesk_pagecache__enable_qa_info="1"), workers=2)
        for case, (rule, verdict) in enumerate((
                ('<response_rule app_id="-1" response_codes="404"/>', "status rule"),
                ('<response_rule app_id="-1" response_codes="200"><response_headers><header name="Last-Modified"'
                 ' match_type="exists"/></response_headers></response_rule>', "header rule"))):
            path, gzip = "/page.php?size=2000&case=%d" % case, {"Accept-Encoding": "gzip"}
            self.workspace.change_rules(harness.rules_file(base))
            for headers in ({}, gzip, {}, gzip, {}, gzip):
                server.get(path, headers)
            self.assertEqual("hit", server.get(path, gzip)[1]["X-PageCache"])
            self.workspace.change_rules(harness.rules_file(base, rule))
            for headers in (gzip, {}, gzip, {}):
                self.assertEqual("pass (%s)" % verdict, server.get(path, headers)[1]["X-PageCache"], (case, headers))
