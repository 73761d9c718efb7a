--TEST--
A command-line run with default directives refuses the cache, and its request passes the cache by
--INI--
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
