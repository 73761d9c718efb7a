<?php
require __DIR__ . '/_steps.php';
step('start');
echo "printed before the session\n";
session_start();
step('after session_start');
echo "after the session " . microtime(true) . "\n";
