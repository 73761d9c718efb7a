"""Tags on pages, from the rule's header and from the function, and the
removal of the pages holding a tag: by the function, by the tool, and
while a page of the tag is being built."""
import threading

import harness

RULES = harness.rules_file(harness.url_rule("(tagged)\\.php", tags_header="X-Cache-Tags"))


class Tags(harness.Case):
    def setUp(self):
        self.use_site(RULES)
        self.server = self.serve(workers=2, directives=self.directives(vesk_pagecache__enable_qa_info="1"))

    def get(self, query):
        """Whether the page ran for this request, and its headers."""
        runs = self.runs("tagged.php")
        status, headers, _ = harness.http_get(self.server.port, "/tagged.php?" + query)
        self.assertEqual(200, status)
        self.assertNotIn("x-cache-tags", headers)
        return self.runs("tagged.php") > runs, headers

    def assertRan(self, expected, queries):
        self.assertEqual(expected, [self.get(query)[0] for query in queries])

    def test_a_removal_ends_the_pages_of_its_tags_alone(self):
        pages = ["header=post-1,%20list", "add=post-2|list", "header=post-3&add=other"]
        self.assertRan([True] * 3, pages)
        self.assertRan([False] * 3, pages)
        self.assertIs(True, self.call(self.server.port, "page_cache_remove_by_tags", ["post-1"]))
        self.assertRan([True, False, False], pages)
        self.assertIs(True, self.call(self.server.port, "page_cache_remove_by_tags", ["list", "nothing"]))
        self.assertRan([True, True, False], pages)
        tool = harness.run_tool(self.workspace, self.directives(), "remove", "tag", "other")
        self.assertEqual(0, tool.returncode, tool.stderr)
        self.assertRan([False, False, True], pages)

    def test_a_page_past_the_bound_is_not_stored(self):
        many = "add=" + "|".join("t%d" % n for n in range(300))
        self.assertRan([True, True], [many, many])
        self.assertIn("pass (tags)", self.get(many)[1].get("x-pagecache", ""))
        self.assertLogged("not stored: it has more than 256 tags")

    def test_a_page_built_while_its_tag_is_removed_is_not_stored(self):
        building = threading.Thread(target=self.get, args=("add=slow&sleep=1500",))
        building.start()
        self.wait_until(lambda: self.runs("tagged.php") == 1, 10, "the page never started")
        self.call(self.server.port, "page_cache_remove_by_tags", ["slow"])
        building.join(30)
        self.assertRan([True, False], ["add=slow&sleep=0", "add=slow&sleep=0"])
        self.assertRan([True], ["add=slow&sleep=1500"])
