<?php
require __DIR__ . '/../_page.php';
// The common reset of a framework: every buffer ends, as many as there are.
$ended = 0;
while (ob_get_level() && $ended++ < 50) {
    ob_end_clean();
}
echo page('endall'), "ended=$ended level=", ob_get_level(), "\n";
