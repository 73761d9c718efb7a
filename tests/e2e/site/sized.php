<?php
// A page whose length the test sets in size.txt: from above 1024 bytes, it
// is stored with a gzip copy; below, without one.
require __DIR__ . '/_record.php';
$size = (int)@file_get_contents(__DIR__ . '/size.txt');
echo str_pad('<p>sized ' . microtime(true) . '</p>', $size, '.');
