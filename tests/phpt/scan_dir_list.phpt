--TEST--
PHP_INI_SCAN_DIR is a list as PHP reads it: the empty entry is the engine's own scan directory
--ENV--
PHP_INI_SCAN_DIR=:{PWD}/scan
--FILE--
<?php
// The runner starts PHP with -n, so PHP itself read no scan directory: what
// the configuration holds from either directory, the extension read.
var_dump(get_cfg_var("vesk.webserver_type"));
$own = [];
foreach (glob(PHP_CONFIG_FILE_SCAN_DIR . '/*.ini') as $file) {
    foreach (parse_ini_file($file) ?: [] as $name => $value) {
        if (strncmp($name, 'opcache.', 8) === 0 || strncmp($name, 'vesk', 4) === 0) {
            $own[$name] = (string)$value;
        }
    }
}
var_dump(count($own) > 0);
foreach ($own as $name => $value) {
    if (get_cfg_var($name) !== $value) {
        echo "$name not read from ", PHP_CONFIG_FILE_SCAN_DIR, "\n";
    }
}
?>
--EXPECT--
string(5) "nginx"
bool(true)
