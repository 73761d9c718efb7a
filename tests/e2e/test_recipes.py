"""The rules recipes of conf/recipes against the real applications from
Debian's packages, under php-fpm behind nginx: WordPress on a MariaDB of its
own, MediaWiki on SQLite. Anonymous pages are hits equal to their misses; a
logged-in user is never served a stored page and never stores one; an edit
followed by the recipe's removal is fresh at the next view."""
import gzip
import json
import os
import re
import shutil
import unittest
import uuid

import harness
import webapps

RECIPES = os.path.join(harness.SOURCE_ROOT, "conf", "recipes")
HIT = "x-pagecache-compression"   # carried by hits alone, under enable_qa_info


class RecipeCase(unittest.TestCase):
    """One application behind php-fpm and nginx, its recipe in force."""

    recipe = None

    @classmethod
    def start(cls, docroot, env=None, **settings):
        workspace = cls.workspace
        with open(os.path.join(RECIPES, cls.recipe)) as f:
            # As the recipe tells: the application's own host, at its root.
            host = 'host="%s"' % cls.host.replace(".", "\\.")
            workspace.use_rules(re.sub(r'host="[^"]*"', host, f.read()).replace('path="mediawiki/', 'path="'))
        directives = workspace.directives(vesk_pagecache__enable_qa_info="1",
                                          vesk_pagecache__log_verbosity_level="1", **settings)
        harness.make_shared(workspace)
        # MediaWiki sends its page with fastcgi_finish_request() and works
        # on (deferred updates, then the page is stored): with one worker,
        # each request starts once the one before has ended. WordPress
        # answers favicon.ico itself.
        cls.server = harness.FpmBehindNginx(workspace, docroot, directives, workers=1, env=env,
                                            server_config="location = /favicon.ico { try_files $uri /index.php; }")
        cls.addClassCleanup(cls.server.stop)

    @classmethod
    def make_workspace(cls, packages):
        missing = webapps.missing_packages(packages)
        if missing:
            raise unittest.SkipTest("not installed: %s (scripts/bootstrap installs them)" % " ".join(missing))
        if not harness.FpmBehindNginx.available():
            raise unittest.SkipTest("php-fpm or nginx is not installed")
        cls.workspace = harness.Workspace()
        cls.addClassCleanup(cls.workspace.remove)
        cls.host = "vesk-%s.test" % uuid.uuid4().hex[:12]

    def visitor(self):
        return harness.Browser(self.server.port, self.host)

    def assert_hits_equal_misses(self, paths, status=200):
        """Each page stored from a gzip client, and its hits decoded once equal to it."""
        visitor = self.visitor()
        for path in paths:
            got, headers, miss = visitor.request("GET", path, headers={"Accept-Encoding": "gzip"})
            self.assertEqual((status, None, None), (got, headers.get(HIT), headers.get("set-cookie")), path)
            miss = gzip.decompress(miss) if headers.get("content-encoding") == "gzip" else miss
            got, headers, hit = visitor.get(path)
            self.assertIn(HIT, headers, path)
            self.assertEqual((status, miss), (got, hit), path)
            got, headers, packed = visitor.request("GET", path, headers={"Accept-Encoding": "gzip"})
            self.assertEqual("gzip" if miss else None, headers.get("content-encoding"), path)
            self.assertEqual(miss, gzip.decompress(packed) if miss else packed, path)
        self.assertEqual({}, visitor.cookies)
        self.assertNotIn("WARNING]", self.workspace.log())

    def assert_private(self, user, path, mark):
        """`user` isn't served the stored page of `path`, and a page that
        only `user` asked for reaches no visitor."""
        visitor = self.visitor()
        visitor.get(path)
        self.assertIn(HIT, visitor.get(path)[1])
        status, headers, body = user.get(path)
        self.assertEqual(200, status)
        self.assertNotIn(HIT, headers)
        self.assertIn(mark, body)
        private = path + "&vesk=private"
        for _ in range(2):
            self.assertNotIn(HIT, user.get(private)[1])
        status, headers, body = visitor.get(private)
        self.assertNotIn(HIT, headers)
        self.assertNotIn(mark, body)
        self.assertIn(HIT, visitor.get(private)[1])

    def assert_fresh_after(self, path, edit):
        """The stored page of `path` gives way to the edited one that
        `edit(text)` makes, at the very next view."""
        visitor = self.visitor()
        visitor.get(path)
        self.assertIn(HIT, visitor.get(path)[1])
        marker = "Edited-%s" % uuid.uuid4().hex[:8]
        edit(marker)
        status, headers, body = visitor.get(path)
        self.assertEqual(200, status)
        self.assertNotIn(HIT, headers)
        self.assertIn(marker.encode(), body)
        status, headers, body = visitor.get(path)
        self.assertIn(HIT, headers)
        self.assertIn(marker.encode(), body)


class WordPressSite:
    """WordPress with its recipe and must-use plugin (and the test's own
    plugins of `plugins`), its posts 4 to 7."""
    recipe = "wordpress.xml"
    plugins = {}

    @classmethod
    def setUpClass(cls):
        cls.make_workspace(webapps.WORDPRESS_PACKAGES)
        if not os.access("/etc/wordpress", os.W_OK):
            raise unittest.SkipTest("Debian's WordPress reads its configuration from /etc/wordpress only, "
                                    "which this user can't write")
        plugins = cls.workspace.path("mu-plugins")
        os.makedirs(plugins)
        shutil.copy(os.path.join(RECIPES, "wordpress-vesk-pagecache.php"), plugins)
        for name, text in cls.plugins.items():
            with open(os.path.join(plugins, name), "w") as f:
                f.write(text)
        database = webapps.MariaDB(cls.workspace.root)
        cls.addClassCleanup(database.stop)
        site = webapps.WordPress(cls.workspace.root, cls.host, database, posts=4, mu_plugins=plugins)
        cls.addClassCleanup(site.remove)
        cls.password = site.password
        cls.start(webapps.WORDPRESS_ROOT)
        # The theme's first view writes its settings, and no page built
        # meanwhile is stored, as the pages learn from the database.
        RecipeCase.visitor(cls).get("/")

    def administrator(self):
        admin = self.visitor()
        admin.cookies["wordpress_test_cookie"] = "WP%20Cookie%20check"
        status, _, _ = admin.post("/wp-login.php", {"log": "admin", "pwd": self.password, "testcookie": "1"})
        self.assertEqual(302, status)
        self.assertTrue(any(name.startswith("wordpress_logged_in_") for name in admin.cookies))
        return admin


class WordPressRecipe(WordPressSite, RecipeCase):
    def test_anonymous_pages_are_hits_equal_to_misses(self):
        self.assert_hits_equal_misses(["/", "/?p=4", "/?p=5", "/?page_id=2", "/?cat=1", "/?p=1"])
        # WordPress's own redirect, the same for every visitor.
        self.assert_hits_equal_misses(["/favicon.ico"], 301)
        # Its redirects (index.php?p=4 to /?p=4) keep 5 minutes, stored only from visitors without cookies.
        visitor = self.visitor()
        visitor.cookies["wp-settings-1"] = "x"
        for client, hit in ((visitor, False), (self.visitor(), False), (self.visitor(), True)):
            self.assertEqual((301, hit), (lambda got: (got[0], HIT in got[1]))(client.get("/index.php?p=4")))
        listed = harness.run_tool(self.workspace, self.workspace.directives(), "list", "--rule", "WordPress").stdout
        self.assertRegex(listed, r"/index\.php\?p=4\t.*\tstatus 301\t.*\texpires in (2\d\d|300) s")
        visitor = self.visitor()
        for path in ("/?s=Lorem", "/wp-login.php", "/?rest_route=/wp/v2/posts"):
            visitor.get(path)
            self.assertNotIn(HIT, visitor.get(path)[1], path)

    def test_logged_in_user_is_never_served_nor_stores(self):
        self.assert_private(self.administrator(), "/?p=6", b"wp-admin-bar")


class MediaWikiRecipe(RecipeCase):
    recipe = "mediawiki.xml"

    @classmethod
    def setUpClass(cls):
        cls.make_workspace(webapps.MEDIAWIKI_PACKAGES)
        pages = {"Page_%d" % i: "Text of page %d, see [[Page_%d]]. [[Category:Test]]" % (i, i % 3 + 1)
                 for i in range(1, 4)}
        pages["Category:Test"] = "The pages of the test."
        removal = "if (is_readable('{0}')) {{ require_once '{0}'; }}".format(RECIPES + "/mediawiki-vesk-pagecache.php")
        # As the recipe advises, jobs run from cron, not at the end of views.
        site = webapps.MediaWiki(cls.workspace.root, cls.host, pages, settings=removal + "\n$wgJobRunRate = 0;")
        cls.password = site.password
        # The engine compresses for gzip clients, around MediaWiki's own buffers.
        cls.start(webapps.MEDIAWIKI_ROOT, env=site.environment, **{"zlib.output_compression": "On"})

    def user(self):
        user = self.visitor()
        token = json.loads(user.get("/api.php?action=query&meta=tokens&type=login&format=json")[2])
        status, _, body = user.post("/api.php", {
            "action": "clientlogin", "username": "Admin", "password": self.password, "format": "json",
            "logintoken": token["query"]["tokens"]["logintoken"], "loginreturnurl": "http://%s/" % self.host})
        self.assertEqual("PASS", json.loads(body)["clientlogin"]["status"], body[:300])
        return user

    def edit(self, title, text):
        """An edit through the API, by a user logged in for it."""
        user = MediaWikiRecipe.user(self)
        token = json.loads(user.get("/api.php?action=query&meta=tokens&format=json")[2])
        status, _, body = user.post("/api.php", {"action": "edit", "title": title, "text": text, "format": "json",
                                                 "token": token["query"]["tokens"]["csrftoken"]})
        self.assertEqual("Success", json.loads(body)["edit"]["result"], body[:300])

    def test_anonymous_pages_are_hits_equal_to_misses(self):
        self.assert_hits_equal_misses(["/index.php?title=Page_1", "/index.php?title=Page_2",
                                       "/index.php?title=Category:Test", "/index.php?title=Main_Page"])
        visitor = self.visitor()
        for path in ("/index.php?title=Page_1&action=edit", "/index.php?title=Special:RecentChanges",
                     "/index.php?search=Text", "/api.php?action=query&meta=siteinfo&format=json"):
            visitor.get(path)
            self.assertNotIn(HIT, visitor.get(path)[1], path)

    def test_logged_in_user_is_never_served_nor_stores(self):
        self.assert_private(self.user(), "/index.php?title=Page_2", b'"wgUserName":"Admin"')

    def test_edit_then_removal_is_fresh(self):
        self.assert_fresh_after("/index.php?title=Page_3", lambda m: self.edit("Page_3", m + " [[Category:Test]]"))
