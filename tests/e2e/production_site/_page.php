<?php
// A page long enough for a gzip copy, different on every run, so that a
// test can tell a hit (the stored bytes) from a run of the script.
function page(string $name): string
{
    return "<html><body><h1>$name</h1><p>" . uniqid('', true) . "</p>" . str_repeat("<p>text of $name</p>\n", 150)
        . "</body></html>\n";
}
