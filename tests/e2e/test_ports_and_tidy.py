"""Rules with and without a port, and pages that a tidy pass would rewrite."""
import os
import shutil
import unittest

import harness


class PortsAndTidy(harness.Case):
    def start(self, **directives):
        port = harness.free_port()
        self.use_site("""<?xml version="1.0" encoding="UTF-8"?>
<cache_settings><dont_cache/><cache>
  <url schema="http" host="127.0.0.1" path="a.php"><name>no port</name></url>
  <url schema="http" host="127.0.0.1:%d" path="b.php"><name>this port</name></url>
  <url schema="http" host="127.0.0.1:1" path="c.php"><name>other port</name></url>
</cache></cache_settings>
""" % port)
        for name in ("a.php", "b.php", "c.php"):
            shutil.copy(os.path.join(self.site, "page.php"), os.path.join(self.site, name))
        self.server = self.serve(directives=self.directives(vesk_pagecache__log_verbosity_level="5", **directives),
                                 port=port)

    def get(self, path, headers=None):
        return harness.http_get(self.server.port, path, headers)

    def pages_run(self):
        return sum(self.runs(name) for name in ("a.php", "b.php", "c.php"))

    def test_rule_hosts_with_and_without_port(self):
        self.start()
        for path in ("/a.php", "/a.php", "/b.php", "/b.php", "/c.php", "/c.php"):
            self.assertEqual(200, self.get(path)[0])
        # a.php and b.php ran once each; c.php's rule names another port.
        self.assertEqual(4, self.pages_run())
        self.assertLogged("Exact match rule found for: http://127.0.0.1:%d/a.php " % self.server.port)

    def test_no_gzip_copy_when_tidy_cleans_output(self):
        self.start(**{"tidy.clean_output": "On"})
        _, _, clear = self.get("/a.php?size=5000")
        _, headers, again = self.get("/a.php?size=5000", {"Accept-Encoding": "gzip"})
        self.assertNotIn("content-encoding", headers)
        self.assertEqual(clear, again)
        self.assertEqual(1, self.runs("a.php"))


if __name__ == "__main__":
    unittest.main()
