<?php
require __DIR__ . '/../_page.php';
// Every level ends with a flush, then the script goes on writing: what the
// levels held is not the whole page.
echo page('flush_then_more');
while (ob_get_level()) {
    ob_end_flush();
}
echo "<p>tail ", uniqid('', true), "</p>\n";
