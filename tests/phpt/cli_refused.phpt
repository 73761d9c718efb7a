--TEST--
A command-line run with default directives refuses the cache, and its request passes the cache by
--INI--
vesk.httpd_uid=0
vesk.log_dir=${VESK_TEST_DIR}/log
vesk.conf_dir=${VESK_TEST_DIR}/conf
vesk.temp_dir=${VESK_TEST_DIR}/tmp
vesk_pagecache.log_verbosity_level=5
--FILE--
<?php
require __DIR__ . '/log.inc';
var_dump(vesk_log_lines());
echo implode("\n", array_slice(vesk_info_rows(), 0, 2)), "\n";
?>
--EXPECT--
array(2) {
  [0]=>
  string(48) "INFO Vesk Page Cache is disabled in CLI/CGI run "
  [1]=>
  string(26) "TRACE Cache is not active "
}
Version => 2021.4.6
Enable => No
