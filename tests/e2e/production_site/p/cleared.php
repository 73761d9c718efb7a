<?php
require __DIR__ . '/../_page.php';
header('X-Before-Clear: 1');
header_remove();
header('X-After-Clear: 1');
echo page('cleared');
