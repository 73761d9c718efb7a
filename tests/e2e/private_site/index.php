<?php
// A page that starts sessions, renews their ids and sets cookies on demand,
// noting for the test which client each session id and cookie was made for.
$client = $_SERVER['HTTP_X_CLIENT'] ?? 'none';
$issued = __DIR__ . '/issued.log';
$action = $_GET['a'] ?? 'plain';
if ($action === 'start' || $action === 'regen') {
    session_start();
    if ($action === 'regen') {
        session_regenerate_id(true);
    }
    $_SESSION['client'] = $client;
    file_put_contents($issued, 'session ' . session_id() . " $client\n", FILE_APPEND | LOCK_EX);
}
if ($action === 'cookie') {
    $token = bin2hex(random_bytes(8));
    setcookie('token', $token);
    file_put_contents($issued, "token $token $client\n", FILE_APPEND | LOCK_EX);
}
file_put_contents(__DIR__ . '/runs.log', "index.php\n", FILE_APPEND | LOCK_EX);
echo '<p>value ', htmlspecialchars($_GET['v'] ?? ''), '</p>';
