"""Miss, then hit, under the built-in web server: what is stored, what is
served, and what is refused; with vesk_pagecache.enable_qa_info every
response of a covered URL says so ("X-PageCache: miss", "hit", "pass
(reason)"), an uncovered one says nothing."""
import datetime
import email.utils
import gzip
import socket

import harness

RULES = harness.rules_file(
    harness.url_rule(".*", "All pages"),
    '<response_rule app_id="-1" response_codes="200">'
    '<response_headers><header name="Set-Cookie" match_type="exists"/></response_headers></response_rule>')


class RequestPath(harness.Case):
    """One server for all the cases here, each on pages of its own."""

    @classmethod
    def setUpClass(cls):
        cls.workspace, cls.site = harness.Workspace.with_site(cls, RULES)
        cls.server = harness.BuiltinServer(
            cls.workspace, cls.site,
            # Errors shown, so that a fatal error keeps its status and meets
            # the capture's own error test rather than the status rule.
            cls.workspace.directives(vesk_pagecache__log_verbosity_level="5", vesk_pagecache__enable_qa_info="1",
                                     display_errors="1"))

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()

    def request(self, method, path, headers=None):
        return harness.http_get(self.server.port, path, headers, method)

    def without_host(self, path):
        """An HTTP/1.0 request without a Host header: the whole response."""
        with socket.create_connection(("127.0.0.1", self.server.port), timeout=10) as connection:
            connection.sendall(b"GET %s HTTP/1.0\r\n\r\n" % path.encode())
            return connection.makefile("rb").read()

    def test_miss_then_hit_serves_the_same_page_without_running_it(self):
        before = self.runs("page.php")
        status, headers, body = self.request("GET", "/page.php?id=1")
        self.assertEqual(200, status)
        self.assertEqual(before + 1, self.runs("page.php"))
        self.assertIn("last-modified", headers)
        self.assertEqual("miss", headers["x-pagecache"])
        for _ in range(3):
            status2, headers2, body2 = self.request("GET", "/page.php?id=1")
            self.assertEqual((200, body), (status2, body2))
            self.assertEqual(headers["last-modified"], headers2["last-modified"])
            self.assertEqual(("0", "hit"), (headers2["x-pagecache-compression"], headers2["x-pagecache"]))
        self.assertEqual(before + 1, self.runs("page.php"))
        # HEAD takes the same path: a hit.
        status, _, _ = self.request("HEAD", "/page.php?id=1")
        self.assertEqual(200, status)
        self.assertEqual(before + 1, self.runs("page.php"))
        # Slashes folded in the rule URL, the split key still tells URIs apart.
        self.request("GET", "//page.php?id=2")
        self.request("GET", "//page.php?id=2")
        self.assertEqual(before + 2, self.runs("page.php"))
        self.assertLogged("Cache entry found for url: http://127.0.0.1:%d/page.php " % self.server.port)

    def test_other_methods_and_requests_without_host_run_uncached(self):
        before = self.runs("page.php")
        self.request("POST", "/page.php?post=1", headers={"Content-Length": "0"})
        _, headers, _ = self.request("POST", "/page.php?post=1", headers={"Content-Length": "0"})
        self.assertEqual("pass (method)", headers["x-pagecache"])
        self.assertEqual(before + 2, self.runs("page.php"))
        self.assertLogged("Uncacheable request method -  POST /page.php?post=1")
        self.without_host("/page.php?nohost=1")
        self.assertNotIn(b"X-PageCache", self.without_host("/page.php?nohost=1"))
        self.assertEqual(before + 4, self.runs("page.php"))

    def test_conditional_requests(self):
        # 304 and 412 against the date sent are checked under every server
        # (test_production_php); here what only the order of the tests shows.
        _, headers, _ = self.request("GET", "/page.php?cond=1")
        created = email.utils.parsedate_to_datetime(headers["last-modified"])
        earlier = email.utils.format_datetime(created - datetime.timedelta(seconds=1), usegmt=True)
        # Both: only If-Unmodified-Since counts.
        status, _, _ = self.request("GET", "/page.php?cond=1",
                                    {"If-Unmodified-Since": earlier, "If-Modified-Since": headers["last-modified"]})
        self.assertEqual(412, status)
        # A page not stored yet: a miss.
        status, _, _ = self.request("GET", "/page.php?cond=2", {"If-Modified-Since": headers["last-modified"]})
        self.assertEqual(200, status)
        self.assertLogged("Cache entry doesn't exist yet")

    def test_gzip_copy_above_1024_bytes_only(self):
        for size, encoding in ((1025, "gzip"), (1024, None)):
            self.request("GET", "/page.php?size=%d" % size)
            _, headers, _ = self.request("GET", "/page.php?size=%d" % size, {"Accept-Encoding": "gzip"})
            self.assertEqual((encoding, "1" if encoding else "0"),
                             (headers.get("content-encoding"), headers["x-pagecache-compression"]))

    def test_application_gzip_is_stored_as_it_came(self):
        _, _, packed = self.request("GET", "/gzip.php", {"Accept-Encoding": "gzip"})
        status, headers, clear = self.request("GET", "/gzip.php")
        self.assertEqual(1, self.runs("gzip.php"))
        self.assertNotIn("content-encoding", headers)
        self.assertEqual(gzip.decompress(packed), clear)
        self.request("GET", "/deflate.php")
        self.request("GET", "/deflate.php")
        self.assertEqual(2, self.runs("deflate.php"))
        self.assertLogged("Unsupported compression format of response. Output will not be cached.")

    def test_refused_pages_reach_the_client_as_the_script_made_them(self):
        for page, verdict in (("fatal.php", "fatal error"), ("empty.php", "empty"), ("cookie.php", "header rule"),
                              ("status.php", "status rule")):
            first = self.request("GET", "/" + page)
            second = self.request("GET", "/" + page)
            self.assertEqual(2, self.runs(page), page)
            self.assertEqual((first[0], "pass (%s)" % verdict, None),
                             (second[0], second[1]["x-pagecache"], second[1].get("last-modified")))
        # Refused as the script ends every level at shutdown, as WordPress does: told so, never dated.
        headers = self.request("GET", "/status.php?shutdown=1")[1]
        self.assertEqual(("pass (status rule)", None), (headers["x-pagecache"], headers.get("last-modified")))
        self.assertIn(b"before the error", self.request("GET", "/fatal.php")[2])
        self.assertEqual("visitor", self.request("GET", "/cookie.php")[1]["set-cookie"].split("=")[0])
        self.assertEqual(404, self.request("GET", "/status.php")[0])
        self.assertLogged("A PHP error has occurred during the request. Output will not be cached.")
        self.assertLogged("Empty output to store. Output will not be cached.")
        self.assertLogged("Cache REJECTED by app response headers rules")
        self.assertLogged("Rejected for cache - by response code rule")
        # A fatal error in one request costs the next one nothing.
        self.request("GET", "/page.php?after=fatal")
        self.request("GET", "/page.php?after=fatal")
        self.assertLogged("Stored entry")
