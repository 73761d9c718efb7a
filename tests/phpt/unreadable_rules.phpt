--TEST--
A rules file that can't be read refuses the cache at start-up, says so in PHP's error log too, and PHP runs on
--INI--
vesk_pagecache.enable_cli=1
vesk_pagecache.dependencies_file=missing.xml
vesk_pagecache.log_verbosity_level=3
error_log=${VESK_TEST_DIR}/php-errors.log
--FILE--
<?php
require __DIR__ . '/log.inc';
echo str_replace(getenv('VESK_TEST_DIR'), 'DIR', implode("\n", vesk_log_lines())), "\n";
echo implode("\n", array_slice(vesk_info_rows(), 1, 1)), "\n";
echo str_replace(getenv('VESK_TEST_DIR'), 'DIR',
                 preg_replace('/^\[[^]]+\] /m', '', file_get_contents(getenv('VESK_TEST_DIR') . '/php-errors.log')));
echo "still running\n";
?>
--EXPECT--
INFO Initialising PageCache Pulse. 
INFO Connection string set to:  
INFO Rules File: DIR/conf/missing.xml 
ERROR Failed to open Rules File: DIR/conf/missing.xml 
Enable => No
Vesk Page Cache is disabled: Failed to open Rules File: DIR/conf/missing.xml
still running
