--TEST--
The information page shows the eight rows of a running cache
--INI--
vesk_pagecache.enable_cli=1
vesk_pagecache.dir_depth=3
vesk_pagecache.compression_enable=0
vesk_pagecache.clean_frequency=60
--FILE--
<?php
require __DIR__ . '/log.inc';
echo implode("\n", vesk_info_rows()), "\n";
?>
--EXPECTF--
Version => 2021.4.6
Enable => Yes
Cache dependencies file => %s/conf/pagecache_rules.xml
Log verbosity level => 2
Disk storage directory structure depth => 3
Disk storage save path => %s/tmp/pagecache
Compression enable => 0
Cache cleaning frequency => 60
