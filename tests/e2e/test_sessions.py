"""Rules that read $_SESSION decide when the script starts its session."""
import os
import shutil
import unittest

import harness

RULES = """<?xml version="1.0" encoding="UTF-8"?>
<cache_settings>
  <dont_cache/>
  <cache>
    <url schema="http" host="&amp;lt;default-server&amp;gt;" path="(anonymous|pre)\\.php" lifetime="300" match_type="regex_match">
      <name>Anonymous visitors</name>
      <conditions_OR_block><conditions_AND_block>
        <condition global="_SESSION[user]" type="not_exists"/>
      </conditions_AND_block></conditions_OR_block>
      <split_by><split_condition global="_SERVER[REQUEST_URI]"/></split_by>
    </url>
    <url schema="http" host="&amp;lt;default-server&amp;gt;" path="member\\.php" lifetime="300" match_type="regex_match">
      <name>Members</name>
      <conditions_OR_block><conditions_AND_block>
        <condition global="_SESSION[user]" type="exists"/>
      </conditions_AND_block></conditions_OR_block>
    </url>
  </cache>
</cache_settings>
"""


class Sessions(unittest.TestCase):
    def setUp(self):
        self.workspace = harness.Workspace()
        self.addCleanup(self.workspace.remove)
        self.workspace.use_rules(RULES)
        os.makedirs(self.workspace.path("sessions"))
        self.site = self.workspace.path("site")
        shutil.copytree(os.path.join(os.path.dirname(os.path.abspath(__file__)), "session_site"), self.site)
        directives = self.workspace.directives(vesk_pagecache__log_verbosity_level="5")
        directives["session.save_path"] = self.workspace.path("sessions")
        # As Debian's production php.ini has it: output before the session
        # start stays buffered, so a stored page's headers can still follow it.
        directives["output_buffering"] = "4096"
        self.server = harness.BuiltinServer(self.workspace, self.site, directives)
        self.addCleanup(self.server.stop)

    def steps(self):
        try:
            with open(os.path.join(self.site, "steps.log")) as f:
                return f.read().splitlines()
        except FileNotFoundError:
            return []

    def get(self, path, headers=None):
        return harness.http_get(self.server.port, path, headers)

    def assertLogged(self, text):
        self.assertTrue(text in self.workspace.log(), "not in the log: " + text)

    def test_stored_page_is_served_when_the_session_starts(self):
        status, headers, first = self.get("/anonymous.php")
        self.assertEqual(200, status)
        # The visitor gets the session cookie; the stored page doesn't keep it.
        self.assertTrue(headers.get("set-cookie", "").startswith("PHPSESSID="))
        self.assertLogged("Ignoring header for storing (during session startup): Set-Cookie: PHPSESSID=")
        self.assertLogged("waiting for session data before deciding whether to use cached data")
        status, second_headers, second = self.get("/anonymous.php")
        self.assertEqual((200, first), (status, second))
        # The second visitor gets a session of its own, never the first one's.
        self.assertEqual(1, second_headers["set-cookie"].count("PHPSESSID="))
        self.assertNotEqual(headers["set-cookie"], second_headers["set-cookie"])
        # The second run stopped at session_start.
        self.assertEqual(["anonymous.php start", "anonymous.php after session_start", "anonymous.php start"],
                         self.steps())
        self.assertLogged("Calling vesk_bailout")

    def test_output_before_the_session_goes_out_first_and_is_not_stored(self):
        _, _, first = self.get("/pre.php")
        _, _, second = self.get("/pre.php")
        self.assertTrue(first.startswith(b"printed before the session\nafter the session "))
        self.assertEqual(first, second)
        self.assertEqual(["pre.php start", "pre.php after session_start", "pre.php start"], self.steps())
        self.assertLogged("Storing pre-session data before deciding whether to use cache")

    def test_a_condition_that_fails_leaves_the_script_running(self):
        self.get("/member.php")
        self.get("/member.php")
        self.assertEqual(4, len(self.steps()))
        self.assertLogged("is NOT cacheable")


if __name__ == "__main__":
    unittest.main()
