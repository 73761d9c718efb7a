"""Published pages under nginx + php-fpm and Apache + mod_php, each with the
configuration the tool generates, included as the README says, under
Debian's compression defaults: a published page goes out without PHP, byte
for byte the miss, only where the site's access rules let the request in;
every ending of the page ends its files, and nothing else ends them."""
import base64
import gzip
import os
import shutil
import subprocess
import time

import harness

RULE = harness.url_rule("(page|sized|off|host)\\.php", "Published", ("_SERVER[HTTP_HOST]", "_SERVER[REQUEST_URI]"),
                        id="7", publish="true",
                        conditions=('global="_COOKIE[logged_in]" type="not_exists" value=""',))
SHORT = harness.url_rule("(.*short)\\.php", "Short", id="8", publish="true", lifetime="2")
BIG = harness.url_rule("(big)\\.php", "Big", id="9", publish="true", compress="false")
GUARDED = harness.url_rule("(members|private)/page\\.php", "Guarded", id="10", publish="true")
FRONT = harness.url_rule("(members/)?", "Front", id="11", publish="true")
RULES = harness.rules_file(RULE, SHORT, BIG, GUARDED, FRONT)
# "member", "secret", in the form both servers read.
USERS = "member:{SHA}5en6G6MezRroT3XKqkdPOmY/BfQ=\n"
CREDENTIALS = {"Authorization": "Basic " + base64.b64encode(b"member:secret").decode()}


class Published:
    """The scenarios, for one kind of server (KIND)."""

    KIND = None

    def setUp(self):
        self.use_site(RULES)
        self.publish_dir = self.workspace.path("tmp", "published")
        pages = {"short": "", "off": "page_cache_disable_caching();\n", "d1/d2/d3/short": "", "private/page": "",
                 "big": "echo bin2hex(random_bytes(300000));\n", "members/page": "",
                 "host": "echo $_SERVER['HTTP_HOST'];\n", "index": "", "members/index": "",
                 "page": "page_cache_add_tags('published');\n"}
        for name, code in pages.items():
            os.makedirs(os.path.dirname(os.path.join(self.site, name)), exist_ok=True)
            harness.write(os.path.join(self.site, name + ".php"), "<?php require '%s/_record.php';\n%secho '<p>%s ' . "
                          "microtime(true) . '</p>';\n" % (self.site, code, name))
        harness.write(os.path.join(self.site, "size.txt"), "3000")
        self.values = self.directives(vesk_pagecache__log_verbosity_level="4", vesk_pagecache__enable_qa_info="1",
                                      vesk_pagecache__clean_frequency="1", vesk_pagecache__max_store_size="1",
                                      vesk_pagecache__publish_dir=self.publish_dir, vesk__file_mode="0644")
        self.start()

    def start(self, guarded=False, pool=""):
        options = {"pool_config": pool, "http_config": self.tool("publish-config", "nginx-maps")} \
            if self.KIND == "php-fpm" else {}
        if hasattr(self, "server"):
            # The same site: a host split keeps the port the server answers on.
            self.server.stop()
            options["port"] = self.server.port
        self.server = self.serve(self.KIND, directives=self.values, server_config=self.configure(guarded), **options)

    def tool(self, *args):
        result = harness.run_tool(self.workspace, self.values, *args)
        self.assertEqual(0, result.returncode, result.stderr)
        return result.stdout

    def configure(self, guarded):
        """The site with the tool's configuration where the README puts it;
        `guarded`: basic auth on members/, every request refused in private/."""
        harness.write(self.workspace.path("users"), USERS)
        auth = "AuthType Basic\nAuthName members\nAuthUserFile %s\nRequire valid-user\n" % self.workspace.path("users")
        if self.KIND == "php-fpm":
            guards = {"/members/": 'auth_basic "members";\nauth_basic_user_file %s;' % self.workspace.path("users"),
                      "/private/": "deny all;"} if guarded else {}
            block = self.tool("publish-config", "nginx")
            php = ("location ~ \\.php$ {\n%s\ninclude /etc/nginx/fastcgi_params;\nfastcgi_param SCRIPT_FILENAME "
                   "$document_root$fastcgi_script_name;\nfastcgi_pass unix:%s;\n}\n"
                   % (block, self.workspace.path("fpm.sock")))
            # "/" also finds files before its index runs; "/members/"'s index
            # hands its front page to the PHP location's block.
            return "gzip on;\n" + "".join("location %s {\n%s\n%s%s}\n" % (prefix, guards.get(prefix, ""),
                                                                       block if prefix == "/" else "", php)
                                          for prefix in ("/members/", "/private/", "/"))
        harness.write(os.path.join(self.site, "members", ".htaccess"), auth if guarded else "")
        modules = ("alias", "env", "filter", "deflate", "auth_basic", "authn_core", "authn_file", "authz_user")
        return "\n".join(["LoadModule %s_module %s/mod_%s.so" % (m, harness.ApacheWithPhp.MODULES, m) for m in modules]
                         + ["AddOutputFilterByType DEFLATE text/html", self.tool("publish-config", "apache"),
                            "<Directory %s>\nAllowOverride AuthConfig\n%s</Directory>"
                            % (self.site, self.tool("publish-config", "apache-rules")),
                            "<Location /private/>\nRequire all denied\n</Location>" if guarded else ""])

    def get(self, path, **headers):
        return harness.http_get(self.server.port, path, headers)

    def published_files(self, folders=False):
        return sorted(os.path.relpath(os.path.join(d, n), self.publish_dir)
                      for d, dirs, names in os.walk(self.publish_dir) for n in (dirs if folders else names)
                      if folders or n.endswith((".html", ".gz")))

    def assertFromPhp(self, path, **headers):
        status, response, body = self.get(path, **headers)
        self.assertEqual(200, status)
        self.assertIn("x-pagecache", response)
        return response, body

    def assertWithoutPhp(self, path, **headers):
        runs = self.runs(os.path.basename(path))
        status, response, body = self.get(path, **headers)
        self.assertEqual(200, status, body)
        # Every answer of PHP's on a covered URL says what became of it.
        self.assertNotIn("x-pagecache", response)
        self.assertEqual(runs, self.runs(os.path.basename(path)))
        return response, body

    def test_published_page_is_the_miss_without_php_in_one_gzip_layer(self):
        _, miss = self.assertFromPhp("/sized.php")
        self.assertEqual(2, len(self.published_files()), self.published_files())
        for accept in (None, "gzip", "br, gzip", "identity"):
            with self.subTest(accept):
                response, body = self.assertWithoutPhp("/sized.php", **{"Accept-Encoding": accept} if accept else {})
                self.assertEqual("text/html; charset=UTF-8", response["content-type"])
                packed = "gzip" in (accept or "")
                self.assertEqual("gzip" if packed else None, response.get("content-encoding"))
                self.assertEqual(miss, gzip.decompress(body) if packed else body)
        self.assertIn("Accept-Encoding", response["vary"])
        self.assertEqual((304, b""), self.get("/sized.php", **{"If-Modified-Since": response["last-modified"]})[::2])

    def test_front_page_that_the_index_runs_is_published_under_its_own_url(self):
        for path in ("/", "/members/"):
            with self.subTest(path):
                _, miss = self.assertFromPhp(path)
                runs = self.runs("index.php")
                status, response, body = self.get(path)
                self.assertEqual((200, None, miss), (status, response.get("x-pagecache"), body))
                self.assertEqual(runs, self.runs("index.php"))

    def test_logged_in_visitor_always_reaches_php(self):
        self.assertFromPhp("/page.php")
        self.assertWithoutPhp("/page.php")
        # PHP reads the last one as logged_in too.
        for cookie in ("logged_in=1", "a=1; logged_in=x", "logged.in=1"):
            with self.subTest(cookie):
                response, _ = self.assertFromPhp("/page.php", Cookie=cookie)
                self.assertEqual("pass (conditions)", response["x-pagecache"])

    def test_requests_of_another_form_reach_php_and_publish_nothing_outside(self):
        before = self.all_files()
        for path in ("/x/%2e%2e/page.php", "//page.php", "/x/..%2f..%2f../page.php"):
            self.get(path)
        self.assertEqual([], [f for f in self.all_files() - before if f.endswith((".vesk.html", ".gz"))])
        self.assertFromPhp("/page.php")
        self.assertWithoutPhp("/page.php")
        for method, path in (("GET", "/page.php?x=1"), ("GET", "/page.php?"), ("GET", "/page%2Ephp"),
                             ("GET", "/x/../page.php"), ("POST", "/page.php"),
                             ("GET", "/page.php/vesk-published/x/http/127.0.0.1/page.php")):
            with self.subTest(method + " " + path):
                runs = self.runs()
                harness.http_get(self.server.port, path, method=method)
                self.assertEqual(runs + 1, self.runs())
        self.assertWithoutPhp("/page.php")

    def all_files(self):
        return {os.path.join(d, n) for d, _, names in os.walk(self.workspace.root) for n in names}

    def test_each_ending_removes_the_files_and_only_theirs(self):
        endings = [(f[0], lambda f=f: self.assertIs(True, self.call(self.server.port, *f)))
                   for f in harness.removals("page|sized|off|host", "Published", 7, "/page.php")]
        # The operators' tool removes as the workers do; purges: below.
        endings.append(("vesk-pagecache remove all", lambda: self.tool("remove", "all")))
        endings.append(("by tag", lambda: self.call(self.server.port, "page_cache_remove_by_tags", ["published"])))
        self.assertFromPhp("/page.php")
        # An operator's file in the folder is none of the cache's.
        harness.write(os.path.join(self.publish_dir, "notes.txt"), "mine")
        for name, ending in endings:
            with self.subTest(name):
                self.assertWithoutPhp("/page.php")
                ending()
                self.assertEqual([], self.published_files())
                # Stored and published again.
                self.assertFromPhp("/page.php")
        self.assertTrue(os.path.exists(os.path.join(self.publish_dir, "notes.txt")))

    def test_folder_holding_what_the_cache_did_not_write_is_refused_and_left_alone(self):
        self.publish_dir = self.values["vesk_pagecache.publish_dir"] = self.workspace.path("tmp", "docroot")
        os.makedirs(self.publish_dir)
        harness.write(os.path.join(self.publish_dir, "index.html"), "mine")
        self.start()
        self.assertFromPhp("/page.php")
        self.assertFromPhp("/page.php")
        self.assertLogged("Not publishing to %s : it holds index.html" % self.publish_dir)
        time.sleep(1.1)
        self.workspace.use_rules(RULES.replace("Short", "Shorter"))
        self.call(self.server.port, "page_cache_purge", {"url": "http://127.0.0.1/page.php", "created_ago": 0})
        self.assertFromPhp("/page.php")
        self.assertEqual(["index.html"], os.listdir(self.publish_dir))

    def test_pages_stay_published_across_restarts_new_workers_and_a_rules_change(self):
        self.assertFromPhp("/page.php")
        files = self.published_files()
        # Each request of a php-fpm pool is a new child, forked with the rules
        # read at the master's start.
        self.start(pool="pm = dynamic\npm.start_servers = 1\npm.min_spare_servers = 1\n"
                          "pm.max_spare_servers = 2\npm.max_requests = 1\n")
        self.assertWithoutPhp("/page.php")
        time.sleep(1.1)
        self.workspace.use_rules(RULES.replace("Short", "Shorter"))
        for _ in range(4):
            self.assertFromPhp("/off.php")
            self.assertWithoutPhp("/page.php")
        self.assertEqual(files, self.published_files())
        # Files lost all the same are published again at the page's next hit.
        shutil.rmtree(self.publish_dir)
        response, _ = self.assertFromPhp("/page.php")
        self.assertEqual("hit", response["x-pagecache"])
        self.assertWithoutPhp("/page.php")

    def test_published_pages_stay_behind_the_sites_access_rules(self):
        for path in ("/members/page.php", "/private/page.php"):
            self.assertFromPhp(path)
            self.assertWithoutPhp(path)
        self.start(guarded=True)
        members = [f for f in self.published_files() if "members" in f][0]
        for path, status in (("/members/page.php", 401), ("/private/page.php", 403)):
            self.assertEqual(status, self.get(path)[0], path)
        # Nor does the folder answer a request of its own, even one that
        # names it as the block's rewrite does.
        self.assertIn(self.get("/./vesk-published/" + members)[0], (403, 404))
        self.assertWithoutPhp("/members/page.php", **CREDENTIALS)
        # A page built for a request with credentials is never published.
        self.assertIs(True, self.call(self.server.port, "page_cache_remove_all_cached_contents"))
        self.assertFromPhp("/members/page.php", **CREDENTIALS)
        self.assertEqual([], self.published_files())
        self.assertEqual(401, self.get("/members/page.php")[0])

    def test_a_purge_ends_the_files_of_the_page_it_names_only(self):
        for path in ("/page.php", "/sized.php", "/host.php"):
            self.assertFromPhp(path)
        url = "http://127.0.0.1:%d/%%s.php" % self.server.port
        # The command line's PHP, which publishes nothing: only the cleaner sees the purge database change.
        directives = dict(self.values, **{"vesk_pagecache.enable_cli": "1", "vesk_pagecache.publish_dir": ""})
        code = "var_dump(page_cache_purge(['url' => '%s']));" % (url % "page")
        result = subprocess.run(harness.php_command(directives) + ["-r", code], capture_output=True, timeout=60)
        self.assertEqual(b"bool(true)\n", result.stdout)
        self.wait_until(lambda: len(self.published_files()) == 3, 5, "the purge left the page's files")
        self.assertFromPhp("/page.php")
        self.assertWithoutPhp("/sized.php")
        # A worker's purge ends the files at once.
        self.assertIs(True, self.call(self.server.port, "page_cache_purge", {"url": url % "sized"}))
        self.assertEqual(1, len(self.published_files()))
        self.assertWithoutPhp("/host.php")

    def test_expiry_removes_the_files_and_their_folders_at_the_next_cleaning(self):
        self.assertFromPhp("/d1/d2/d3/short.php")
        self.assertWithoutPhp("/d1/d2/d3/short.php")
        self.wait_until(lambda: not [f for f in self.published_files() + self.published_files(folders=True)
                                     if not f.startswith(".index")], 5, "an expired page left files or folders")
        self.assertFromPhp("/d1/d2/d3/short.php")

    def test_published_bytes_count_toward_the_store_bound(self):
        # 600 kB stored and 600 kB published: over the bound of 1 MiB only
        # with the files counted; the cleaner evicts the page and its files.
        self.assertFromPhp("/big.php")
        self.wait_until(lambda: not self.published_files() and not self.records(), 10, "the files were not counted")
        self.assertFromPhp("/big.php")

    def test_disabled_caching_and_a_changed_rule_leave_nothing_published(self):
        self.assertFromPhp("/off.php")
        self.assertEqual([], self.published_files())
        self.assertFromPhp("/page.php")
        self.assertEqual(1, len(self.published_files()))
        # A rules file without publish: the first worker to reload ends the files.
        time.sleep(1.1)
        self.workspace.use_rules(RULES.replace('publish="true"', ""))
        self.wait_until(lambda: self.get("/off.php") and not self.published_files(), 10,
                        "a reload left files published")

    def test_a_host_port_the_client_chose_reaches_no_other_visitor(self):
        for headers in ({"Host": "127.0.0.1:1234"}, {"Host": "127.0.0.1:1234"}, {}, {}):
            body = self.get("/host.php", **headers)[2]
        self.assertIn(b"127.0.0.1:%d<p>" % self.server.port if self.KIND == "apache" else b"127.0.0.1<p>", body)


class PublishedUnderNginx(Published, harness.Case):
    KIND = "php-fpm"

    def test_block_is_refused_outside_a_location(self):
        # There no location's access rules would apply to the files it sends.
        conf = self.workspace.path("nginx.conf")
        with open(conf) as f:
            harness.write(conf + ".x", f.read().replace("  server {\n", "  server {\n%s" % self.tool(
                "publish-config", "nginx"), 1))
        result = subprocess.run([harness.FpmBehindNginx.NGINX, "-t", "-c", conf + ".x", "-p", self.workspace.root],
                                capture_output=True, text=True, timeout=60)
        self.assertIn('"expires" directive is not allowed here', result.stderr)


class PublishedUnderApache(Published, harness.Case):
    KIND = "apache"
