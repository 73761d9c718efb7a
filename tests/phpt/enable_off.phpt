--TEST--
With the cache switched off start-up logs an empty line at level 3 and reads no rules
--INI--
vesk_pagecache.enable=0
vesk_pagecache.enable_cli=1
vesk_pagecache.log_verbosity_level=5
--FILE--
<?php
require __DIR__ . '/log.inc';
var_dump(vesk_log_lines());
echo implode("\n", array_slice(vesk_info_rows(), 1, 1)), "\n";
?>
--EXPECT--
array(2) {
  [0]=>
  string(6) "INFO  "
  [1]=>
  string(26) "TRACE Cache is not active "
}
Enable => No
