<?php
// Notes each step a page reaches, so a test can see where a hit stopped it.
function step(string $what): void
{
    file_put_contents(__DIR__ . '/steps.log', basename($_SERVER['SCRIPT_NAME']) . " $what\n", FILE_APPEND | LOCK_EX);
}
