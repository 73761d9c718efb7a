<?php
require __DIR__ . '/_record.php';
header('Content-Encoding: gzip');
echo gzencode(str_repeat("compressed by the application\n", 100));
