"""Start-up of the extension under real server APIs."""
import os

import harness

SITE = os.path.join(harness.SOURCE_ROOT, "examples", "site")


class BuiltinServerStartup(harness.Case):
    def setUp(self):
        self.use_site(harness.shipped_rules(), SITE)

    def start(self, **directives):
        return self.serve(directives=self.directives(**directives))

    def test_builtin_server_is_a_web_run(self):
        server = self.start(vesk_pagecache__log_verbosity_level="5")
        status, _, body = server.get("/info.php")
        self.assertEqual(200, status)
        self.assertIn(b"Enable => Yes", body)
        self.assertLogged("INFO] Rules File: %s \n" % self.workspace.path("conf", "pagecache_rules.xml"))
        self.assertNotIn("disabled", self.workspace.log())

    def test_missing_log_directory_refuses_the_cache_but_serves_pages(self):
        errors = self.workspace.path("php-errors.log")
        server = self.start(vesk__log_dir=self.workspace.path("no-such-dir"), error_log=errors)
        status, _, body = server.get("/info.php")
        self.assertEqual(200, status)
        self.assertIn(b"Enable => No", body)
        with open(self.workspace.path("server.out"), encoding="latin-1") as f:
            self.assertIn("Vesk Page Cache is disabled: Failed to open the log file", f.read())
        # PHP's own error log has it too, where a daemon's standard error is lost.
        with open(errors, encoding="latin-1") as f:
            self.assertIn("Vesk Page Cache is disabled: Failed to open the log file", f.read())

