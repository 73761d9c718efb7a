--TEST--
An absolute rules path is taken as it stands, not joined to the configuration directory
--INI--
vesk_pagecache.enable_cli=1
vesk_pagecache.dependencies_file=${VESK_TEST_DIR}/rules/site.xml
vesk_pagecache.save_path=/var/cache/somewhere
--FILE--
<?php
require __DIR__ . '/log.inc';
$rows = vesk_info_rows();
echo str_replace(getenv('VESK_TEST_DIR'), 'DIR', $rows[1] . "\n" . $rows[2] . "\n" . $rows[5]), "\n";
?>
--EXPECT--
Enable => Yes
Cache dependencies file => DIR/rules/site.xml
Disk storage save path => /var/cache/somewhere
