#!/usr/bin/env python3
"""The hit rate of a WordPress site whose pages learn from the database,
crawled as anonymous visitors while wp-cron runs and an editor changes a
post every minute; and whether every edit shows at the next view.

Sets up, as the end-to-end tests do (tests/e2e/webapps.py), MariaDB and a
WordPress site of 47 posts with the WordPress recipe (its hand-written
removal plugin left out) under php-fpm behind nginx; then, for the length
asked (5 minutes unless told), views its 50 pages (the front page, the
sample page and the posts) one after the other, over and over, requests
wp-cron.php every 15 s as a system's cron would, and once a minute changes
the title of a post through the REST API as the block editor does. After
each edit, the edited post and the front page (when it showed the post's
old title) are viewed at once: they must show the new title.

    bench/wp_crawl.py [SECONDS]

Needs root (WordPress's configuration under /etc/wordpress) and the
packages of the tests. Never part of the tests. Target: at least 95 % of the
views hits, every edit visible at its next view.
"""
import json
import os
import re
import sys
import time
import uuid

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import harness  # noqa: E402
import webapps  # noqa: E402

POSTS = 47
HIT = "x-pagecache-compression"   # carried by hits alone, under enable_qa_info


class Crawl:
    def __init__(self, port, host, password):
        self.port, self.host = port, host
        self.pages = ["/", "/?page_id=2"] + ["/?p=%d" % (4 + i) for i in range(POSTS)] + ["/?p=1"]
        self.views = self.hits = 0
        self.edits, self.checked, self.stale = [], [], []
        self.admin = harness.Browser(port, host)
        self.admin.cookies["wordpress_test_cookie"] = "WP%20Cookie%20check"
        self.admin.post("/wp-login.php", {"log": "admin", "pwd": password, "testcookie": "1"})
        self.nonce = self.admin.get("/wp-admin/admin-ajax.php?action=rest-nonce")[2].decode()

    def view(self, path):
        status, headers, body = harness.Browser(self.port, self.host).get(path)
        self.views += 1
        self.hits += HIT in headers
        return status, body

    def edit(self):
        """Retitles a post; the pages that showed its title must show the new one."""
        # Among the newest posts, which the front page lists too.
        post = 3 + POSTS - (3 * len(self.edits)) % 10
        route = "/?rest_route=/wp/v2/posts/%d" % post
        old = json.loads(self.admin.get(route)[2])["title"]["rendered"].encode()
        showing = [path for path in ("/?p=%d" % post, "/")
                   if old in harness.Browser(self.port, self.host).get(path)[2]]
        title = "Edited-%s" % uuid.uuid4().hex[:8]
        status, _, _ = self.admin.request("POST", route, json.dumps({"title": title}),
                                          {"Content-Type": "application/json", "X-WP-Nonce": self.nonce})
        self.edits.append((post, title, status))
        for path in showing:
            self.checked.append(path)
            if title.encode() not in self.view(path)[1]:
                self.stale.append((post, path))

    def run(self, seconds):
        start = time.monotonic()
        next_cron, next_edit, i = start, start + 60, 0
        while time.monotonic() - start < seconds:
            now = time.monotonic()
            if now >= next_cron:
                harness.Browser(self.port, self.host).get("/wp-cron.php")
                next_cron += 15
            if now >= next_edit:
                self.edit()
                next_edit += 60
            self.view(self.pages[i % len(self.pages)])
            i += 1


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 300
    workspace = harness.Workspace()
    database = webapps.MariaDB(workspace.root)
    site = server = None
    try:
        host = "vesk-crawl.test"
        site = webapps.WordPress(workspace.root, host, database, posts=POSTS)
        with open(os.path.join(harness.SOURCE_ROOT, "conf", "recipes", "wordpress.xml")) as f:
            workspace.use_rules(re.sub(r'host="[^"]*"', 'host="%s"' % host.replace(".", "\\."), f.read()))
        harness.make_shared(workspace)
        server = harness.FpmBehindNginx(workspace, webapps.WORDPRESS_ROOT,
                                        workspace.directives(vesk_pagecache__enable_qa_info="1"))
        crawl = Crawl(server.port, host, site.password)
        # The theme's first view writes its settings: a site just set up.
        crawl.view("/")
        crawl.views = crawl.hits = 0
        crawl.run(seconds)
        print("%.0f s: %d views of %d pages, %d hits (%.1f %%); %d edits (REST status %s); of the %d views of a "
              "page that showed an edited title, made just after the edit (%d of the front page), %d showed the "
              "old one %s" % (seconds, crawl.views, len(crawl.pages), crawl.hits, 100.0 * crawl.hits / crawl.views,
                              len(crawl.edits), sorted({e[2] for e in crawl.edits}), len(crawl.checked),
                              crawl.checked.count("/"), len(crawl.stale), crawl.stale))
    finally:
        if server:
            server.stop()
        if site:
            site.remove()
        database.stop()
        workspace.remove()


if __name__ == "__main__":
    main()
