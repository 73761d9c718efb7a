<?php
require __DIR__ . '/_record.php';
http_response_code((int)($_GET['code'] ?? 404));
isset($_GET['shutdown']) && register_shutdown_function(function () { while (ob_get_level()) ob_end_flush(); });
echo "status page\n";
