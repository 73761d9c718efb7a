--TEST--
With enable_cli the whole start-up runs and logs its parameters at level 5
--INI--
vesk_pagecache.enable_cli=1
vesk_pagecache.log_verbosity_level=5
vesk_pagecache.log_rotation_size=20
--FILE--
<?php
require __DIR__ . '/log.inc';
echo implode("\n", preg_grep('/log_rotation_size|Rules File|XML validation|New rules list|request method/', vesk_log_lines())), "\n";
?>
--EXPECTF--
TRACE log_rotation_size: 20 
INFO Rules File: %s/conf/pagecache_rules.xml 
TRACE XML validation OK 
INFO New rules list: 
TRACE Uncacheable request method 
