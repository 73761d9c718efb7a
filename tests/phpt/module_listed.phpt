--TEST--
The extension is a PHP module and an engine extension, with its sixteen directives
--INI--
vesk.httpd_uid=0
vesk.log_dir=${VESK_TEST_DIR}/log
--FILE--
<?php
var_dump(in_array("Vesk Page Cache", get_loaded_extensions(false), true));
var_dump(in_array("Vesk Page Cache", get_loaded_extensions(true), true));
foreach (ini_get_all("vesk page cache", false) as $name => $value) {
    echo "$name=$value\n";
}
// System directives can't change at run time; the others can.
var_dump(ini_set("vesk_pagecache.enable", "0"));
var_dump(ini_set("vesk_pagecache.enable_qa_info", "1"));
?>
--EXPECT--
bool(true)
bool(true)
vesk_pagecache.clean_frequency=300
vesk_pagecache.compression_enable=1
vesk_pagecache.dependencies_file=pagecache_rules.xml
vesk_pagecache.dir_depth=2
vesk_pagecache.enable=1
vesk_pagecache.enable_cli=0
vesk_pagecache.enable_qa_info=0
vesk_pagecache.lock_timeout=2000
vesk_pagecache.log_rotation_size=10
vesk_pagecache.log_verbosity_level=2
vesk_pagecache.max_cached_rules=100
vesk_pagecache.max_store_size=0
vesk_pagecache.ordered_rule_matching=1
vesk_pagecache.publish_dir=
vesk_pagecache.pulse.enable=1
vesk_pagecache.save_path=pagecache
bool(false)
string(1) "0"
