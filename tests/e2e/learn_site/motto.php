<?php
require __DIR__ . '/db.php';
echo 'Motto: ', $db->query('SELECT v FROM settings')->fetchColumn(), "\n";
// Counting visits writes on every view, and changes no page.
$db->exec("UPDATE settings SET v = v + 1 WHERE name = 'counter_views'");
