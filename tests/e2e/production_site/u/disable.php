<?php
// Not covered by any rule: the script's own buffer stays its own.
ob_start();
echo "inner";
page_cache_disable_caching();
$inner = ob_get_clean();
echo "[", var_export($inner, true), "]";
