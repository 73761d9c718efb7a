<?php
// The site's database (the test makes it): posts to show one by one or in a
// list, and settings, of which the counters change on every visit. Through
// classes of the site's own, as frameworks extend PDO.
class SiteDb extends PDO
{
}
class SiteStatement extends PDOStatement
{
}
$db = new SiteDb('sqlite:' . __DIR__ . '/site.sqlite', null, null,
                 [PDO::ATTR_ERRMODE => PDO::ERRMODE_EXCEPTION, PDO::ATTR_STATEMENT_CLASS => ['SiteStatement']]);
