"""A request can't put its page under another request's key."""
import unittest

import harness

RULES = harness.rules_file(harness.url_rule("page\\.php.*", splits=("_GET[page]", "_GET[a]", "_GET[b]")))


class Keys(harness.Case):
    def setUp(self):
        self.use_site(RULES)
        self.server = self.serve(directives=self.directives(vesk_pagecache__log_verbosity_level="3"))

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
        self.assertLogged("INFO] Not using the cache: a split value of _GET holds a NUL byte")
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
