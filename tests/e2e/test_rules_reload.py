"""Workers pick up a changed rules file at their next request, once each."""
import os
import re
import shutil
import time
import unittest

import harness

SITE = os.path.join(harness.SOURCE_ROOT, "examples", "site")


class RulesReload(unittest.TestCase):
    def setUp(self):
        self.workspace = harness.Workspace()
        self.addCleanup(self.workspace.remove)
        shutil.copy(os.path.join(harness.SOURCE_ROOT, "conf", "pagecache_rules_schema.xsd"),
                    self.workspace.path("conf"))
        self.rules = self.workspace.path("conf", "pagecache_rules.xml")
        self.server = harness.BuiltinServer(
            self.workspace, SITE, self.workspace.directives(vesk_pagecache__log_verbosity_level="3"), workers=2)
        self.addCleanup(self.server.stop)

    def touch_later(self, seconds):
        later = time.time() + seconds
        os.utime(self.rules, (later, later))

    def serve(self, count):
        for _ in range(count):
            self.assertEqual(200, self.server.get("/info.php")[0])

    def reloads_by_pid(self):
        pids = re.findall(r" p(\d+)/t\d+ INFO\] Reloading rules File\.\. \n", self.workspace.log())
        return {pid: pids.count(pid) for pid in set(pids)}

    def test_a_later_file_is_reloaded_once_by_each_worker(self):
        self.serve(4)
        self.assertEqual({}, self.reloads_by_pid())
        self.touch_later(60)
        self.serve(20)
        reloads = self.reloads_by_pid()
        self.assertTrue(reloads)
        self.assertEqual({1}, set(reloads.values()))
        # The built-in server's parent serves requests beside its two workers.
        self.assertLessEqual(len(reloads), 3)
        self.assertNotIn("ERROR]", self.workspace.log())

    def test_a_broken_file_is_reported_and_not_retried_until_it_changes(self):
        with open(self.rules, "w") as f:
            f.write("<cache_settings><cache><url schema='http' match_type='glob'/></cache></cache_settings>")
        self.touch_later(60)
        self.serve(20)
        log = self.workspace.log()
        errors = re.findall(r"ERROR\] Dependencies file validation error on line 1 column \d+ during Vesk Page "
                            r"Cache reload\. .*glob.*\n", log)
        self.assertEqual(sum(self.reloads_by_pid().values()), len(errors))
        self.assertEqual({1}, set(self.reloads_by_pid().values()))
        # The pages are still served.
        status, _, body = self.server.get("/info.php")
        self.assertEqual(200, status)
        self.assertIn(b"Enable => Yes", body)


if __name__ == "__main__":
    unittest.main()
