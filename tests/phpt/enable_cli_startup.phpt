--TEST--
With enable_cli the whole start-up runs and logs its parameters at level 5
--INI--
vesk.httpd_uid=0
vesk.log_dir=${VESK_TEST_DIR}/log
vesk.conf_dir=${VESK_TEST_DIR}/conf
vesk.temp_dir=${VESK_TEST_DIR}/tmp
vesk_pagecache.enable_cli=1
vesk_pagecache.log_verbosity_level=5
vesk_pagecache.log_rotation_size=20
--FILE--
<?php
require __DIR__ . '/log.inc';
echo implode("\n", vesk_log_lines()), "\n";
?>
--EXPECTF--
TRACE Initializing Vesk Page cache with following parameters: 
TRACE enable: 1 
TRACE savePath: pagecache 
TRACE dirDepth: 2 
TRACE dependencies_file: pagecache_rules.xml 
TRACE log_verbosity_level: 5 
TRACE compression_enable: 1 
TRACE clean_frequency: 300 
TRACE log_rotation_size: 20 
INFO Initialising PageCache Pulse. 
INFO Connection string set to:  
DEBUG Cannot find /deployment.db 
INFO Rules File: %s/conf/pagecache_rules.xml 
TRACE Validating dependencies file %s/conf/pagecache_rules.xml with schema file at %s/conf/pagecache_rules_schema.xsd 
TRACE XML validation OK 
DEBUG Adding case sensitive regex - http://127\.0\.0\.1/(?:index\.php)? 
INFO New rules list: 
INFO         Home page 
DEBUG current script url is:  
TRACE Uncacheable request method 
