<?php
require __DIR__ . '/_record.php';
http_response_code((int)($_GET['code'] ?? 404));
echo "status page\n";
