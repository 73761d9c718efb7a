"""The Debian package on this machine: built by scripts/package, installed
with dpkg, a site served through the system's nginx and php-fpm with the
package's own ini file, then purged, after which PHP still runs; and removed
from under a site with published pages, which then answers from PHP alone.

The module is never left enabled in the system's conf.d directories, which
other servers on this machine read: the site gets the installed ini through a
scan directory of its own."""
import os
import pwd
import re
import shutil
import subprocess
import tempfile
import time
import unittest

import harness

PACKAGE = "vesk-pagecache"
INI = "/etc/php/8.2/mods-available/vesk_pagecache.ini"
EXTENSION_DIR = "/usr/lib/php/20220829"
WRITABLE = ("/var/log/vesk", "/var/cache/vesk", "/var/lib/vesk/var/db")
INSTALLED = ([os.path.join(EXTENSION_DIR, "vesk_pagecache.so"), INI, "/etc/vesk/pagecache_rules.xml",
              "/etc/vesk/pagecache_rules_schema.xsd", "/usr/bin/pagecache-statsd-listen",
              "/usr/bin/pagecache-rules-generate", "/usr/share/vesk-pagecache/recipes/wordpress.xml",
              "/usr/bin/vesk-pagecache"])
# The example rules cover the home page.
INDEX = b"<?php echo '<p>', bin2hex(random_bytes(8)), '</p>';\n"

PUBLISHED = "/var/cache/vesk/published"
RECIPE = "/usr/share/vesk-pagecache/recipes/mediawiki-vesk-pagecache.php"
# A page that takes the recipe's hooks in as the documentation says.
PAGE = (b"<?php if (is_readable('%s')) { require_once '%s'; }\necho bin2hex(random_bytes(8));\n"
        % (RECIPE.encode(), RECIPE.encode()))


def sanitized_build(build):
    try:
        with open(os.path.join(build, "CMakeCache.txt")) as f:
            return "VESK_SANITIZE:BOOL=ON" in f.read()
    except OSError:
        return False


def installed():
    result = subprocess.run(["dpkg-query", "-W", "-f=${Status}", PACKAGE], capture_output=True, text=True)
    return result.returncode == 0 and result.stdout.endswith(" installed")


def dpkg(*arguments, env=None):
    """dpkg, waiting a bounded while for other package tools on the machine."""
    deadline = time.monotonic() + 180
    while True:
        result = subprocess.run(["dpkg"] + list(arguments), capture_output=True, text=True,
                                env=dict(env or os.environ, DEBIAN_FRONTEND="noninteractive"), timeout=300)
        if result.returncode == 0 or "lock" not in result.stderr or time.monotonic() > deadline:
            return result
        time.sleep(2)


@unittest.skipUnless(os.geteuid() == 0, "installing a package needs root")
@unittest.skipUnless(harness.FpmBehindNginx.available(), "nginx and php8.2-fpm are needed")
class DebianPackage(unittest.TestCase):
    def setUp(self):
        build = os.path.dirname(harness.EXTENSION)
        if sanitized_build(build):
            self.skipTest("a sanitized build is never packaged; the plain run installs the package")
        if installed() or os.path.exists(INI):
            self.skipTest("%s is installed on this machine already; the test leaves it alone" % PACKAGE)
        self.workspace = harness.Workspace()
        self.addCleanup(self.workspace.remove)
        made = subprocess.run([os.path.join(harness.SOURCE_ROOT, "scripts", "package"), build,
                               self.workspace.path("deb")], capture_output=True, text=True, timeout=1800)
        self.assertEqual(0, made.returncode, made.stdout + made.stderr)
        self.deb = made.stdout.strip().splitlines()[-1]
        self.assertRegex(os.path.basename(self.deb), r"^vesk-pagecache_[0-9.]+_amd64\.deb$")

    def serve(self, scan_dir, page=INDEX, **options):
        """nginx and php-fpm (workers as www-data) on the home page `page`,
        with the system's conf.d and what `scan_dir` adds."""
        docroot = tempfile.mkdtemp(prefix="vesk-site.")
        self.addCleanup(shutil.rmtree, docroot, True)
        os.chmod(docroot, 0o755)
        with open(os.path.join(docroot, "index.php"), "wb") as f:
            f.write(page)
        os.chmod(self.workspace.root, 0o755)
        server = harness.FpmBehindNginx(self.workspace, docroot, {}, extension=None, scan_dir=scan_dir,
                                        user="www-data", **options)
        self.addCleanup(server.stop)
        return server

    def test_install_serve_and_purge(self):
        try:
            result = dpkg("-i", self.deb)
            self.assertEqual(0, result.returncode, result.stdout + result.stderr)
            self.check_contents()
            self.check_enabling()
            self.check_miss_then_hit()
        finally:
            purged = dpkg("--purge", PACKAGE)
        self.assertEqual(0, purged.returncode, purged.stdout + purged.stderr)
        self.assertFalse(installed())
        for path in INSTALLED + list(WRITABLE):
            self.assertFalse(os.path.exists(path), path)
        # Nor does PHP's module registry remember it.
        self.assertEqual([], [os.path.join(d, name) for d, _, names in os.walk("/var/lib/php/modules")
                              for name in names if name == "vesk_pagecache"])
        self.check_php_runs()

    def check_contents(self):
        for path in INSTALLED:
            self.assertTrue(os.path.isfile(path), path)
        www = pwd.getpwnam("www-data")
        for path in WRITABLE:
            owner = os.stat(path)
            self.assertEqual((www.pw_uid, www.pw_gid), (owner.st_uid, owner.st_gid), path)
        # Installing enables nothing: the operator runs phpenmod.
        for sapi in ("cli", "fpm", "apache2", "cgi"):
            self.assertEqual([], self.links(sapi), sapi)
        with open(INI) as f:
            ini = f.read()
        self.assertIn("vesk_pagecache.pulse.enable=0", ini)
        self.assertIn("vesk_pagecache.log_verbosity_level=1", ini)
        self.assertIn("vesk.httpd_uid=33", ini)

    @staticmethod
    def links(sapi):
        directory = "/etc/php/8.2/%s/conf.d" % sapi
        if not os.path.isdir(directory):
            return []
        return [name for name in os.listdir(directory) if "vesk" in name]

    def check_enabling(self):
        # Other servers on this machine read conf.d: the link goes again at once.
        try:
            subprocess.run(["phpenmod", "-v", "8.2", "-s", "fpm", "vesk_pagecache"], check=True, timeout=60)
            enabled = self.links("fpm")
        finally:
            subprocess.run(["phpdismod", "-v", "8.2", "-s", "fpm", "vesk_pagecache"], timeout=60)
        self.assertEqual(["90-vesk_pagecache.ini"], enabled)
        self.assertEqual([], self.links("fpm"))

    def check_miss_then_hit(self):
        conf = self.workspace.path("conf.d")
        os.makedirs(conf)
        os.symlink(INI, os.path.join(conf, "90-vesk_pagecache.ini"))
        # PHP's own list syntax: the empty entry is the engine's conf.d.
        server = self.serve(":" + conf)
        status, _, miss = harness.http_get(server.port, "/")
        self.assertEqual(200, status)
        status, _, hit = harness.http_get(server.port, "/")
        self.assertEqual(200, status)
        self.assertRegex(miss, rb"^<p>[0-9a-f]{16}</p>$")
        self.assertEqual(miss, hit, "the second visit was not served from the store")
        # Stored as the web server's user, in the package's store.
        stored = [os.path.join(d, name) for d, _, names in os.walk("/var/cache/vesk") for name in names]
        self.assertTrue(stored)
        self.assertEqual({pwd.getpwnam("www-data").pw_uid}, {os.stat(p).st_uid for p in stored})
        server.stop()
        for name in ("fpm.out", "fpm.log"):
            with open(self.workspace.path(name), encoding="latin-1") as f:
                output = f.read()
            self.assertNotIn("scandir", output, name)
            self.assertNotIn("Vesk Page Cache is disabled", output, name)

    def check_php_runs(self):
        for command in (["php8.2", "-r", "echo 'ran';"], [harness.FpmBehindNginx.FPM, "-t"]):
            result = subprocess.run(command, capture_output=True, text=True, timeout=60)
            self.assertEqual(0, result.returncode, result.stdout + result.stderr)
            self.assertNotRegex(result.stdout + result.stderr, re.compile("vesk", re.I))
        server = self.serve(None)
        status, _, body = harness.http_get(server.port, "/")
        self.assertEqual(200, status)
        self.assertRegex(body, rb"^<p>[0-9a-f]{16}</p>$")

    def test_removal_leaves_the_site_answering_and_nothing_published(self):
        try:
            self.assertEqual(0, dpkg("-i", self.deb).returncode)
            harness.write("/etc/vesk/pagecache_rules.xml", harness.rules_file(harness.url_rule(
                "index\\.php", "Page", ("_SERVER[HTTP_HOST]", "_SERVER[REQUEST_URI]"), publish="true")))
            conf = self.workspace.path("conf.d")
            os.makedirs(conf)
            os.symlink(INI, os.path.join(conf, "90-vesk_pagecache.ini"))
            # nginx runs its workers as nobody here, not as www-data.
            harness.write(os.path.join(conf, "95-site.ini"), "vesk_pagecache.publish_dir=%s\nvesk.file_mode=0644\n"
                          "vesk_pagecache.enable_qa_info=1\n" % PUBLISHED)
            env = dict(os.environ, PHP_INI_SCAN_DIR=":" + conf)  # the site's, which the removal reads too
            tool = {part: subprocess.run(["vesk-pagecache", "publish-config", part], capture_output=True, text=True,
                                         env=env, timeout=60).stdout for part in ("nginx", "nginx-maps")}
            nginx = {"http_config": tool["nginx-maps"], "server_config": (
                "location ~ \\.php$ {\n%s\ninclude /etc/nginx/fastcgi_params;\nfastcgi_param SCRIPT_FILENAME "
                "$document_root$fastcgi_script_name;\nfastcgi_pass unix:%s;\n}\n"
                % (tool["nginx"], self.workspace.path("fpm.sock")))}
            server = self.serve(":" + conf, PAGE, **nginx)
            miss, published = [harness.http_get(server.port, "/index.php") for _ in range(2)]
            self.assertEqual([(200, "miss", miss[2]), (200, None, miss[2])],
                             [(got[0], got[1].get("x-pagecache"), got[2]) for got in (miss, published)])
            removed = dpkg("-r", PACKAGE, env=env)
            self.assertEqual(0, removed.returncode, removed.stdout + removed.stderr)
            self.assertEqual([], [n for _, _, names in os.walk(PUBLISHED) for n in names if n.endswith(".html")])
            # Started again without the module, as Debian's php-fpm is when a module's link goes.
            server.stop()
            server = self.serve(":" + conf, PAGE, port=server.port, **nginx)
            for status, headers, body in [harness.http_get(server.port, "/index.php") for _ in range(2)]:
                self.assertEqual((200, False, False), (status, "x-pagecache" in headers, body == miss[2]))
        finally:
            self.assertEqual(0, dpkg("--purge", PACKAGE).returncode)
