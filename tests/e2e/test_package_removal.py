"""`dpkg -r` of the installed package under a site that nginx serves with
published pages: the site answers from PHP, and no published page is served
any more. Set up as test_package."""
import os
import subprocess

import harness
import test_package

PUBLISHED = "/var/cache/vesk/published"
RECIPE = "/usr/share/vesk-pagecache/recipes/mediawiki-vesk-pagecache.php"
# The recipe's hooks taken in as the documentation says.
PAGE = (b"<?php if (is_readable('%s')) { require_once '%s'; }\necho bin2hex(random_bytes(8));\n"
        % (RECIPE.encode(), RECIPE.encode()))


class PackageRemoval(test_package.DebianPackage):
    test_install_serve_and_purge = None

    def test_removal_leaves_the_site_answering_and_nothing_published(self):
        try:
            self.assertEqual(0, test_package.dpkg("-i", self.deb).returncode)
            harness.write("/etc/vesk/pagecache_rules.xml", harness.rules_file(harness.url_rule(
                "index\\.php", "Page", ("_SERVER[HTTP_HOST]", "_SERVER[REQUEST_URI]"), publish="true")))
            conf = self.workspace.path("conf.d")
            os.makedirs(conf)
            os.symlink(test_package.INI, os.path.join(conf, "90-vesk_pagecache.ini"))
            # nginx runs its workers as nobody here, not as www-data.
            harness.write(os.path.join(conf, "95-site.ini"), "vesk_pagecache.publish_dir=%s\nvesk.file_mode=0644\n"
                          "vesk_pagecache.enable_qa_info=1\n" % PUBLISHED)
            # The site's scan directory, which the package's removal reads too.
            env = dict(os.environ, PHP_INI_SCAN_DIR=":" + conf)
            tool = subprocess.run(["vesk-pagecache", "publish-config", "nginx"], capture_output=True, text=True,
                                  env=env, timeout=60)
            nginx = ("location ~ \\.php$ {\n%s\ninclude /etc/nginx/fastcgi_params;\nfastcgi_param SCRIPT_FILENAME "
                     "$document_root$fastcgi_script_name;\nfastcgi_pass unix:%s;\n}\n"
                     % (tool.stdout, self.workspace.path("fpm.sock")))
            server = self.serve(":" + conf, PAGE, server_config=nginx)
            miss = harness.http_get(server.port, "/index.php")
            published = harness.http_get(server.port, "/index.php")
            self.assertEqual(((200, "miss"), (200, None, miss[2])), ((miss[0], miss[1].get("x-pagecache")),
                             (published[0], published[1].get("x-pagecache"), published[2])))
            removed = test_package.dpkg("-r", test_package.PACKAGE, env=env)
            self.assertEqual(0, removed.returncode, removed.stdout + removed.stderr)
            self.assertEqual([], [n for _, _, names in os.walk(PUBLISHED) for n in names if n.endswith(".html")])
            # Started again without the module, as Debian's php-fpm is when a module's link goes.
            server.stop()
            server = self.serve(":" + conf, PAGE, server_config=nginx, port=server.port)
            for _ in range(2):
                status, headers, body = harness.http_get(server.port, "/index.php")
                self.assertEqual((200, False), (status, "x-pagecache" in headers))
                self.assertNotEqual(miss[2], body)
        finally:
            self.assertEqual(0, test_package.dpkg("--purge", test_package.PACKAGE).returncode)
