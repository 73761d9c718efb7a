"""Starts real PHP servers on 127.0.0.1 for end-to-end tests.

Every server gets a private directory with the conf, log and temp
directories the extension is pointed at, is waited for within a bound,
and is stopped by its pid when the test ends.
"""
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

SOURCE_ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXTENSION = os.environ.get("VESK_EXTENSION", os.path.join(SOURCE_ROOT, "build", "vesk_pagecache.so"))
PHP = shutil.which("php8.2") or shutil.which("php")


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Workspace:
    """A private directory tree holding conf/, log/ and tmp/."""

    def __init__(self):
        self.root = tempfile.mkdtemp(prefix="vesk-e2e.")
        for name in ("conf", "log", "tmp"):
            os.makedirs(os.path.join(self.root, name))
        for name in ("pagecache_rules.xml",):
            shutil.copy(os.path.join(SOURCE_ROOT, "conf", name), os.path.join(self.root, "conf"))

    def path(self, *parts):
        return os.path.join(self.root, *parts)

    def log(self):
        try:
            with open(self.path("log", "pagecache.log"), encoding="latin-1") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def directives(self, **extra):
        values = {
            "vesk.httpd_uid": str(os.geteuid()),
            "vesk.httpd_gid": str(os.getegid()),
            "vesk.log_dir": self.path("log"),
            "vesk.conf_dir": self.path("conf"),
            "vesk.temp_dir": self.path("tmp"),
        }
        values.update({k.replace("__", "."): v for k, v in extra.items()})
        return values

    def remove(self):
        shutil.rmtree(self.root, ignore_errors=True)


def php_command(directives):
    command = [PHP, "-n", "-d", "zend_extension=" + EXTENSION]
    for name, value in directives.items():
        command += ["-d", "%s=%s" % (name, value)]
    return command


class BuiltinServer:
    """`php -S` with the extension loaded, serving a document root."""

    def __init__(self, workspace, docroot, directives, workers=0):
        self.port = free_port()
        env = dict(os.environ)
        if workers:
            env["PHP_CLI_SERVER_WORKERS"] = str(workers)
        self.output = open(workspace.path("server.out"), "wb")
        self.process = subprocess.Popen(
            php_command(directives) + ["-S", "127.0.0.1:%d" % self.port, "-t", docroot],
            stdout=self.output, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, env=env,
            start_new_session=True)
        self._wait_until_listening()

    def _wait_until_listening(self, seconds=15):
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                raise RuntimeError("php -S exited with %s" % self.process.returncode)
            try:
                with socket.create_connection(("127.0.0.1", self.port), timeout=0.5):
                    return
            except OSError:
                time.sleep(0.05)
        self.stop()
        raise RuntimeError("php -S did not listen within %s s" % seconds)

    def get(self, path, headers=None):
        request = urllib.request.Request("http://127.0.0.1:%d%s" % (self.port, path), headers=headers or {})
        try:
            with urllib.request.urlopen(request, timeout=10) as response:
                return response.status, dict(response.headers), response.read()
        except urllib.error.HTTPError as error:
            return error.code, dict(error.headers), error.read()

    def stop(self):
        if self.process.poll() is None:
            # The server's workers share its process group.
            os.killpg(self.process.pid, signal.SIGTERM)
            try:
                self.process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                os.killpg(self.process.pid, signal.SIGKILL)
                self.process.wait(timeout=10)
        self.output.close()
