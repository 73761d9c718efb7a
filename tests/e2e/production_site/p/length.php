<?php
require __DIR__ . '/../_page.php';
$page = page('length');
header('Content-Length: ' . strlen($page));
echo $page;
