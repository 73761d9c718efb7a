<?php
require __DIR__ . '/../_page.php';
header('Vary: Accept-Encoding, Cookie');
echo page('vary');
