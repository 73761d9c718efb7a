<?php
require __DIR__ . '/../_page.php';
header('Last-Modified: Tue, 03 Mar 2026 10:00:00 GMT');
header('ETag: "v1"');
header('Cache-Control: public, max-age=60');
echo page('validators');
