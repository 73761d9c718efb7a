--TEST--
The extension is a PHP module and an engine extension, with its directives
--FILE--
<?php
var_dump(in_array("Vesk Page Cache", get_loaded_extensions(false), true));
var_dump(in_array("Vesk Page Cache", get_loaded_extensions(true), true));
echo implode(" ", array_keys(ini_get_all("vesk page cache", false))), "\n";
// System directives can't change at run time; the others can.
var_dump(ini_set("vesk_pagecache.enable", "0"));
var_dump(ini_set("vesk_pagecache.enable_qa_info", "1"));
?>
--EXPECT--
bool(true)
bool(true)
vesk_pagecache.clean_frequency vesk_pagecache.compression_enable vesk_pagecache.dependencies_file vesk_pagecache.dir_depth vesk_pagecache.enable vesk_pagecache.enable_cli vesk_pagecache.enable_qa_info vesk_pagecache.learn_cli vesk_pagecache.lock_timeout vesk_pagecache.log_rotation_size vesk_pagecache.log_verbosity_level vesk_pagecache.max_cached_rules vesk_pagecache.max_store_size vesk_pagecache.ordered_rule_matching vesk_pagecache.publish_dir vesk_pagecache.pulse.enable vesk_pagecache.save_path
bool(false)
string(1) "0"
