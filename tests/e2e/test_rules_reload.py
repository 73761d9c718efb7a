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
