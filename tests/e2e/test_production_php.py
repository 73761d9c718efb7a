"""Pages stay right under the settings and habits of production sites: every
server API, Debian's production php.ini with opcache, and the engine's own
output compression (zlib.output_compression, output_handler=ob_gzhandler).
A hit must give each client what the miss gave: the same headers, status
and body, compressed at most once."""
import gzip
import http.client
import os

import harness

RULES = harness.rules_file(
    harness.url_rule("p/.*", splits=("_SERVER[HTTP_HOST]", "_SERVER[REQUEST_URI]")),
    harness.url_rule("s/.*", "Anonymous sessions", conditions=('global="_SESSION[user]" type="not_exists"',)),
    '<response_rule app_id="-1" response_codes="200,301"/>')

# The CLI's expose_php=On beside the two compressions: the engine's own line.
COMPRESSION = {
    "production": {},
    "zlib": {"zlib.output_compression": "On", "expose_php": "On"},
    "ob_gzhandler": {"output_handler": "ob_gzhandler", "expose_php": "On"},
}
GZIP = {"Accept-Encoding": "gzip"}
# What has a browser or a shared cache ask again, and with what.
CACHING = ("cache-control", "expires", "last-modified", "vary", "x-powered-by")


def caching_lines(headers, compressing, names=CACHING):
    """Under the engine's compression, its own Vary goes to gzip clients only."""
    lines = {name: {v.strip() for v in headers.get(name, "").split(",")} - {""} for name in names}
    return dict(lines, vary=lines["vary"] - ({"Accept-Encoding"} if compressing else set()))


def fetch(port, path, headers=None):
    """Status, headers (lower-case names, repeated ones joined by ", ") and the
    body as it came, with its decoding: a client that hung on a wrong length
    times out here."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=5)
    connection.request("GET", path, headers=headers or {})
    response = connection.getresponse()
    raw = response.read()
    lines = {}
    for name, value in response.getheaders():
        lines.setdefault(name.lower(), []).append(value)
    connection.close()
    joined = {name: ", ".join(values) for name, values in lines.items()}
    body = gzip.decompress(raw) if joined.get("content-encoding") == "gzip" else raw
    return response.status, joined, body


class ProductionPhp(harness.Case):
    """Each case runs under every server with every compression setting."""

    def each_server(self, check):
        for kind in harness.SERVERS:
            for mode, settings in COMPRESSION.items():
                with self.subTest(server=kind, compression=mode):
                    self.compression = mode
                    self.use_site(RULES, "production_site", sessions=True)
                    server = self.serve(kind, self.directives(**settings))
                    try:
                        check(server.port, self.workspace)
                    finally:
                        server.stop()

    def miss_then_hits(self, port, path, client=None):
        """The miss (for a plain client unless told), then a hit for each kind
        of client, and a 304: each goes out with the miss's caching lines, and
        the miss is dated and tells when to ask again."""
        miss = fetch(port, path, client)
        hits = fetch(port, path), fetch(port, path, GZIP)
        not_modified = fetch(port, path, {"If-Modified-Since": miss[1].get("last-modified", "")})
        self.assertEqual((304, b""), not_modified[::2])
        self.assertTrue({"last-modified", "cache-control"} <= set(miss[1]), miss[1])
        for status, headers, _ in hits + (not_modified,):
            compressing = self.compression != "production"
            # A 304 carries the page's X-Powered-By where the engine has one to drop.
            names = CACHING if status == 200 or compressing else tuple(n for n in CACHING if n != "x-powered-by")
            self.assertEqual(caching_lines(miss[1], compressing, names), caching_lines(headers, compressing, names),
                             (path, status))
        return (miss,) + hits

    def test_every_client_gets_the_page_and_the_lines_the_miss_gave(self):
        def check(port, workspace):
            miss, plain, packed = self.miss_then_hits(port, "/p/headers.php")
            # Every worker serves the stored page: a run would make another.
            for _ in range(4):
                self.assertEqual((200, miss[2]), fetch(port, "/p/headers.php")[::2])
            self.assertEqual("gzip", packed[1].get("content-encoding"))
            # Neither cache nor browser keeps the page as fresh: each view asks.
            self.assertEqual("no-cache", miss[1]["cache-control"])
            for status, headers, body in (plain, packed):
                self.assertEqual((200, miss[2]), (status, body))
                self.assertFalse({"x-gone", "x-powered-by"} & set(headers))
                self.assertEqual(miss[1]["content-type"], headers["content-type"])
                self.assertEqual("1", headers.get("x-b"))
                self.assertEqual("<a.css>; rel=preload, <b.css>; rel=preload", headers.get("link"))
                # A hit knows its length (the body's check proves it right)
                # where nothing compresses after it: the server needn't chunk.
                if self.compression == "production":
                    self.assertIn("content-length", headers)
            miss, plain, packed = self.miss_then_hits(port, "/p/cleared.php")
            for status, headers, body in (plain, packed):
                self.assertEqual(miss[2], body)
                self.assertNotIn("x-before-clear", headers)
                self.assertEqual("1", headers.get("x-after-clear"))
            # The script's own length is the clear page's: never beside a gzip body.
            miss, plain, packed = self.miss_then_hits(port, "/p/length.php")
            self.assertEqual(miss[2], plain[2])
            self.assertEqual(miss[2], packed[2])
            # The application varies on the cookie as well, whichever copy goes out.
            _, plain, packed = self.miss_then_hits(port, "/p/vary.php")
            for _, headers, _ in (plain, packed):
                self.assertIn("Cookie", headers.get("vary", ""))
        self.each_server(check)

    def test_a_stored_redirect_keeps_its_status(self):
        def check(port, workspace):
            miss, plain, packed = self.miss_then_hits(port, "/p/redirect.php")
            for status, headers, body in (miss, plain, packed):
                self.assertEqual(301, status)
                self.assertTrue(headers["location"].endswith("/p/headers.php"))
                # The page's own line of a name the engine also sends stands alone.
                self.assertEqual("the site", headers.get("x-powered-by"))
        self.each_server(check)

    def test_conditional_requests_compare_with_the_date_sent(self):
        def check(port, workspace):
            # The application's own date and freshness are kept, on the 304 too.
            (_, headers, body), _, _ = self.miss_then_hits(port, "/p/validators.php")
            sent = headers["last-modified"]
            self.assertEqual(("Tue, 03 Mar 2026 10:00:00 GMT", "public, max-age=60"), (sent, headers["cache-control"]))
            status, _, again = fetch(port, "/p/validators.php", {"If-Unmodified-Since": sent})
            self.assertEqual((200, body), (status, again))
            status, _, _ = fetch(port, "/p/validators.php", {"If-Unmodified-Since": "Mon, 02 Mar 2026 10:00:00 GMT"})
            self.assertEqual(412, status)
        self.each_server(check)

    def test_the_scripts_buffers_are_its_own(self):
        def check(port, workspace):
            # Ending every buffer ends, and the page is right each time.
            for _ in range(2):
                status, _, body = fetch(port, "/p/endall.php", GZIP)
                self.assertEqual(200, status)
                self.assertIn(b"level=0\n", body)
                self.assertNotIn(b"Notice", body)
            # Every level ended with a flush at shutdown: the page is whole, and
            # stored from a gzip client too, where the engine compresses.
            miss, plain, packed = self.miss_then_hits(port, "/p/shutdown_flush.php", GZIP)
            self.assertTrue(miss[2].endswith(b"</html>\n"), miss[2][-40:])
            self.assertEqual([miss[2]] * 2, [plain[2], packed[2]])
            # Output after the levels ended is the client's too, so never stored.
            first, second = fetch(port, "/p/flush_then_more.php"), fetch(port, "/p/flush_then_more.php")
            for _, _, body in (first, second):
                self.assertIn(b"<p>tail ", body)
            self.assertNotEqual(first[2], second[2])
            # A flush inside the page: the stored page is still the whole one.
            miss, plain, packed = self.miss_then_hits(port, "/p/flushed.php")
            self.assertIn(b"second part", miss[2])
            self.assertEqual(miss[2], plain[2])
            self.assertEqual(miss[2], packed[2])
            # After a capture in the same worker, an uncovered script's buffer
            # is left alone by page_cache_disable_caching().
            for _ in range(3):
                self.assertEqual(b"['inner']", fetch(port, "/u/disable.php")[2])
            # A buffer opened before the session keeps what it holds.
            for _ in range(2):
                status, _, body = fetch(port, "/s/session_ob.php")
                self.assertEqual(200, status)
                self.assertTrue(body.startswith(b"[before the session\n]"), body)
        self.each_server(check)

    def test_a_url_past_any_fixed_buffer_runs_uncached(self):
        def check(port, workspace):
            long_path = "/p/headers.php?" + "x" * 9000
            for _ in range(2):
                status, _, body = fetch(port, long_path)
                self.assertEqual(200, status)
                self.assertIn(b"<h1>headers</h1>", body)
            self.assertEqual(200, fetch(port, "/p/headers.php")[0])
            if os.path.exists(workspace.path("fpm.log")):
                with open(workspace.path("fpm.log")) as log:
                    self.assertNotIn("SIGABRT", log.read())
        self.each_server(check)
