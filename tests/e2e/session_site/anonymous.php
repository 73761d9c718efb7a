<?php
require __DIR__ . '/_steps.php';
step('start');
session_start();
step('after session_start');
echo "anonymous page " . microtime(true) . "\n";
