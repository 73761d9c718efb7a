--TEST--
Script functions on a refused module: warnings, false, and the two that work all the same
--INI--
vesk_pagecache.enable=0
vesk_pagecache.log_verbosity_level=5
--FILE--
<?php
require __DIR__ . '/log.inc';
// All eight functions are registered on a refused module too: each is called here.
var_dump(page_cache_disable_caching());
var_dump(page_cache_disable_compression());
var_dump(page_cache_remove_cached_contents('http://a/'));
var_dump(page_cache_remove_cached_contents_by_uri('Home page', '/'));
var_dump(page_cache_remove_all_cached_contents());
// Parameters are checked before the module's state.
var_dump(page_cache_remove_cached_contents([]));
// These two don't ask whether the module runs.
var_dump(page_cache_remove_cached_contents_by_rule('Home page'));
var_dump(page_cache_remove_cached_contents_by_rules_ids([]));
// Without a purge rule manager: false and not a word.
var_dump(page_cache_purge(['url' => 'http://a/']));
foreach (['page_cache_disable_caching', 'page_cache_disable_compression'] as $name) {
    try {
        $name(1);
    } catch (ArgumentCountError $e) {
        echo $e->getMessage(), "\n";
    }
}
try {
    page_cache_remove_all_cached_contents(true, 2);
} catch (ArgumentCountError $e) {
    echo $e->getMessage(), "\n";
}
// This one logs its fault instead of warning.
var_dump(page_cache_remove_all_cached_contents([]));
echo implode("\n", preg_grep('/Wrong parameters|Removing|Failed/', vesk_log_lines())), "\n";
?>
--EXPECTF--

Warning: Vesk Page Cache is disabled. page_cache_disable_caching() is disabled.
 in %s on line %d
bool(false)

Warning: Vesk Page Cache is disabled. page_cache_disable_compression() is disabled.
 in %s on line %d
bool(false)

Warning: Vesk Page Cache is disabled. page_cache_remove_cached_contents() is disabled.
 in %s on line %d
bool(false)

Warning: Vesk Page Cache is disabled. page_cache_remove_cached_contents_by_uri() is disabled.
 in %s on line %d
bool(false)

Warning: Vesk Page Cache is disabled. page_cache_remove_all_cached_contents() is disabled.
 in %s on line %d
bool(false)

Warning: Wrong parameters for function page_cache_remove_cached_contents
 in %s on line %d
bool(false)
bool(true)
bool(true)
bool(false)
Wrong parameter count for page_cache_disable_caching()
Wrong parameter count for page_cache_disable_compression()
Wrong parameter count for page_cache_remove_all_cached_contents()
bool(false)
TRACE Removing cached contents for rule Home page 
WARNING Wrong parameters passed to page_cache_remove_all_cached_contents() function 
