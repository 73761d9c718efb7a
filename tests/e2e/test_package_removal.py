"""Removing the installed package (dpkg -r) from under a site that nginx
serves with published pages: the site goes on answering, from PHP, and no
page the package published is served any more. Set up as test_package."""
import os
import shutil
import subprocess
import tempfile

import harness
import test_package

PUBLISHED = "/var/cache/vesk/published"
RECIPE = "/usr/share/vesk-pagecache/recipes/mediawiki-vesk-pagecache.php"
RULES = harness.rules_file(harness.url_rule("page\\.php", "Page", ("_SERVER[HTTP_HOST]", "_SERVER[REQUEST_URI]"),
                                            publish="true"))
# A site that takes the recipe's hooks in as the documentation says.
PAGE = ("<?php if (is_readable('%s')) { require_once '%s'; }\necho '<p>', bin2hex(random_bytes(8)), '</p>';\n"
        % (RECIPE, RECIPE))


class PackageRemoval(test_package.DebianPackage):
    test_install_serve_and_purge = None

    def start(self, docroot, scan_dir, nginx):
        os.chmod(self.workspace.root, 0o755)
        server = harness.FpmBehindNginx(self.workspace, docroot, {}, extension=None, scan_dir=scan_dir,
                                        user="www-data", server_config=nginx, port=getattr(self, "port", None))
        self.port = server.port
        self.addCleanup(server.stop)
        return server

    def test_removal_leaves_the_site_answering_and_nothing_published(self):
        try:
            self.assertEqual(0, test_package.dpkg("-i", self.deb).returncode)
            harness.write("/etc/vesk/pagecache_rules.xml", RULES)
            conf = self.workspace.path("conf.d")
            os.makedirs(conf)
            os.symlink(test_package.INI, os.path.join(conf, "90-vesk_pagecache.ini"))
            # nginx runs its workers as nobody here, not as www-data.
            harness.write(os.path.join(conf, "95-site.ini"), "vesk_pagecache.publish_dir=%s\nvesk.file_mode=0644\n"
                          "vesk_pagecache.enable_qa_info=1\n" % PUBLISHED)
            # The scan directory that the site's php-fpm reads, which the
            # package's own removal then reads too.
            env = dict(os.environ, PHP_INI_SCAN_DIR=":" + conf)
            tool = subprocess.run(["vesk-pagecache", "publish-config", "nginx"], capture_output=True, text=True,
                                  env=env, timeout=60)
            self.assertEqual(0, tool.returncode, tool.stderr)
            nginx = ("location ~ \\.php$ {\n%s\ninclude /etc/nginx/fastcgi_params;\nfastcgi_param SCRIPT_FILENAME "
                     "$document_root$fastcgi_script_name;\nfastcgi_pass unix:%s;\n}\n"
                     % (tool.stdout, self.workspace.path("fpm.sock")))
            docroot = tempfile.mkdtemp(prefix="vesk-site.")
            self.addCleanup(shutil.rmtree, docroot, True)
            os.chmod(docroot, 0o755)
            harness.write(os.path.join(docroot, "page.php"), PAGE)
            server = self.start(docroot, ":" + conf, nginx)
            miss = harness.http_get(server.port, "/page.php")
            self.assertEqual((200, "miss"), (miss[0], miss[1].get("x-pagecache")))
            published = harness.http_get(server.port, "/page.php")
            self.assertEqual((200, None, miss[2]), (published[0], published[1].get("x-pagecache"), published[2]))
            self.assertTrue(self.published_pages())
            removed = test_package.dpkg("-r", test_package.PACKAGE, env=env)
            self.assertEqual(0, removed.returncode, removed.stdout + removed.stderr)
            self.assertEqual([], self.published_pages())
            # The server starts again without the module, as Debian's
            # php-fpm does when a module's link goes.
            server.stop()
            server = self.start(docroot, ":" + conf, nginx)
            for _ in range(2):
                status, headers, body = harness.http_get(server.port, "/page.php")
                self.assertEqual(200, status)
                self.assertNotIn("x-pagecache", headers)
                self.assertNotEqual(miss[2], body)
        finally:
            self.assertEqual(0, test_package.dpkg("--purge", test_package.PACKAGE).returncode)
        self.assertFalse(os.path.exists(PUBLISHED))

    @staticmethod
    def published_pages():
        return [os.path.join(d, n) for d, _, names in os.walk(PUBLISHED) for n in names if n.endswith(".html")]
