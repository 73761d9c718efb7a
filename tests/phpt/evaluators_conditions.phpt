--TEST--
Conditions and split keys over the real superglobals, _SERVER armed on demand
--INI--
extension=${VESK_TEST_MODULE}
--GET--
page=2&q=Shoes
--FILE--
<?php
// The script never names the server variables, so the engine prepares them
// only when the rules ask. The match words themselves are tested without PHP.
foreach ([
    ['_GET[page]', 'equals', '2'],
    ['_GET[q]', 'regex_match_i', 'shoes'],
    ['_GET[none]', 'not_exists', ''],
    ['_SERVER[REQUEST_METHOD]', 'equals', 'GET'],
] as [$name, $type, $value]) {
    printf("%s %s %s: %s\n", $name, $type, $value, var_export(vesk_test_condition($name, $type, $value), true));
}
var_dump(vesk_test_split_key(['_GET[page]', '_SERVER[REQUEST_METHOD]', '_GET[none]']));
var_dump(vesk_test_split_key([]));
?>
--EXPECT--
_GET[page] equals 2: true
_GET[q] regex_match_i shoes: true
_GET[none] not_exists : true
_SERVER[REQUEST_METHOD] equals GET: true
string(19) "_GET2_SERVERGET_GET"
string(0) ""
