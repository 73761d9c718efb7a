"""With vesk_pagecache.enable_qa_info, every response of a covered URL says
what the page cache did with it: "X-PageCache: hit", "miss" when the page
was stored, or "pass" with the reason it wasn't. The line is the response's
own and never part of a stored page; an uncovered URL gets none."""
import os
import unittest

import harness

RULES = harness.rules_file(
    harness.url_rule(".*\\.php", conditions=('global="_COOKIE[user]" type="not_exists"',)),
    '<response_rule app_id="-1" response_codes="200"/>')
PAGES = {
    "disabled.php": "<?php page_cache_disable_caching(); echo 'not kept';\n",
    # As WordPress ends its levels at shutdown.
    "shutdown.php": "<?php register_shutdown_function(function () { for ($i = ob_get_level(); $i > 0; $i--) "
                    "ob_end_flush(); }); echo str_repeat('shutdown ', 200), microtime(true);\n",
}


class Verdict(harness.Case):
    def verdict(self, port, path, **options):
        return harness.http_get(port, path, **options)[1].get("x-pagecache")

    def test_each_response_says_what_became_of_it(self):
        for kind in ("php -S", "php-fpm"):
            with self.subTest(server=kind):
                self.use_site(RULES)
                for name, text in PAGES.items():
                    harness.write(os.path.join(self.site, name), text)
                port = self.serve(kind, self.directives(vesk_pagecache__enable_qa_info="1")).port
                for page in ("/page.php?size=2000", "/shutdown.php"):
                    self.assertEqual("miss", self.verdict(port, page))
                    status, headers, _ = harness.http_get(port, page, {"Accept-Encoding": "gzip"})
                    self.assertEqual("hit", headers.get("x-pagecache"))
                    self.assertEqual("hit", self.verdict(port, page))
                self.assertEqual("pass (conditions)", self.verdict(port, "/page.php", headers={"Cookie": "user=1"}))
                self.assertEqual("pass (method)", self.verdict(port, "/page.php", method="POST"))
                self.assertEqual("pass (status rule)", self.verdict(port, "/status.php?code=500"))
                self.assertEqual("pass (fatal error)", self.verdict(port, "/fatal.php"))
                self.assertEqual("pass (empty)", self.verdict(port, "/empty.php"))
                self.assertEqual("pass (disabled)", self.verdict(port, "/disabled.php"))
                self.assertIsNone(self.verdict(port, "/call.txt"))

    def test_nothing_is_said_unless_asked(self):
        self.use_site(RULES)
        port = self.serve().port
        for _ in range(2):
            self.assertIsNone(self.verdict(port, "/page.php"))


if __name__ == "__main__":
    unittest.main()
