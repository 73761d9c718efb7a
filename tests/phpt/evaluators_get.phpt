--TEST--
Rules read request variables: nested keys, empty and missing values, serialised arrays
--INI--
extension=${VESK_TEST_MODULE}
--GET--
a[b]=1&e=&s=str&arr[x]=1&arr[y]=2&5=numeric
--COOKIE--
theme=dark
--FILE--
<?php
var_dump(vesk_test_global_value('_GET[a][b]'));
var_dump(vesk_test_global_exists('_GET[e]'), vesk_test_global_value('_GET[e]'));
// Below a string the walk ends on nothing.
var_dump(vesk_test_global_exists('_GET[s][x]'), vesk_test_global_value('_GET[s][x]'));
var_dump(vesk_test_global_value('_GET[arr]'));
var_dump(vesk_test_global_exists('_GET[missing]'));
// Subscripts are string keys: an integer key isn't found.
var_dump(vesk_test_global_exists('_GET[5]'));
var_dump(substr(vesk_test_global_value('_GET'), 0, 5));
var_dump(vesk_test_global_value('_COOKIE[theme]'));
var_dump(vesk_test_global_exists('_POST'), vesk_test_global_exists('_POST[x]'));
?>
--EXPECT--
string(1) "1"
bool(true)
string(0) ""
bool(false)
string(0) ""
string(38) "a:2:{s:1:"x";s:1:"1";s:1:"y";s:1:"2";}"
bool(false)
bool(false)
string(5) "a:5:{"
string(4) "dark"
bool(true)
bool(false)
