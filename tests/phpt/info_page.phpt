--TEST--
The information page shows the eight rows of a running cache; absolute paths are taken as they stand, not joined to their directories
--INI--
vesk_pagecache.enable_cli=1
vesk_pagecache.dir_depth=3
vesk_pagecache.compression_enable=0
vesk_pagecache.clean_frequency=60
vesk_pagecache.dependencies_file=${VESK_TEST_DIR}/rules/site.xml
vesk_pagecache.save_path=/var/cache/somewhere
--FILE--
<?php
require __DIR__ . '/log.inc';
echo str_replace(getenv('VESK_TEST_DIR'), 'DIR', implode("\n", vesk_info_rows())), "\n";
?>
--EXPECT--
Version => 2021.4.6
Enable => Yes
Cache dependencies file => DIR/rules/site.xml
Log verbosity level => 2
Disk storage directory structure depth => 3
Disk storage save path => /var/cache/somewhere
Compression enable => 0
Cache cleaning frequency => 60
