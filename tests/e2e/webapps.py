"""Real PHP applications from Debian's packages, set up in a private
directory: WordPress on a MariaDB server of its own, MediaWiki on SQLite.
Used by the end-to-end tests of the rules recipes and by bench/run.

The databases, the data and the configuration live in the directory given;
the one thing written elsewhere is WordPress's configuration file, which
Debian's package reads from /etc/wordpress only (by the request's host):
`WordPress.remove` takes it away again.
"""
import os
import signal
import subprocess
import time

WORDPRESS_PACKAGES = ["mariadb-server", "php8.2-mysql", "wordpress", "wordpress-theme-twentytwentythree"]
MEDIAWIKI_PACKAGES = ["mediawiki", "php8.2-sqlite3"]
WORDPRESS_ROOT = "/usr/share/wordpress"
MEDIAWIKI_ROOT = "/usr/share/mediawiki"
PHP = "php8.2"


def missing_packages(packages):
    """Those of `packages` that dpkg doesn't know as installed."""
    return [p for p in packages
            if subprocess.run(["dpkg-query", "-W", "-f=${Status}", p], capture_output=True,
                              text=True).stdout != "install ok installed"]


def plain_environment():
    """The environment without preloaded libraries: the applications' own
    tools and database are no code of ours, and a sanitizer run's runtimes
    have nothing to judge in them."""
    env = dict(os.environ)
    env.pop("LD_PRELOAD", None)
    return env


def run_php(script, env=None):
    """Runs a PHP file with the plain command-line engine (no extension);
    answers its standard output, or raises with what it said."""
    result = subprocess.run([PHP, script], capture_output=True, text=True, env=env or plain_environment(),
                            timeout=300)
    if result.returncode != 0:
        raise RuntimeError("%s failed: %s%s" % (script, result.stdout[-2000:], result.stderr[-2000:]))
    return result.stdout


class MariaDB:
    """mariadbd on a Unix socket only, its data under `directory`, stopped by its pid."""

    def __init__(self, directory):
        data = os.path.join(directory, "mysql")
        self.socket = os.path.join(directory, "mysql.sock")
        root = ["--user=root"] if os.geteuid() == 0 else []
        subprocess.run(["mariadb-install-db", "--no-defaults", "--datadir=" + data,
                        "--auth-root-authentication-method=normal", "--skip-test-db"] + root,
                       check=True, capture_output=True, env=plain_environment(), timeout=120)
        self.output = open(os.path.join(directory, "mariadb.out"), "wb")
        self.process = subprocess.Popen(
            ["mariadbd", "--no-defaults", "--datadir=" + data, "--socket=" + self.socket, "--skip-networking",
             "--pid-file=" + os.path.join(directory, "mysql.pid"), "--innodb-buffer-pool-size=64M"] + root,
            stdout=self.output, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, start_new_session=True,
            env=plain_environment())
        deadline = time.monotonic() + 60
        while not os.path.exists(self.socket):
            if self.process.poll() is not None or time.monotonic() > deadline:
                self.stop()
                raise RuntimeError("MariaDB did not start: see %s" % os.path.join(directory, "mariadb.out"))
            time.sleep(0.05)

    def create_database(self, name):
        subprocess.run(["mariadb", "--no-defaults", "-S", self.socket, "-u", "root", "-e",
                        "CREATE DATABASE `%s`" % name], check=True, env=plain_environment(), timeout=60)

    def stop(self):
        if self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGTERM)
            try:
                self.process.wait(timeout=30)
            except subprocess.TimeoutExpired:
                os.killpg(self.process.pid, signal.SIGKILL)
                self.process.wait(timeout=10)
        self.output.close()


class WordPress:
    """A WordPress site at http://`host`/ with `posts` posts of its own (ids
    from 4 on: installing makes posts 1 to 3), plain links ("/?p=4"), the
    theme Twenty Twenty-Three and an administrator "admin". Must-use
    plugins come from `mu_plugins` when given."""

    def __init__(self, directory, host, database, posts=6, password="vesk-password", mu_plugins=None):
        self.host = host
        self.password = password
        self.config = "/etc/wordpress/config-%s.php" % host
        database.create_database("wp")
        # Secret keys, as WordPress's installer writes them: without, the
        # first login makes them, a write of options that every page read.
        keys = "".join("define('%s_%s', '%s');\n" % (kind, part, os.urandom(24).hex())
                       for kind in ("AUTH", "SECURE_AUTH", "LOGGED_IN", "NONCE") for part in ("KEY", "SALT"))
        with open(self.config, "w") as f:
            f.write("""<?php // vesk: written and removed by the tests and bench of the page cache
define('DB_NAME', 'wp');
define('DB_USER', 'root');
define('DB_PASSWORD', '');
define('DB_HOST', 'localhost:%s');
define('WP_HOME', 'http://%s');
define('WP_SITEURL', 'http://%s');
define('DISABLE_WP_CRON', true);
define('WP_HTTP_BLOCK_EXTERNAL', true);
define('AUTOMATIC_UPDATER_DISABLED', true);
%s%s""" % (database.socket, host, host, keys,
           "define('WPMU_PLUGIN_DIR', '%s');\n" % mu_plugins if mu_plugins else ""))
        script = os.path.join(directory, "wp-install.php")
        with open(script, "w") as f:
            f.write("""<?php
$_SERVER['HTTP_HOST'] = '%s';
$_SERVER['REQUEST_URI'] = '/';
define('WP_INSTALLING', true);
require '%s/wp-load.php';
require_once ABSPATH . 'wp-admin/includes/upgrade.php';
wp_install('Vesk site', 'admin', 'admin@example.com', true, '', '%s');
switch_theme('twentytwentythree');
update_option('permalink_structure', '');
for ($i = 1; $i <= %d; $i++) {
    wp_insert_post(['post_title' => "Post $i", 'post_status' => 'publish',
                    'post_content' => str_repeat("<p>Paragraph of post $i, written for the tests. " .
                                                  str_repeat('Lorem ipsum dolor sit amet. ', 12) . "</p>\\n", 6)]);
}
echo "installed\\n";
""" % (host, WORDPRESS_ROOT, password, posts))
        try:
            if "installed" not in run_php(script):
                raise RuntimeError("WordPress did not install")
        except BaseException:
            self.remove()
            raise

    def remove(self):
        try:
            with open(self.config) as f:
                ours = f.read().startswith("<?php // vesk:")
        except FileNotFoundError:
            return
        if ours:
            os.unlink(self.config)


class MediaWiki:
    """A MediaWiki site at http://`host`/ on SQLite, its LocalSettings.php and
    data under `directory`; the workers find the settings through the
    environment variable MW_CONFIG_FILE (`environment`). An administrator
    "Admin", the pages `pages` (title: wikitext) and whatever `settings`
    adds at the end of LocalSettings.php."""

    def __init__(self, directory, host, pages, settings="", password="vesk-wiki-password"):
        self.host = host
        self.password = password
        data = os.path.join(directory, "mediawiki")
        os.makedirs(data)
        self.config = os.path.join(data, "LocalSettings.php")
        subprocess.run([PHP, MEDIAWIKI_ROOT + "/maintenance/install.php", "--dbtype", "sqlite",
                        "--dbpath", data, "--dbname", "wikidb", "--server", "http://" + host, "--scriptpath", "",
                        "--lang", "en", "--pass", password, "--confpath", data, "--skins", "Vector",
                        "Vesk Wiki", "Admin"],
                       check=True, capture_output=True, env=plain_environment(), timeout=300)
        with open(self.config, "a") as f:
            f.write("\n$wgCacheDirectory = '%s/cache';\n%s\n" % (data, settings))
        # One run for all the pages: each run of a maintenance script boots
        # the whole wiki. The file names are the titles.
        sources = os.path.join(directory, "mediawiki-pages")
        os.makedirs(sources)
        for title, text in pages.items():
            with open(os.path.join(sources, title), "w") as f:
                f.write(text)
        subprocess.run([PHP, MEDIAWIKI_ROOT + "/maintenance/importTextFiles.php", "--user", "Admin"]
                       + [os.path.join(sources, title) for title in pages],
                       check=True, capture_output=True, env=dict(plain_environment(), MW_CONFIG_FILE=self.config),
                       timeout=300)

    @property
    def environment(self):
        return {"MW_CONFIG_FILE": self.config}
