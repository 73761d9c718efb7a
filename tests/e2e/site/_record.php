<?php
// Every page notes each run of itself, so a test can tell a hit (no run)
// from a miss.
file_put_contents(__DIR__ . '/runs.log', basename($_SERVER['SCRIPT_NAME']) . "\n", FILE_APPEND | LOCK_EX);
