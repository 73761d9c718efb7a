"""A request can't put its page under another request's key."""
import os
import unittest

import harness

RULES = """<?xml version="1.0" encoding="UTF-8"?>
<cache_settings><dont_cache/><cache>
  <url schema="http" host="&amp;lt;default-server&amp;gt;" path="page\\.php.*" lifetime="300"
       match_type="regex_match">
    <name>Pages</name>
    <split_by>
      <split_condition global="_GET[page]"/>
      <split_condition global="_GET[a]"/>
      <split_condition global="_GET[b]"/>
    </split_by>
  </url>
</cache></cache_settings>
"""


class Keys(unittest.TestCase):
    def setUp(self):
        self.workspace, self.root = harness.Workspace.with_site(self, RULES)
        self.server = harness.BuiltinServer(
            self.workspace, self.root, self.workspace.directives(vesk_pagecache__log_verbosity_level="3"))
        self.addCleanup(self.server.stop)

    def runs(self):
        try:
            with open(os.path.join(self.root, "runs.log")) as f:
                return f.read().split().count("page.php")
        except FileNotFoundError:
            return 0

    def page(self, query):
        status, _, body = self.server.get("/page.php?" + query)
        self.assertEqual(200, status)
        return body

    def assertOwnPage(self, query):
        runs = self.runs()
        body = self.page(query)
        self.assertEqual(runs + 1, self.runs(), query + " was served another request's page")
        return body

    def test_a_nul_byte_in_a_split_value_keeps_the_request_from_the_store(self):
        self.assertOwnPage("page=2%00poison")
        self.assertOwnPage("page=2%00poison")
        self.assertIn("INFO] Not using the cache: a split value of _GET holds a NUL byte", self.workspace.log())
        own = self.assertOwnPage("page=2")
        self.assertEqual(own, self.page("page=2"))

    def test_values_that_run_into_the_next_name_get_keys_of_their_own(self):
        self.assertOwnPage("a=x_GET&b=y")
        self.assertOwnPage("a=x&b=_GETy")
        self.assertOwnPage("a=x_GET_GET&b=")
        runs = self.runs()
        self.page("a=x_GET&b=y")
        self.assertEqual(runs, self.runs())


if __name__ == "__main__":
    unittest.main()
