--TEST--
Removal functions on a running module: argument forms, the ids walk and what each logs
--INI--
vesk_pagecache.enable_cli=1
vesk_pagecache.log_verbosity_level=5
--FILE--
<?php
require __DIR__ . '/log.inc';
function logged(string $pattern): void
{
    static $seen = 0;
    $lines = vesk_log_lines();
    echo implode("\n", preg_grep($pattern, array_slice($lines, $seen))), "\n";
    $seen = count($lines);
}
logged('/^$/');

// An id of 0 in second place: the first rule's pages go, the walk stops.
var_dump(page_cache_remove_cached_contents_by_rules_ids([1, 0, 12]));
logged('/Remove cached contents/');
// A numeric string is an id; an unknown id is nothing to remove.
var_dump(page_cache_remove_cached_contents_by_rules_ids(['12', 99]));
logged('/Remove cached contents/');
var_dump(page_cache_remove_cached_contents_by_rules_ids([1.5]));
var_dump(page_cache_remove_cached_contents_by_rules_ids('1'));

var_dump(page_cache_remove_cached_contents_by_rule('News', false));
var_dump(page_cache_remove_cached_contents_by_rule([]));
logged('/contents for rule/');

var_dump(page_cache_remove_cached_contents('http://<default-server>/news/(.*)'));
var_dump(page_cache_remove_cached_contents_by_uri('Home page', '/index.php'));
var_dump(page_cache_remove_cached_contents_by_uri('Home page'));
var_dump(page_cache_remove_all_cached_contents(false));
logged('/Removing/');

var_dump(page_cache_disable_compression(), page_cache_disable_caching());
logged('/compression/');
?>
--EXPECTF--
bool(false)
INFO Remove cached contents for rule Home page 
bool(true)
INFO Remove cached contents for rule News 

Warning: Unkonwn parameter format in page_cache_remove_cached_contents_by_rules_ids
 in %s on line %d
bool(false)

Warning: Wrong parameters for function page_cache_remove_cached_contents_by_rules_ids
 in %s on line %d
bool(false)
bool(true)

Warning: Wrong parameters for function page_cache_remove_cached_contents_by_rule
 in %s on line %d
bool(false)
TRACE Removing cached contents for rule News 
INFO Remove cached contents for rule News 
bool(true)
bool(true)

Warning: Wrong parameters for function page_cache_remove_cached_contents_by_uri
 in %s on line %d
bool(false)
bool(true)
TRACE Removing cached contents for http://<default-server>/news/(.*) 
TRACE Removing cached contents for uri /index.php in rule Home page 
TRACE Removing all cached contents 
bool(true)
bool(true)
TRACE Disabling compression for current script 
