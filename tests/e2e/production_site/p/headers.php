<?php
require __DIR__ . '/../_page.php';
header('Content-Type: text/html; charset=UTF-8');
header('X-A: 1');
header('X-Gone: 1');
header('Link: <a.css>; rel=preload', false);
header('Link: <b.css>; rel=preload', false);
header_remove('X-Gone'); header_remove('X-Powered-By');
header('X-B: 1');
echo page('headers');
