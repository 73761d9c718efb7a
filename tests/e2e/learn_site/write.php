<?php
// Runs the statements of the request body, one a line: in a transaction
// committed, rolled back or left open, as ?end= says, or each on its own.
require __DIR__ . '/db.php';
$statements = array_filter(explode("\n", file_get_contents(PHP_SAPI === 'cli' ? 'php://stdin' : 'php://input')));
$end = $_GET['end'] ?? ($argv[1] ?? '');
if ($end) {
    $db->beginTransaction();
}
foreach ($statements as $sql) {
    $db->exec($sql);
}
if ($end === 'commit') {
    $db->commit();
} elseif ($end === 'rollback') {
    $db->rollBack();
}
echo "done\n";
