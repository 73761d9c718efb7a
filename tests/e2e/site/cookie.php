<?php
require __DIR__ . '/_record.php';
setcookie('visitor', 'v' . mt_rand());
echo "page with a cookie\n";
