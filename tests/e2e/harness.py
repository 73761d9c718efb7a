"""Starts real PHP servers on 127.0.0.1 for end-to-end tests.

Every server gets a private directory with the conf, log and temp
directories the extension is pointed at, is waited for within a bound,
and is stopped by its pid when the test ends.
"""
import http.client
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.error
import urllib.parse
import urllib.request

SOURCE_ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXTENSION = os.environ.get("VESK_EXTENSION", os.path.join(SOURCE_ROOT, "build", "vesk_pagecache.so"))
PHP = shutil.which("php8.2") or shutil.which("php")
LISTENER = os.path.join(os.path.dirname(EXTENSION), "pagecache-statsd-listen")
# The operators' command-line tool, built beside the extension.
TOOL = os.path.join(os.path.dirname(EXTENSION), "vesk-pagecache")

# Servers run as production runs: Debian's production php.ini and its
# module set with opcache, unless a test asks for the bare engine (-n).
PRODUCTION_INI = "/usr/lib/php/8.2/php.ini-production"
# A test may rewrite a script between two requests: opcache looks at its
# date on every request instead of every other second.
OPCACHE = {"opcache.revalidate_freq": "0"}


def engine_settings(sapi, bare=False):
    """The engine's own ini options of a command line, and its environment's
    scan directory, for one of Debian's server APIs (cli, fpm, apache2)."""
    if bare:
        return ["-n"], ""
    options = ["-c", PRODUCTION_INI]
    for name, value in OPCACHE.items():
        options += ["-d", "%s=%s" % (name, value)]
    return options, "/etc/php/8.2/%s/conf.d" % sapi


def write(path, text):
    with open(path, "w") as f:
        f.write(text)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Workspace:
    """A private directory tree holding conf/, log/ and tmp/."""

    def __init__(self):
        self.root = tempfile.mkdtemp(prefix="vesk-e2e.")
        for name in ("conf", "log", "tmp", "run", os.path.join("var", "db")):
            os.makedirs(os.path.join(self.root, name))
        for name in ("pagecache_rules.xml",):
            shutil.copy(os.path.join(SOURCE_ROOT, "conf", name), os.path.join(self.root, "conf"))

    def use_rules(self, text):
        """Puts `text` in place as the rules file, with the schema beside it."""
        shutil.copy(os.path.join(SOURCE_ROOT, "conf", "pagecache_rules_schema.xsd"), self.path("conf"))
        write(self.path("conf", "pagecache_rules.xml"), text)

    def change_rules(self, text=None):
        """`text` (when given) as the rules, dated later: every worker reloads them at its next request."""
        if text is not None:
            self.use_rules(text)
        later = time.time() + 60
        os.utime(self.path("conf", "pagecache_rules.xml"), (later, later))

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
            "vesk.pid_dir": self.path("run"),
            # Databases and the deployment marker live under var/db.
            "vesk.install_dir": self.root,
        }
        values.update({k.replace("__", "."): v for k, v in extra.items()})
        return values

    def remove(self):
        shutil.rmtree(self.root, ignore_errors=True)

    @classmethod
    def with_site(cls, test, rules, site="site"):
        """A workspace that `test` (a test, or a test class) removes when it
        ends, with `rules` in place and a copy of one of the test sites;
        answers both."""
        workspace = cls()
        (test.addClassCleanup if isinstance(test, type) else test.addCleanup)(workspace.remove)
        workspace.use_rules(rules)
        docroot = workspace.path("site")
        shutil.copytree(os.path.join(os.path.dirname(os.path.abspath(__file__)), site), docroot)
        return workspace, docroot


def http_get(port, path, headers=None, method="GET"):
    """One request to 127.0.0.1: status, headers (lower-case names), body."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
    connection.request(method, path, headers=headers or {})
    response = connection.getresponse()
    result = response.status, {k.lower(): v for k, v in response.getheaders()}, response.read()
    connection.close()
    return result


def run_tool(workspace, directives, *args, run=subprocess.run, **options):
    """The operators' tool with `directives` (the workers') in its ini file,
    started by `run` with `options` (its output captured unless told)."""
    ini = workspace.path("tool.ini")
    with open(ini, "w") as f:
        f.write("".join('%s = "%s"\n' % item for item in directives.items()))
    return run([TOOL, "--ini", ini] + list(args), text=True, env=dict(os.environ, PHP_INI_SCAN_DIR=""),
               **(options or {"capture_output": True, "timeout": 60}))


class Browser:
    """Keeps the cookies a site sets, as a browser would; sends `headers`
    (and `host`, when named) with each request."""

    def __init__(self, port, host=None, headers=None, timeout=60):
        self.port, self.timeout, self.cookies = port, timeout, {}
        self.headers = dict(headers or {}, **({"Host": host} if host else {}))
        self.received = []   # (name, value) of every Set-Cookie

    def request(self, method, path, body=None, headers=None):
        """Status, headers (lower-case names), body."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=self.timeout)
        headers = dict(self.headers, **(headers or {}))
        if self.cookies:
            headers["Cookie"] = "; ".join("%s=%s" % item for item in self.cookies.items())
        connection.request(method, path, body=body, headers=headers)
        response = connection.getresponse()
        result = response.status, {k.lower(): v for k, v in response.getheaders()}, response.read()
        for value in response.msg.get_all("set-cookie") or []:
            cookie, _, attributes = value.partition(";")
            name, _, text = (part.strip() for part in cookie.partition("="))
            self.received.append((name, text))
            if "1970" in attributes or "max-age=0" in attributes.lower() or text == "deleted":
                self.cookies.pop(name, None)
            else:
                self.cookies[name] = text
        connection.close()
        return result

    def get(self, path):
        return self.request("GET", path)

    def post(self, path, fields):
        return self.request("POST", path, urllib.parse.urlencode(fields),
                            {"Content-Type": "application/x-www-form-urlencoded"})


def php_command(directives, bare=True):
    """The CLI with the extension; bare (-n) unless asked otherwise, as the
    CLI isn't a web server API anyway. Run it with php_environment(bare)."""
    command = [PHP] + engine_settings("cli", bare)[0] + ["-d", "zend_extension=" + EXTENSION]
    for name, value in directives.items():
        command += ["-d", "%s=%s" % (name, value)]
    return command


def php_environment(sapi, bare, base=None):
    env = dict(os.environ if base is None else base)
    env["PHP_INI_SCAN_DIR"] = engine_settings(sapi, bare)[1]
    return env


class BuiltinServer:
    """`php -S` with the extension loaded, serving a document root."""

    def __init__(self, workspace, docroot, directives, workers=0, port=None, wrapper=(), bare=False):
        self.port = port or free_port()
        env = php_environment("cli", bare)
        if workers:
            env["PHP_CLI_SERVER_WORKERS"] = str(workers)
        self.output = open(workspace.path("server.out"), "wb")
        self.process = _spawn(
            list(wrapper) + php_command(directives, bare) + ["-S", "127.0.0.1:%d" % self.port, "-t", docroot],
            self.output, env)
        _listening(self, self.process, "php -S")

    def get(self, path, headers=None):
        request = urllib.request.Request("http://127.0.0.1:%d%s" % (self.port, path), headers=headers or {})
        try:
            with urllib.request.urlopen(request, timeout=10) as response:
                return response.status, dict(response.headers), response.read()
        except urllib.error.HTTPError as error:
            return error.code, dict(error.headers), error.read()

    def stop(self):
        # The server's workers share its process group.
        _terminate(self.process)
        self.output.close()


class RedisServer:
    """A redis-server of the test's own on 127.0.0.1, keeping nothing on
    disk; `port` to start one again where an earlier one listened."""

    def __init__(self, directory, port=None):
        self.port = port or free_port()
        self.output = open(os.path.join(directory, "redis-%d.out" % self.port), "wb")
        self.process = _spawn(["redis-server", "--port", str(self.port), "--bind", "127.0.0.1", "--save", "",
                               "--appendonly", "no", "--dir", directory], self.output)
        _listening(self, self.process, "redis-server")

    @property
    def url(self):
        return "redis://127.0.0.1:%d/0" % self.port

    def stop(self):
        if self.process.poll() is None:
            _terminate(self.process)
        self.output.close()


def _spawn(command, output, env=None):
    """Starts `command` in a session of its own, its output into the file `output`."""
    return subprocess.Popen(command, stdout=output, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, env=env,
                            start_new_session=True)


def _listening(server, process, what, seconds=15):
    """Waits until `process` listens on `server`'s port; stops the server when it doesn't."""
    deadline = time.monotonic() + seconds
    while process.poll() is None and time.monotonic() < deadline:
        try:
            with socket.create_connection(("127.0.0.1", server.port), timeout=0.5):
                return
        except OSError:
            time.sleep(0.05)
    server.stop()
    raise RuntimeError("%s exited with %s" % (what, process.returncode) if process.poll() is not None
                       else "%s did not listen within %s s" % (what, seconds))


def _terminate(process):
    """Stops a process started in a session of its own, with its group: its
    workers too when a test has killed the leader already."""
    _terminate_group(process.pid)
    process.wait(timeout=10)


def _terminate_group(leader):
    """Stops the process group of `leader` and waits until none of it runs."""
    for sig in (signal.SIGTERM, signal.SIGKILL):
        try:
            os.killpg(leader, sig)
        except ProcessLookupError:
            return
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline and processes(group=leader):
            time.sleep(0.05)


def processes(name=None, parent=None, group=None, holding=None):
    """Pids of the processes that have not ended (zombies have) whose command
    name (/proc/PID/comm) is `name`, whose parent is `parent`, whose process
    group is `group`, and that hold a file under the directory `holding` open;
    each criterion only when given."""
    found = []
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open("/proc/%s/stat" % entry) as f:
                stat = f.read()
            fields = stat[stat.rindex(")") + 2:].split()
            if fields[0] in "ZX":
                continue
            if parent is not None and int(fields[1]) != parent:
                continue
            if group is not None and int(fields[2]) != group:
                continue
            if name is not None and stat[stat.index("(") + 1:stat.rindex(")")] != name:
                continue
            if holding is not None and not any(path.startswith(holding.rstrip("/") + "/")
                                               for path in open_files(int(entry)).values()):
                continue
        except (OSError, ValueError, IndexError):
            continue
        found.append(int(entry))
    return found


def open_files(pid):
    """What each open descriptor of `pid` refers to, by descriptor number."""
    files = {}
    directory = "/proc/%d/fd" % pid
    for fd in os.listdir(directory):
        try:
            files[int(fd)] = os.readlink(os.path.join(directory, fd))
        except OSError:
            pass
    return files


def _stop(process, output):
    _terminate(process)
    output.close()


class StatsListener:
    """The receiving tool on a connection string, its lines read as they come."""

    def __init__(self, connection, descriptors=None):
        import queue
        import resource
        import threading
        self.lines = queue.Queue()
        limit = (lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))) if descriptors else None
        self.process = subprocess.Popen([LISTENER, connection], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        start_new_session=True, preexec_fn=limit)
        # It says so on standard error once it listens.
        if not self.process.stderr.readline().startswith(b"listening on"):
            self.stop()
            raise RuntimeError("the listener did not start")
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line.decode())

    def take(self, count, seconds=5):
        """Up to `count` lines that arrive within `seconds`."""
        import queue
        taken = []
        deadline = time.monotonic() + seconds
        while len(taken) < count:
            left = deadline - time.monotonic()
            if left <= 0:
                break
            try:
                taken.append(self.lines.get(timeout=left))
            except queue.Empty:
                break
        return taken

    def stop(self):
        _terminate(self.process)
        self.process.stdout.close()
        self.process.stderr.close()


def fastcgi_send_and_leave(socket_path, params):
    """Sends one FastCGI request straight to php-fpm's socket and closes the
    connection without reading: a client that went away while its request
    waited for a worker, as nginx passes it on."""
    def record(kind, content=b""):
        return bytes([1, kind, 0, 1, len(content) >> 8, len(content) & 0xFF, 0, 0]) + content

    def length(n):
        return bytes([n]) if n < 128 else (n | 0x80000000).to_bytes(4, "big")

    pairs = b"".join(length(len(k)) + length(len(v)) + k.encode() + v.encode() for k, v in params.items())
    message = (record(1, bytes([0, 1, 0, 0, 0, 0, 0, 0])) + record(4, pairs) + record(4) + record(5))
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.connect(socket_path)
        s.sendall(message)


def make_shared(workspace, *names):
    """Lets unprivileged workers (nobody) reach the workspace and write where they must."""
    os.chmod(workspace.root, 0o755)
    for name in names:
        path = workspace.path(name)
        for directory, _, _ in os.walk(path):
            os.chmod(directory, 0o777)


class FpmBehindNginx:
    """php-fpm with static workers (two unless told) behind nginx, both from Debian's packages."""

    FPM = shutil.which("php-fpm8.2") or "/usr/sbin/php-fpm8.2"
    NGINX = shutil.which("nginx") or "/usr/sbin/nginx"

    @classmethod
    def available(cls):
        return os.access(cls.FPM, os.X_OK) and os.access(cls.NGINX, os.X_OK)

    def __init__(self, workspace, docroot, directives, daemonize=False, bare=False, workers=2,
                 extension=EXTENSION, scan_dir=None, user=None, env=None, server_config="", pool_config="",
                 host_as_sent=False, port=None, http_config=""):
        """With `daemonize`, php-fpm forks its master and the first process
        exits; `master` is the pid of the process that serves either way.
        `extension` None loads none on the command line (an installed one
        comes through `scan_dir`, PHP_INI_SCAN_DIR's value); `user` runs the
        pool as that user, as a system's php-fpm does; `env` adds variables
        to the workers' environment; `server_config` goes into nginx's
        server block ahead of its locations, `http_config` into its http
        block, `pool_config` into the pool's;
        `host_as_sent` passes HTTP_HOST as nginx's own fastcgi_params do,
        not as Debian's ($host, without a port)."""
        self.port = port or free_port()
        self.socket_path = socket_path = workspace.path("fpm.sock")
        self.daemonize = daemonize
        with open(workspace.path("fpm.conf"), "w") as f:
            f.write("[global]\npid = %s\nerror_log = %s\ndaemonize = %s\n\n[www]\n"
                    "listen = %s\nlisten.mode = 0666\npm = static\npm.max_children = %d\n"
                    "clear_env = no\ncatch_workers_output = yes\n"
                    % (workspace.path("fpm.pid"), workspace.path("fpm.log"), "yes" if daemonize else "no",
                       socket_path, workers) + pool_config)
            if user:
                f.write("user = %s\ngroup = %s\n" % (user, user))
            elif os.geteuid() == 0:
                f.write("user = root\ngroup = root\n")
        command = [self.FPM] + engine_settings("fpm", bare)[0] + ["-y", workspace.path("fpm.conf")]
        if extension:
            command += ["-d", "zend_extension=" + extension]
        for name, value in directives.items():
            command += ["-d", "%s=%s" % (name, value)]
        if os.geteuid() == 0 and not user:
            command.append("-R")
        environment = php_environment("fpm", bare)
        if scan_dir is not None:
            environment["PHP_INI_SCAN_DIR"] = scan_dir
        environment.update(env or {})
        self.fpm_output = open(workspace.path("fpm.out"), "wb")
        self.fpm = _spawn(command, self.fpm_output, environment)
        self.master = self.fpm.pid
        if daemonize:
            # The first process exits once the master it forked is ready.
            try:
                started = self.fpm.wait(timeout=15) == 0
            except subprocess.TimeoutExpired:
                started = False
            if started:
                with open(workspace.path("fpm.pid")) as f:
                    self.master = int(f.read())
        deadline = time.monotonic() + 15
        while not os.path.exists(socket_path):
            if (not daemonize and self.fpm.poll() is not None) or time.monotonic() > deadline:
                self.stop()
                raise RuntimeError("php-fpm did not start: see %s" % workspace.path("fpm.out"))
            time.sleep(0.05)
        params = "/etc/nginx/fastcgi_params"
        if host_as_sent:
            with open(params) as f, open(workspace.path("fastcgi_params"), "w") as own:
                own.write(f.read().replace("fastcgi_param  HTTP_HOST", "#"))
            params = workspace.path("fastcgi_params")
        temp = workspace.path("nginx")
        os.makedirs(temp, exist_ok=True)
        with open(workspace.path("nginx.conf"), "w") as f:
            f.write("""daemon off;
worker_processes 1;
pid %(ws)s/nginx.pid;
error_log %(ws)s/nginx-error.log;
events { worker_connections 64; }
http {
  access_log off;
  large_client_header_buffers 4 64k;
  client_body_temp_path %(tmp)s/body;
  fastcgi_temp_path %(tmp)s/fastcgi;
  proxy_temp_path %(tmp)s/proxy;
  uwsgi_temp_path %(tmp)s/uwsgi;
  scgi_temp_path %(tmp)s/scgi;
%(http)s
  server {
    listen 127.0.0.1:%(port)d;
    root %(root)s;
    index index.php;
%(extra)s
    location ~ \\.php$ {
      include %(params)s;
      fastcgi_param SCRIPT_FILENAME $document_root$fastcgi_script_name;
      fastcgi_pass unix:%(sock)s;
    }
  }
}
""" % {"ws": workspace.root, "tmp": temp, "port": self.port, "root": docroot, "sock": socket_path,
       "extra": server_config, "params": params, "http": http_config})
        self.nginx_output = open(workspace.path("nginx.out"), "wb")
        self.nginx = _spawn([self.NGINX, "-c", workspace.path("nginx.conf"), "-p", workspace.root],
                            self.nginx_output)
        _listening(self, self.nginx, "nginx")

    def worker_pids(self):
        """The pool's workers: the master's children but the cache cleaner."""
        with open("/proc/%d/task/%d/children" % (self.fpm.pid, self.fpm.pid)) as f:
            children = [int(pid) for pid in f.read().split()]
        pids = []
        for pid in children:
            with open("/proc/%d/cmdline" % pid, "rb") as f:
                if b"pool" in f.read():
                    pids.append(pid)
        return pids

    def stop(self):
        if hasattr(self, "nginx"):
            _stop(self.nginx, self.nginx_output)
        if self.daemonize:
            # The master leads a session and a group of its own, not our child.
            _terminate_group(self.master)
        _stop(self.fpm, self.fpm_output)


class ApacheWithPhp:
    """Apache (prefork) with its PHP module, from Debian's packages."""

    APACHE = shutil.which("apache2") or "/usr/sbin/apache2"
    MODULES = "/usr/lib/apache2/modules"

    @classmethod
    def available(cls):
        return os.access(cls.APACHE, os.X_OK) and os.path.exists(os.path.join(cls.MODULES, "libphp8.2.so"))

    def __init__(self, workspace, docroot, directives, bare=False, server_config="", port=None):
        """`server_config` goes at the end of the server's configuration,
        with the modules it may need (rewrite, headers) loaded."""
        self.port = port or free_port()
        ini_dir = workspace.path("apache-php")
        os.makedirs(ini_dir, exist_ok=True)
        # Like a module of Debian's in conf.d: the extension loads after opcache.
        ext_dir = os.path.join(ini_dir, "conf.d")
        os.makedirs(ext_dir, exist_ok=True)
        with open(os.path.join(ini_dir, "php.ini"), "w") as f:
            if not bare:
                with open(PRODUCTION_INI) as production:
                    f.write(production.read())
                for name, value in OPCACHE.items():
                    f.write("%s=%s\n" % (name, value))
        with open(os.path.join(ext_dir, "99-vesk.ini"), "w") as f:
            f.write("zend_extension=%s\n" % EXTENSION)
            for name, value in directives.items():
                f.write('%s="%s"\n' % (name, value))
        modules = ["mpm_prefork", "authz_core", "dir"] + (["rewrite", "headers"] if server_config else [])
        lines = ["LoadModule %s_module %s/mod_%s.so" % (m, self.MODULES, m) for m in modules]
        lines.append("LoadModule php_module %s/libphp8.2.so" % self.MODULES)
        lines += [
            "ServerName 127.0.0.1",
            "Listen 127.0.0.1:%d" % self.port,
            "PidFile %s" % workspace.path("apache.pid"),
            "ErrorLog %s" % workspace.path("apache-error.log"),
            "Mutex file:%s default" % workspace.root,
            "DefaultRuntimeDir %s" % workspace.root,
            "LimitRequestLine 65536",
            "StartServers 2", "MinSpareServers 2", "MaxSpareServers 3", "MaxRequestWorkers 4",
            "DocumentRoot %s" % docroot,
            "DirectoryIndex index.php",
            "PHPIniDir %s" % ini_dir,
            "<Directory %s>\n  Require all granted\n</Directory>" % docroot,
            '<FilesMatch "\\.php$">\n  SetHandler application/x-httpd-php\n</FilesMatch>',
        ]
        if os.geteuid() == 0:
            lines += ["User nobody", "Group nogroup"]
        if server_config:
            lines.append(server_config)
        write(workspace.path("apache.conf"), "\n".join(lines) + "\n")
        self.output = open(workspace.path("apache.out"), "wb")
        env = php_environment("apache2", bare)
        env["PHP_INI_SCAN_DIR"] = ":".join(filter(None, [env["PHP_INI_SCAN_DIR"], ext_dir]))
        self.process = _spawn([self.APACHE, "-f", workspace.path("apache.conf"), "-DFOREGROUND"], self.output, env)
        _listening(self, self.process, "apache2")

    def stop(self):
        _stop(self.process, self.output)


def url_rule(path, name="Pages", splits=("_SERVER[REQUEST_URI]",), conditions=(), **attributes):
    """One <url> rule for the default server, matched as a regular expression
    and kept 300 s unless `attributes` say otherwise; split by `splits`, and
    taken only when all `conditions` (attribute strings of <condition>) hold."""
    values = {"lifetime": "300", "match_type": "regex_match"}
    values.update(attributes)
    extra = "".join(' %s="%s"' % item for item in values.items())
    body = "<name>%s</name>" % name
    if conditions:
        body += ("<conditions_OR_block><conditions_AND_block>%s</conditions_AND_block></conditions_OR_block>"
                 % "".join("<condition %s/>" % condition for condition in conditions))
    if splits:
        body += "<split_by>%s</split_by>" % "".join('<split_condition global="%s"/>' % value for value in splits)
    return '<url schema="http" host="&lt;default-server&gt;" path="%s"%s>%s</url>' % (path, extra, body)


def removals(rule, name, rule_id, uri=None):
    """Each removal function, with what covers the pages of rule `(rule)\\.php` named `name`, of id `rule_id`."""
    return [("page_cache_remove_cached_contents", "http://<default-server>/(%s)\\.php" % rule),
            ("page_cache_remove_cached_contents_by_uri", name, uri or "/%s.php" % rule),
            ("page_cache_remove_cached_contents_by_rule", name),
            ("page_cache_remove_cached_contents_by_rules_ids", [rule_id]),
            ("page_cache_remove_all_cached_contents",)]


def rules_file(*rules):
    """A rules file holding `rules` (<url> and <response_rule> elements)."""
    return ('<?xml version="1.0" encoding="UTF-8"?>\n<cache_settings><dont_cache/><cache>\n  %s\n'
            "</cache></cache_settings>\n" % "\n  ".join(rules))


# Each kind of server the tests run the extension under, by the name tests use.
SERVERS = {"php -S": BuiltinServer, "php-fpm": FpmBehindNginx, "apache": ApacheWithPhp}


def shipped_rules():
    """The example rules file the package ships."""
    with open(os.path.join(SOURCE_ROOT, "conf", "pagecache_rules.xml")) as f:
        return f.read()


class Case(unittest.TestCase):
    """A test over one workspace holding a copy of a test site, with the
    servers it starts stopped when it ends."""

    def use_site(self, rules, site="site", sessions=False):
        """The workspace, with `rules` in place, and its site directory; with
        `sessions`, a sessions directory the servers are pointed at."""
        self.workspace, self.site = Workspace.with_site(self, rules, site)
        self.sessions = sessions
        if sessions:
            os.makedirs(self.workspace.path("sessions"))
        return self.workspace, self.site

    def directives(self, **extra):
        directives = self.workspace.directives(**extra)
        if self.sessions:
            directives["session.save_path"] = self.workspace.path("sessions")
        return directives

    def serve(self, kind="php -S", directives=None, **options):
        """A server of `kind` over the site, with `directives` (the workspace's
        own unless given); the servers whose workers may run as another user
        get the directories they write to opened up."""
        server_class = SERVERS[kind]
        if server_class is not BuiltinServer:
            if not server_class.available():
                self.fail("%s is not installed: scripts/bootstrap installs it" % kind)
            make_shared(self.workspace, *[name for name in ("log", "tmp", "run", "site", "var", "sessions")
                                          if os.path.isdir(self.workspace.path(name))])
        server = server_class(self.workspace, self.site,
                              self.directives() if directives is None else directives, **options)
        self.addCleanup(server.stop)
        return server

    def runs(self, page="page.php"):
        """How often `page` of the site has run: each page notes its runs."""
        try:
            with open(os.path.join(self.site, "runs.log")) as f:
                return f.read().split().count(page)
        except FileNotFoundError:
            return 0

    def records(self):
        """The page records in the workspace's store, without the files
        being written (their names start with a dot)."""
        root = self.workspace.path("tmp", "pagecache", "HTML-Cache")
        return [os.path.join(directory, name) for directory, _, names in os.walk(root)
                for name in names if not name.startswith(".")]

    def wait_until(self, condition, seconds, message):
        deadline = time.monotonic() + seconds
        while not condition():
            self.assertLess(time.monotonic(), deadline, message)
            time.sleep(0.05)

    def assertLogged(self, text):
        """A hit says its length, so its client may have it before the
        worker's end of request writes its lines: they get a moment."""
        self.wait_until(lambda: text in self.workspace.log(), 5, "not in the log: " + text)

    def call(self, port, name, *args):
        """Calls one of the extension's functions from a page: its answer."""
        query = urllib.parse.urlencode({"fn": name, "args": json.dumps(list(args))})
        status, _, body = http_get(port, "/call.php?" + query)
        self.assertEqual(200, status, body)
        return json.loads(body)
