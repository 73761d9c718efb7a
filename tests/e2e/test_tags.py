"""Tags on pages, from the rule's header and from the function, and the
removal of the pages holding a tag: by the function, by the tool, and
while a page of the tag is being built."""
import functools
import subprocess
import threading
from unittest import mock

import harness
import test_farm

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

    def tool(self, *args):
        result = harness.run_tool(self.workspace, self.directives(), *args)
        self.assertEqual(0, result.returncode, result.stderr)
        return result.stdout

    def test_a_removal_ends_the_pages_of_its_tags_alone(self):
        pages = ["header=post-1,%20list", "add=post-2|list", "header=post-3&add=other"]
        self.assertEqual("miss (2 tags)", self.get(pages[0])[1]["x-pagecache"])
        self.assertRan([True, True], pages[1:])
        self.assertRan([False] * 3, pages)
        self.assertEqual(2, self.tool("list", "--tag", "list").count("tagged.php"))
        inspected = self.tool("inspect", "http://127.0.0.1:%d/tagged.php?%s" % (self.server.port, pages[2]))
        self.assertIn("tags: post-3 other", inspected)
        self.assertIs(True, self.call(self.server.port, "page_cache_remove_by_tags", ["post-1"]))
        self.assertRan([True, False, False], pages)
        # A command-line script, where the cache is off, ends the workers' pages.
        script = "var_export(page_cache_remove_by_tags(['list', 'nothing']));"
        cli = subprocess.run(harness.php_command(self.directives()) + ["-r", script], capture_output=True, text=True,
                             timeout=60, env=harness.php_environment("cli", True))
        self.assertEqual("true", cli.stdout, cli.stderr)
        self.assertRan([True, True, False], pages)
        self.tool("remove", "tag", "other")
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


class TagsOnAFarm(test_farm.FarmCase):
    def test_a_removal_by_tag_reaches_the_other_node(self):
        rules = harness.rules_file(harness.url_rule("(tagged)\\.php"))
        with mock.patch.object(test_farm, "RULES", rules):
            self.nodes = [test_farm.Node(self, node_id, self.redis.url) for node_id in (1, 2)]
        for node in self.nodes:
            node.runs = functools.partial(harness.Case.runs, node, "tagged.php")
        path = "/tagged.php?add=shared"
        self.store_everywhere(path)
        self.assertIs(True, self.call(self.nodes[0], "page_cache_remove_by_tags", ["shared"], True))
        self.assertFalse(self.nodes[0].hit(path))
        self.assertReached(self.nodes[1:], path)
