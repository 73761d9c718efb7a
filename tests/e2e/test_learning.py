"""Pages learn what they depend on from the queries that build them: a write
made through PHP (a form, the admin, the command line where the operator
allows it) removes, once it commits, the pages that read what it wrote, and
no others. On a small site of the tests' own (PDO and SQLite), and on
WordPress (mysqli and MariaDB) and MediaWiki (PDO and SQLite) from Debian,
their recipes' hand-written removal switched off."""
import json
import os
import sqlite3
import subprocess
import unittest
import uuid

import harness
import webapps
from test_recipes import HIT, MediaWikiRecipe, RecipeCase

PAGES = ("/post.php?id=1", "/post.php?id=2", "/list.php", "/motto.php")


class OwnSite(harness.Case):
    def setUp(self):
        self.use_site(harness.rules_file(harness.url_rule(
            "(post|list|motto)\\.php", learn_ignore="settings.name=counter_*")), site="learn_site")
        with sqlite3.connect(os.path.join(self.site, "site.sqlite")) as db:
            db.executescript("""
                CREATE TABLE posts (id INTEGER PRIMARY KEY, title TEXT);
                CREATE TABLE settings (name TEXT PRIMARY KEY, v TEXT);
                CREATE TABLE jobs (id INTEGER PRIMARY KEY);
                INSERT INTO posts (id, title) VALUES (1, 'First'), (2, 'Second');
                INSERT INTO settings (name, v) VALUES ('motto', 'Hello'), ('counter_views', '0');""")
        self.server = self.serve(directives=self.directives(vesk_pagecache__enable_qa_info="1"))

    def view(self, path):
        """Whether the page came from the store, and its body."""
        _, headers, body = self.server.get(path)
        # Built afresh; not kept where the write's removal landed during the build.
        if headers.get("X-PageCache") != "hit":
            self.assertRegex(headers.get("X-PageCache"), r"^(miss \(\d+ tags, \d+ learned\)|pass \(tag removed\))$",
                             path)
        return headers.get("X-PageCache") == "hit", body

    def stored(self):
        """Each page viewed until it is a hit; answers their bodies."""
        bodies = {}
        for path in PAGES:
            self.view(path)
            hit, bodies[path] = self.view(path)
            self.assertTrue(hit, path)
        return bodies

    def write(self, statements, end=""):
        request = harness.urllib.request.Request(
            "http://127.0.0.1:%d/write.php?end=%s" % (self.server.port, end), data="\n".join(statements).encode())
        with harness.urllib.request.urlopen(request, timeout=10) as response:
            self.assertEqual(b"done\n", response.read())

    def assert_fresh(self, before, changed, text=None):
        """The pages of `changed` are built afresh at their next view, the
        first of them showing `text`; the others are still hits."""
        for path in PAGES:
            hit, body = self.view(path)
            self.assertEqual(path not in changed, hit, path)
            self.assertEqual(before[path] if hit else body, body, path)
        if text:
            self.assertIn(text.encode(), self.view(sorted(changed)[0])[1])

    def test_a_write_removes_the_pages_that_read_it_and_no_others(self):
        for sql, changed in [
                ("UPDATE posts SET title = 'Edited' WHERE id = 2", {"/post.php?id=2", "/list.php"}),
                ("INSERT INTO posts (title) VALUES ('Third')", {"/post.php?id=1", "/post.php?id=2", "/list.php"}),
                ("UPDATE settings SET v = v + 1 WHERE name = 'counter_likes'", set()),
                ("UPDATE settings SET v = 'Changed' WHERE name = 'motto'", {"/motto.php"})]:
            with self.subTest(sql):
                before = self.stored()
                self.write([sql])
                self.assert_fresh(before, changed, "Edited" if "Edited" in sql else None)

    def test_a_write_counts_at_its_commit(self):
        before = self.stored()
        self.write(["UPDATE posts SET title = 'Never' WHERE id = 2"], end="rollback")
        self.assert_fresh(before, set())
        self.write(["UPDATE posts SET title = 'Later' WHERE id = 2"], end="commit")
        self.assert_fresh(before, {"/post.php?id=2", "/list.php"}, "Later")
        # Left open at the request's end: taken as done, to be safe.
        before = self.stored()
        self.write(["UPDATE posts SET title = 'Open' WHERE id = 1"], end="open")
        self.assert_fresh(before, {"/post.php?id=1", "/list.php"})

    def test_command_line_writes_remove_pages_where_the_operator_allows(self):
        command = harness.php_command(self.directives(vesk_pagecache__learn_cli="1"), bare=False)
        for learn, title, changed in [("0", "Unseen", set()), ("1", "Seen", {"/post.php?id=1", "/list.php"})]:
            before = self.stored()
            subprocess.run(command + ["-d", "vesk_pagecache.learn_cli=" + learn, "write.php", "commit"],
                           input="UPDATE posts SET title = '%s' WHERE id = 1" % title, text=True, check=True,
                           capture_output=True,
                           cwd=self.site, env=harness.php_environment("cli", False), timeout=60)
            self.assert_fresh(before, changed, title if changed else None)
        self.assertEqual([], [path for path in self.records() if "cli" in path])


class LearningWordPress(RecipeCase):
    """WordPress with its recipe, without the must-use removal plugin."""
    recipe = "wordpress.xml"

    @classmethod
    def setUpClass(cls):
        cls.make_workspace(webapps.WORDPRESS_PACKAGES)
        if not os.access("/etc/wordpress", os.W_OK):
            raise unittest.SkipTest("Debian's WordPress reads its configuration from /etc/wordpress only")
        database = webapps.MariaDB(cls.workspace.root)
        cls.addClassCleanup(database.stop)
        site = webapps.WordPress(cls.workspace.root, cls.host, database, posts=2)
        cls.addClassCleanup(site.remove)
        cls.password = site.password
        cls.start(webapps.WORDPRESS_ROOT)
        cls.admin = cls.log_in(cls)
        cls.nonce = cls.admin.get("/wp-admin/admin-ajax.php?action=rest-nonce")[2].decode()
        # A theme's first view writes its settings.
        RecipeCase.visitor(cls).get("/")

    def log_in(self):
        admin = RecipeCase.visitor(self)
        admin.cookies["wordpress_test_cookie"] = "WP%20Cookie%20check"
        admin.post("/wp-login.php", {"log": "admin", "pwd": self.password, "testcookie": "1"})
        return admin

    def rest(self, route, fields):
        """A change the block editor makes: answers the object made or changed."""
        status, _, body = self.admin.request("POST", "/?rest_route=" + route, json.dumps(fields),
                                             {"Content-Type": "application/json", "X-WP-Nonce": self.nonce})
        self.assertIn(status, (200, 201), body[:300])
        return json.loads(body)

    def assert_edit_reaches(self, paths, edit, unchanged=()):
        """After `edit(marker)`, the next view of each of `paths` shows the
        marker, and the pages of `unchanged` are still hits."""
        visitor = self.visitor()
        for path in list(paths) + list(unchanged):
            # Until the work an edit queued (MediaWiki's jobs, run at the
            # end of views) has been done.
            for _ in range(6):
                if HIT in visitor.get(path)[1]:
                    break
            self.assertIn(HIT, visitor.get(path)[1], path)
        marker = "Learned-%s" % uuid.uuid4().hex[:8]
        edit(marker)
        for path in paths:
            status, headers, body = visitor.get(path)
            self.assertEqual((200, None), (status, headers.get(HIT)), path)
            self.assertIn(marker.encode(), body, path)
        for path in unchanged:
            self.assertIn(HIT, visitor.get(path)[1], path)

    def test_edits_reach_every_page_that_shows_them(self):
        # A menu of a block theme lists the pages: a new page changes it.
        for what, paths, edit, unchanged in [
                ("post", ["/?p=5", "/"], lambda m: self.rest("/wp/v2/posts/5", {"title": m}), []),
                ("comment", ["/?p=4"], lambda m: self.admin.post(
                    "/wp-comments-post.php", {"comment_post_ID": "4", "comment": m}), []),
                ("title", ["/", "/?p=4"], lambda m: self.rest("/wp/v2/settings", {"title": m}), []),
                ("menu", ["/", "/?p=5"], lambda m: self.rest("/wp/v2/pages", {"title": m, "status": "publish"}),
                 []),
                # A block theme's widgets: its footer, changed in the site editor.
                ("footer", ["/", "/?p=4"], lambda m: self.rest("/wp/v2/template-parts/twentytwentythree//footer",
                                                               {"content": "<p>%s</p>" % m}), []),
                # A login writes its session, which the recipe ignores.
                ("login", [], lambda m: self.log_in(), ["/", "/?p=4", "/?p=5"])]:
            with self.subTest(what):
                self.assert_edit_reaches(paths, edit, unchanged)


class LearningMediaWiki(RecipeCase):
    """MediaWiki with its recipe, without its removal hook."""
    recipe = "mediawiki.xml"

    @classmethod
    def setUpClass(cls):
        cls.make_workspace(webapps.MEDIAWIKI_PACKAGES)
        pages = {"Page_1": "One {{Box}}", "Page_2": "Two {{Box}}", "Page_3": "Three", "Template:Box": "Boxed"}
        # The pages that show a template are renewed by jobs, which a cron
        # job runs on the command line.
        site = webapps.MediaWiki(cls.workspace.root, cls.host, pages, settings="$wgJobRunRate = 0;")
        cls.password = site.password
        cls.environment = site.environment
        cls.start(webapps.MEDIAWIKI_ROOT, env=site.environment)

    def run_jobs(self):
        command = harness.php_command(self.workspace.directives(vesk_pagecache__learn_cli="1"), bare=False)
        subprocess.run(command + [webapps.MEDIAWIKI_ROOT + "/maintenance/runJobs.php"], check=True,
                       capture_output=True, env=dict(harness.php_environment("cli", False), **self.environment),
                       timeout=300)

    def test_edits_reach_every_page_that_shows_them(self):
        self.run_jobs()
        view = "/index.php?title="
        for what, paths, edit, unchanged in [
                ("article", [view + "Page_3"], lambda m: MediaWikiRecipe.edit(self, "Page_3", m), []),
                ("template", [view + "Page_1", view + "Page_2"],
                 lambda m: (MediaWikiRecipe.edit(self, "Template:Box", m), self.run_jobs()), []),
                ("login", [], lambda m: MediaWikiRecipe.user(self), [view + "Page_1", view + "Page_3"])]:
            with self.subTest(what):
                LearningWordPress.assert_edit_reaches(self, paths, edit, unchanged)
