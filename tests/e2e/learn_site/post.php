<?php
require __DIR__ . '/db.php';
$query = $db->prepare('SELECT title FROM posts WHERE id = ' . (int)$_GET['id']);
$query->execute();
echo 'Post: ', $query->fetchColumn(), "\n";
