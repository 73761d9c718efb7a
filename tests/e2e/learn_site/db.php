<?php
// The site's database (the test makes it): posts to show one by one or in a
// list, and settings, of which the counters change on every visit.
$db = new PDO('sqlite:' . __DIR__ . '/site.sqlite', null, null, [PDO::ATTR_ERRMODE => PDO::ERRMODE_EXCEPTION]);
