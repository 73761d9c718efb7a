<?php
// A buffer of the script's own opened before its session.
ob_start();
echo "before the session\n";
session_start();
$before = ob_get_clean();
echo "[", $before, "] level=", ob_get_level(), "\n";
