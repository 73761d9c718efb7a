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
echo vesk_info_rows()[4], "\n";
?>
--EXPECT--
string(1) "4"
string(1) "0"
bool(false)
Disk storage directory structure depth => 4
