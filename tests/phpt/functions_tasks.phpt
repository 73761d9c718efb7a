--TEST--
On a cluster node removals queue their tasks, each payload a JSON array of the function's name and its arguments, quotes and backslashes escaped; never with the flag off or on a stand-alone server
--INI--
vesk.install_dir=${VESK_TEST_DIR}
vesk.node_id=2
vesk.webserver_type=nginx
vesk_pagecache.enable_cli=1
vesk_pagecache.log_verbosity_level=3
--FILE--
<?php
require __DIR__ . '/log.inc';
$queue = getenv('VESK_TEST_DIR') . '/var/db/tkd.db';
function tasks(string $queue): void
{
    echo shell_exec('sqlite3 -separator " " ' . escapeshellarg($queue)
        . ' "SELECT type, other_nodes_only, server, webserver, status, payload FROM tkd_tasks ORDER BY id"');
}

// The flag off: done here only.
page_cache_remove_cached_contents('http://a/', false);
page_cache_remove_cached_contents_by_uri('Home page', '/', false);
page_cache_remove_cached_contents_by_rule('Home page', false);
page_cache_remove_cached_contents_by_rules_ids([1], false);
page_cache_remove_all_cached_contents(false);
var_dump(file_exists($queue));

page_cache_remove_cached_contents('http://<default-server>/(index\.php)?');
page_cache_remove_cached_contents_by_uri('Home page', '/index.php?a="b"', true);
page_cache_remove_cached_contents_by_rule('Home page');
page_cache_remove_cached_contents_by_rules_ids([1, '12']);
// With no id the cut takes the comma after the name.
page_cache_remove_cached_contents_by_rules_ids([]);
page_cache_remove_all_cached_contents();
tasks($queue);

// A queue that can't be written: the removal stands, the fault is logged.
unlink($queue);
mkdir($queue);
var_dump(page_cache_remove_all_cached_contents());
var_dump(page_cache_remove_cached_contents_by_uri('Home page', '/'));
echo implode("\n", preg_replace('/(TKD task\.) .*/', '$1 ...', preg_grep('/failed to add TKD task/', vesk_log_lines()))), "\n";

// A stand-alone server never queues.
rmdir($queue);
vesk_child_stderr(['vesk.httpd_uid' => '0', 'vesk.log_dir' => getenv('VESK_TEST_DIR') . '/log',
                   'vesk.install_dir' => getenv('VESK_TEST_DIR'), 'vesk_pagecache.enable_cli' => '1',
                   'vesk.conf_dir' => getenv('VESK_TEST_DIR') . '/conf'],
                  'var_dump(page_cache_remove_all_cached_contents(true));');
var_dump(file_exists($queue));
?>
--EXPECT--
bool(false)
81 1 2 nginx 0 ["page_cache_remove_cached_contents","http://<default-server>/(index\\.php)?"]
77 1 2 nginx 0 ["page_cache_remove_cached_contents_by_uri","Home page","/index.php?a=\"b\""]
79 1 2 nginx 0 ["page_cache_remove_cached_contents_by_rule","Home page"]
80 1 2 nginx 0 ["page_cache_remove_cached_contents_by_rules_ids",1,12]
80 1 2 nginx 0 ["page_cache_remove_cached_contents_by_rules_ids"]
76 1 2 nginx 0 ["page_cache_remove_all_cached_contents"]
bool(true)
bool(true)
ERROR page_cache_remove_all_cached_contents: failed to add TKD task. ...
ERROR page_cache_remove_all_cached_contents: failed to add TKD task. ...
bool(false)
