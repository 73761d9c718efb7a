<?php
require __DIR__ . '/_record.php';
echo "before the error\n";
undefined_function_here();
