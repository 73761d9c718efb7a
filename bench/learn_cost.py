#!/usr/bin/env python3
"""What watching the database's queries adds to a miss of the WordPress
front page, counted in instructions (callgrind), which a shared or busy
machine doesn't skew as it does times.

Sets up, as the end-to-end tests do (tests/e2e/webapps.py), MariaDB and a
WordPress site with the WordPress recipe; runs the front page once under
php-cgi to let the theme write its first settings, then once more under
callgrind, a miss that stores; and reports the share of the instructions
spent after each watched call (the extension reading the statement, the
tags it learns, the removals it asks for) in those of running the script.

    bench/learn_cost.py

Needs root (WordPress's configuration under /etc/wordpress), valgrind and
the packages of the tests. Never part of the tests. Target: under 2 %.
"""
import os
import re
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import harness  # noqa: E402
import webapps  # noqa: E402


def front_page(workspace, host, prefix=()):
    directives = workspace.directives(vesk_pagecache__enable_cli="1")
    command = list(prefix) + ["php-cgi8.2"] + harness.engine_settings("cgi")[0] + [
        "-d", "zend_extension=" + harness.EXTENSION] + sum((["-d", "%s=%s" % i] for i in directives.items()), [])
    env = dict(webapps.plain_environment(), REQUEST_METHOD="GET", SCRIPT_FILENAME=webapps.WORDPRESS_ROOT + "/index.php",
               REQUEST_URI="/", QUERY_STRING="", HTTP_HOST=host, SERVER_NAME=host, SERVER_PORT="80",
               REDIRECT_STATUS="200", GATEWAY_INTERFACE="CGI/1.1", PHP_INI_SCAN_DIR="/etc/php/8.2/cgi/conf.d")
    return subprocess.run(command, env=env, capture_output=True, timeout=900, cwd=webapps.WORDPRESS_ROOT)


def cost(report, function):
    """The largest inclusive count callgrind_annotate gives a function."""
    counts = [int(m.group(1).replace(",", "")) for m in
              re.finditer(r"^\s*([\d,]+) \(\s*[\d.]+%\)\s+\S*" + function, report, re.M)]
    return max(counts or [0])


def main():
    workspace = harness.Workspace()
    database = webapps.MariaDB(workspace.root)
    site = None
    try:
        host = "vesk-bench.test"
        site = webapps.WordPress(workspace.root, host, database, posts=6)
        with open(os.path.join(harness.SOURCE_ROOT, "conf", "recipes", "wordpress.xml")) as f:
            workspace.use_rules(re.sub(r'host="[^"]*"', 'host="%s"' % host.replace(".", "\\."), f.read()))
        front_page(workspace, host)
        out = workspace.path("callgrind.out")
        front_page(workspace, host, ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out])
        report = subprocess.run(["callgrind_annotate", "--inclusive=yes", "--threshold=100", out],
                                capture_output=True, text=True).stdout
        # The request's own share: the engine's start-up of a command-line
        # run is no part of a worker's miss.
        script = cost(report, r"php_execute_script")
        watch = cost(report, r"\(anonymous namespace\)::onStatement\(")
        print("front page miss: %d instructions running the script; watching queries: %d (%.2f %%)"
              % (script, watch, 100.0 * watch / script))
    finally:
        if site:
            site.remove()
        database.stop()
        workspace.remove()


if __name__ == "__main__":
    main()
