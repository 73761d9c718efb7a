"""Start-up of the extension under real server APIs."""
import os
import subprocess
import unittest

import harness

SITE = os.path.join(harness.SOURCE_ROOT, "examples", "site")


class BuiltinServerStartup(harness.Case):
    def setUp(self):
        self.use_site(harness.shipped_rules(), SITE)

    def start(self, workers=0, **directives):
        return self.serve(directives=self.directives(**directives), workers=workers)

    def test_builtin_server_is_a_web_run_and_logs_its_parameters(self):
        server = self.start(vesk_pagecache__log_verbosity_level="5")
        status, _, body = server.get("/info.php")
        self.assertEqual(200, status)
        self.assertIn(b"Enable => Yes", body)
        self.assertLogged("TRACE] Initializing Vesk Page cache with following parameters: \n")
        self.assertLogged("TRACE] dependencies_file: pagecache_rules.xml \n")
        self.assertLogged("INFO] Rules File: %s \n" % self.workspace.path("conf", "pagecache_rules.xml"))
        self.assertNotIn("disabled", self.workspace.log())

    def test_forked_workers_share_the_start_up_and_serve(self):
        server = self.start(workers=2, vesk_pagecache__log_verbosity_level="3")
        for _ in range(6):
            status, _, body = server.get("/info.php")
            self.assertEqual(200, status)
            self.assertIn(b"Enable => Yes", body)
        # Start-up runs once, before the workers are forked.
        self.assertEqual(1, self.workspace.log().count("Rules File:"))

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


class CommandLine(unittest.TestCase):
    def test_php_m_lists_module_and_engine_extension(self):
        output = subprocess.run(harness.php_command({}) + ["-m"], capture_output=True, text=True,
                                timeout=30, check=True).stdout
        modules, engine = output.split("[Zend Modules]")
        self.assertIn("\nVesk Page Cache\n", modules)
        self.assertIn("\nVesk Page Cache\n", engine)
