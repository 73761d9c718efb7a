<?php
require __DIR__ . '/db.php';
foreach ($db->query('SELECT id, title FROM posts ORDER BY id') as $row) {
    echo $row['id'], ': ', $row['title'], "\n";
}
