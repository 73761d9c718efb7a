--TEST--
Without the web server's user id the cache is refused; a missing group id falls back to the user id
--INI--
vesk_pagecache.enable_cli=1
vesk_pagecache.log_verbosity_level=3
--FILE--
<?php
require __DIR__ . '/log.inc';
// This process has a user id and no group id: it runs.
echo implode("\n", array_slice(vesk_info_rows(), 1, 1)), "\n";
var_dump(count(preg_grep('/^INFO Rules File: /', vesk_log_lines())));
var_dump(count(preg_grep('/httpd gid/', vesk_log_lines())));

// A child without either: the message goes to standard error before any
// log file exists, and to PHP's own error log (standard error too, for the
// command line without error_log), and PHP still runs the script.
unlink(getenv('VESK_TEST_DIR') . '/log/pagecache.log');
[$out, $err] = vesk_child_stderr([
    'vesk.log_dir' => getenv('VESK_TEST_DIR') . '/log',
    'vesk_pagecache.enable_cli' => '1',
]);
echo $out, $err;
var_dump(file_exists(getenv('VESK_TEST_DIR') . '/log/pagecache.log'));
?>
--EXPECT--
Enable => Yes
int(1)
int(0)
ran
INFO Unable to locate the httpd uid from ini files. Vesk Page Cache is disabled 
Unable to locate the httpd uid from ini files. Vesk Page Cache is disabled
bool(false)
