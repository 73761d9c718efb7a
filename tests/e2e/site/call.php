<?php
// Calls one of the extension's functions with JSON-encoded arguments, so a
// test can act on the cache from inside a worker. Not covered by any rule.
$name = $_GET['fn'];
$args = json_decode($_GET['args'] ?? '[]', true);
echo json_encode($name(...$args));
