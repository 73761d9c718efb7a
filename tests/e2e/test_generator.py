"""The rules file generator run as a task daemon or operator would, beside a
running server that picks the new file up by its date. (A file that fails
validation is left out: the unit tests show the one in force stays.)"""
import os
import shutil
import sqlite3
import subprocess
import time

import harness

GENERATOR = os.path.join(os.path.dirname(harness.EXTENSION), "pagecache-rules-generate")


PAGES = ('<url schema="http" host="&amp;lt;default-server&amp;gt;" path="page\\.php" lifetime="300" '
         'match_type="regex_match" priority="1"><name>Pages</name></url>')


class Generator(harness.Case):
    def setUp(self):
        self.use_site(harness.rules_file())
        # The generator writes beside the schema, in a directory of its own.
        self.etc = self.workspace.path("etc")
        os.makedirs(self.etc)
        shutil.copy(self.workspace.path("conf", "pagecache_rules_schema.xsd"), self.etc)
        self.database = self.workspace.path("tkd.db")

    def generate(self, *extra):
        return subprocess.run([GENERATOR, "--db", self.database, "--product-dir", self.workspace.root] + list(extra),
                              capture_output=True, timeout=60)

    def serve_generated(self):
        """A server that reads the generated file, and serves the page twice."""
        server = self.serve(directives=self.directives(vesk__conf_dir=self.etc,
                                                       vesk_pagecache__log_verbosity_level="3"))
        for _ in range(2):
            server.get("/page.php")
        return server

    def test_new_file_from_the_tables_is_taken_up(self):
        # From nothing: the tables are made, and the file has no rules.
        result = self.generate("--init")
        self.assertEqual(0, result.returncode, result.stderr)
        rules = os.path.join(self.etc, "pagecache_rules.xml")
        with open(rules) as f:
            self.assertNotIn("<url", f.read())

        server = self.serve_generated()
        self.assertEqual(2, self.runs())

        with sqlite3.connect(self.database) as db:
            db.execute("INSERT INTO TKD_PAGECACHE_RULES VALUES (9, -1, 'Pages', ?)", (PAGES,))
            db.execute("INSERT INTO TKD_PAGECACHE_RESPONSE_CODES VALUES (-1, '200')")
        # A date the server can tell from the first file's.
        time.sleep(1.1)
        result = self.generate()
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertFalse(os.path.exists(rules + ".new"))
        for _ in range(3):
            server.get("/page.php")
        self.assertEqual(3, self.runs())
        log = self.workspace.log()
        self.assertIn("Reloading rules File..", log)
        self.assertNotIn("ERROR]", log)

    def test_without_a_database_or_with_one_others_can_change_nothing_is_written(self):
        target, new = self.workspace.path("target"), os.path.join(self.etc, "pagecache_rules.xml.new")
        planted = {"no database": (None, b"--init"), "link at the database": (lambda: os.symlink(target, self.database),
                                                                             b"is a symbolic link"),
                   "link at the output": (lambda: os.symlink(target, new), b"Unable to open"),
                   "world-writable database": (lambda: os.chmod(self.database, 0o666), b"writable by others"),
                   "another user's database": (lambda: os.chown(self.database, 65534, -1), b"another user"),
                   "the workers' directory": (lambda: os.chown(os.path.dirname(self.database), 33, 33), b"another user")}
        for name, (plant, message) in planted.items():
            with self.subTest(name):
                [os.unlink(path) for path in (self.database, target, new) if os.path.lexists(path)]
                if "link" not in name and plant:
                    self.assertEqual(0, self.generate("--init").returncode)
                    os.unlink(os.path.join(self.etc, "pagecache_rules.xml"))
                result = plant() or self.generate("--init") if plant else self.generate()
                self.assertEqual((1, True), (result.returncode, message in result.stderr), result.stderr)
                self.assertFalse(os.path.exists(os.path.join(self.etc, "pagecache_rules.xml")))
                self.assertFalse(os.path.exists(target))
