--TEST--
Directives from VeskGlobalDirectives.ini reach the engine's configuration and the extension's own directives
--INI--
vesk.conf_dir=${VESK_TEST_DIR}/conf
--FILE--
<?php
require __DIR__ . '/log.inc';
var_dump(ini_get("vesk_pagecache.dir_depth"));
var_dump(get_cfg_var("vesk.httpd_uid"));
var_dump(get_cfg_var("other.setting"));
echo implode("\n", vesk_info_rows()), "\n";
?>
--EXPECTF--
string(1) "4"
string(1) "0"
bool(false)
Version => 2021.4.6
Enable => Yes
Cache dependencies file => %s/conf/pagecache_rules.xml
Log verbosity level => 2
Disk storage directory structure depth => 4
Disk storage save path => %s/tmp/pagecache
Compression enable => 1
Cache cleaning frequency => 300
