<?php
require __DIR__ . '/_record.php';
header('Content-Encoding: deflate');
echo gzdeflate(str_repeat("deflated\n", 200));
