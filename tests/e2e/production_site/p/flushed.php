<?php
require __DIR__ . '/../_page.php';
echo page('first part'), page('first part');
ob_flush();
echo page('second part');
