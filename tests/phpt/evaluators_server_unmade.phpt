--TEST--
Server variables asked for before the script made $_SERVER: the values $_SERVER then holds
--INI--
extension=${VESK_TEST_MODULE}
--ENV--
HTTP_X_SAMPLE=one two
HTTP_X_EMPTY=
--GET--
a=1&b[]=2
--FILE--
<?php
// Nothing above this line names the superglobal, so it isn't made yet.
$asked = [];
foreach (['QUERY_STRING', 'HTTP_X_SAMPLE', 'HTTP_X_EMPTY', 'NO_SUCH_VARIABLE', 'REQUEST_METHOD'] as $name) {
    $asked[$name] = [vesk_test_global_value("_SERVER[$name]"), vesk_test_global_exists("_SERVER[$name]")];
}
var_dump(in_array('_SERVER', array_keys($GLOBALS), true));
// Names the engine sets or rewrites itself are read from the made table.
foreach (['PHP_SELF', 'REQUEST_TIME', 'argc'] as $name) {
    $asked[$name] = [vesk_test_global_value("_SERVER[$name]"), vesk_test_global_exists("_SERVER[$name]")];
}
var_dump(in_array('_SERVER', array_keys($GLOBALS), true));
include __DIR__ . '/server_variables.inc';
var_dump(compareWithServer($asked));
?>
--EXPECT--
bool(false)
bool(true)
string(2) "ok"
