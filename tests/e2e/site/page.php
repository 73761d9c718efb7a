<?php
require __DIR__ . '/_record.php';
$size = (int)($_GET['size'] ?? 200);
echo str_pad('<p>page ' . microtime(true) . '</p>', $size, '.');
