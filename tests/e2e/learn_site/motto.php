<?php
require __DIR__ . '/db.php';
echo 'Motto: ', $db->query('SELECT v FROM settings')->fetchColumn(), "\n";
// Counting visits writes on every view, and changes no page.
$db->exec("UPDATE settings SET v = v + 1 WHERE name = 'counter_views'");
// The page is whole; then a queued job runs, as applications run them at
// the end of a view: it reads and writes what no page shows.
while (ob_get_level()) {
    ob_end_flush();
}
$db->query('SELECT id FROM jobs')->fetchAll();
$db->exec('DELETE FROM jobs');
