--TEST--
page_cache_purge: element checks, response header descriptions, and the rows it writes
--INI--
vesk.install_dir=${VESK_TEST_DIR}
vesk_pagecache.enable_cli=1
vesk_pagecache.log_verbosity_level=3
--FILE--
<?php
require __DIR__ . '/log.inc';
$db = getenv('VESK_TEST_DIR') . '/var/db/pagecache.db';
function rows(string $db, string $query): void
{
    echo shell_exec('sqlite3 -separator " " ' . escapeshellarg($db) . ' ' . escapeshellarg($query));
}

// Each fault ends the call before anything is written.
var_dump(page_cache_purge(['created_ago' => -1]));
var_dump(page_cache_purge(['created_ago' => '5']));
var_dump(page_cache_purge(['colour' => 'red']));
var_dump(page_cache_purge(['url' => 'http://a/', 'x']));
var_dump(page_cache_purge(['url' => 5]));
var_dump(page_cache_purge(['application' => ['shop']]));
var_dump(page_cache_purge(['response_headers' => 'Set-Cookie']));
var_dump(page_cache_purge('http://a/'));
$faults = preg_grep('/page_cache_purge/', vesk_log_lines());
echo implode("\n", $faults), "\n";
var_dump(file_exists($db));

// Two descriptions in a list, one without "op" passed over; a single
// description under the other spelling; a faulty one kept empty.
var_dump(page_cache_purge([
    'application' => 'shop',
    'url' => 'http://a.example:80/p?q=1',
    'created_ago' => 60,
    'response_headers' => [
        ['name' => 'Content-Type', 'op' => 'contains', 'value' => 'text/html'],
        ['name' => 'X-Skipped', 'value' => 'v'],
        ['name' => 'X-Cache', 'op' => 'equals', 'value' => 'yes'],
    ],
    'response_header' => ['name' => 'Vary', 'op' => 'exists', 'value' => ''],
]));
var_dump(page_cache_purge(['response_header' => ['name' => 1, 'op' => 'x', 'value' => 'y']]));
echo implode("\n", array_slice(preg_grep('/page_cache_purge/', vesk_log_lines()), count($faults))), "\n";
// Every rule binds id 0 and so takes the one row; every write adds all
// child rows of every rule again, the rules for all applications first.
rows($db, 'SELECT * FROM pagecache_purge_rules');
rows($db, 'SELECT rule_id, url, hex(url_hash) = upper(\'' . sha1('http://a.example/p?q=1') . '\') FROM pagecache_purge_urls');
rows($db, 'SELECT rule_id, abs(creation_time - (strftime(\'%s\', \'now\') - 60)) < 5 FROM pagecache_purge_creation_time');
rows($db, 'SELECT rule_id, name, op, value FROM pagecache_purge_response_headers ORDER BY id');
// An empty array makes an empty rule.
var_dump(page_cache_purge([]));
?>
--EXPECTF--
bool(false)
bool(false)
bool(false)
bool(false)
bool(false)
bool(false)
bool(false)

Warning: Wrong parameters for function page_cache_purge
 in %s on line %d
bool(false)
ERROR Invalid element value for 'created_ago' in page_cache_purge 
ERROR Invalid element value for 'created_ago' in page_cache_purge 
ERROR Invalid element key ' colour ' in page_cache_purge 
ERROR Invalid element key in page_cache_purge 
ERROR Invalid element value for 'url' in page_cache_purge 
ERROR Invalid element value for 'application' in page_cache_purge 
ERROR Invalid element value for ' response_headers ' in page_cache_purge 
bool(false)
bool(true)
bool(true)
ERROR Invalid element value for 'name' in page_cache_purge 
0  %d shop
0 http://a.example/p?q=1 1
0 http://a.example/p?q=1 1
0 1
0 1
0 Content-Type contains text/html
0 X-Cache equals yes
0 Vary exists 
0   
0 Content-Type contains text/html
0 X-Cache equals yes
0 Vary exists 
bool(true)
