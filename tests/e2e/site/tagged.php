<?php
// A page that names what it shows, by the rule's tags header, by the
// function, or both; `sleep` keeps it building for a while.
require __DIR__ . '/_record.php';
if (isset($_GET['header']))
    header('X-Cache-Tags: ' . $_GET['header']);
if (isset($_GET['add']))
    page_cache_add_tags(explode('|', $_GET['add']));
usleep(1000 * (int)($_GET['sleep'] ?? 0));
echo '<p>tagged ' . microtime(true) . '</p>';
