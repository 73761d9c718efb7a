"""WordPress with its recipe, seen through a real browser: headless Chromium
driven through WebDriver (Debian's chromium, chromium-driver and
python3-selenium), one session for the file. A browser keeps what it may
and shows it again without asking: a stored page must make it ask every
time, so that a change or a login shows at the next navigation."""
import json
import os
import sys
import time
import unittest
import uuid

import harness
import test_recipes

# Debian's python3-selenium, also for a Python of another installation.
sys.path.append("/usr/lib/python3/dist-packages")
try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import WebDriverWait
except ImportError:
    webdriver = None

CHROMIUM, DRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"
# A browser keeps a page dated d seconds back as fresh for d / 10 seconds
# when told nothing else: the pages it sees are stored that long before.
AGE = 150


class Browser(test_recipes.WordPressSite, test_recipes.RecipeCase):
    # Two visitors from one address may comment within seconds.
    plugins = {"flood.php": "<?php add_filter('comment_flood_filter', '__return_false');\n"}

    @classmethod
    def setUpClass(cls):
        if webdriver is None or not all(os.access(p, os.X_OK) for p in (CHROMIUM, DRIVER)):
            raise unittest.SkipTest("chromium, chromium-driver or python3-selenium is not installed "
                                    "(scripts/bootstrap installs them)")
        super().setUpClass()
        visitor = harness.Browser(cls.server.port, cls.host)
        for post in (4, 5):
            visitor.get("/?p=%d" % post)
        cls.stored = time.monotonic()
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1200,900",
                         "--proxy-server=http://127.0.0.1:%d" % cls.server.port,
                         "--disable-features=HttpsUpgrades", "--user-data-dir=" + cls.workspace.path("chromium")):
            options.add_argument(argument)
        # The browser is none of ours: the sanitized run's preloaded runtimes
        # would stop it at its start, so it starts without them.
        driver_env = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
        cls.driver = webdriver.Chrome(service=Service(DRIVER, env=driver_env), options=options)
        cls.addClassCleanup(cls.driver.quit)

    def show(self, path):
        """Navigates to the site's `path`; answers the text the page shows."""
        self.driver.get("http://%s%s" % (self.host, path))
        return self.driver.find_element(By.TAG_NAME, "body").text

    def test_a_login_and_a_change_show_at_the_next_navigation(self):
        admin = self.administrator()
        nonce = admin.get("/wp-admin/admin-ajax.php?action=rest-nonce")[2].decode()
        time.sleep(max(0.0, self.stored + AGE - time.monotonic()))
        for post in (5, 4):
            self.assertIn(test_recipes.HIT, self.visitor().get("/?p=%d" % post)[1])
        # Just after logging in, the page the browser was shown a moment ago as a hit.
        self.assertNotIn("Howdy", self.show("/?p=5"))
        self.driver.get("http://%s/wp-login.php?redirect_to=%%2F%%3Fp%%3D6" % self.host)
        self.driver.find_element(By.ID, "user_login").send_keys("admin")
        self.driver.find_element(By.ID, "user_pass").send_keys(self.password)
        self.driver.find_element(By.ID, "wp-submit").click()
        WebDriverWait(self.driver, 60).until(lambda driver: driver.current_url.endswith("/?p=6"))
        self.assertIn("Howdy", self.show("/?p=5"))
        # After logout, no logged-in view comes back.
        logout = self.driver.find_element(By.CSS_SELECTOR, "#wp-admin-bar-logout a").get_attribute("href")
        self.assertIn("loggedout", self.show(logout.split(self.host, 1)[1]) + self.driver.current_url)
        self.assertNotIn("Howdy", self.show("/?p=5"))
        # A title changed: an anonymous visitor's next navigation shows it.
        self.assertIn("Post 1", self.show("/?p=4"))
        self.driver.get("about:blank")
        title = "Edited-%s" % uuid.uuid4().hex[:8]
        status, _, body = admin.request("POST", "/?rest_route=/wp/v2/posts/4", json.dumps({"title": title}),
                                        {"Content-Type": "application/json", "X-WP-Nonce": nonce})
        self.assertEqual(200, status, body[:300])
        self.assertIn(title, self.show("/?p=4"))

    def test_comments_never_cross_and_hits_look_like_misses(self):
        self.driver.delete_all_cookies()
        self.show("/?p=6")
        for field, text in (("comment", "Browser comment"), ("author", "Alice Browser"), ("email", "a@example.com")):
            self.driver.find_element(By.ID, field).send_keys(text)
        self.driver.find_element(By.ID, "submit").click()
        WebDriverWait(self.driver, 60).until(lambda driver: "unapproved" in driver.current_url)
        self.assertIn("Browser comment", self.driver.find_element(By.TAG_NAME, "body").text)
        other = self.visitor()
        status, _, body = other.post("/wp-comments-post.php", {
            "comment": "Visitor comment", "author": "Bob Visitor", "email": "b@example.com",
            "comment_post_ID": "6", "wp-comment-cookies-consent": "yes"})
        self.assertEqual(302, status, body[:300])
        for visitor in (self.visitor(), other):
            for _ in range(2):
                body = visitor.get("/?p=6")[2]
                self.assertEqual([], [text for text in (b"Browser comment", b"Alice Browser") if text in body])
        page = self.show("/?p=6")
        self.assertEqual([], [text for text in ("Visitor comment", "Bob Visitor") if text in page])
        # The stored page looks like the page it was stored from.
        self.driver.delete_all_cookies()
        shots = []
        for _ in range(2):
            self.driver.execute_cdp_cmd("Network.clearBrowserCache", {})
            shots.append((self.show("/?p=7"), self.driver.get_screenshot_as_png()))
        self.assertIn(test_recipes.HIT, self.visitor().get("/?p=7")[1])
        self.assertEqual(shots[0], shots[1])
