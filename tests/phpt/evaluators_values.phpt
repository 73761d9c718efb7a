--TEST--
Values the script put into superglobals are read at each question: numbers, booleans, objects
--INI--
extension=${VESK_TEST_MODULE}
precision=14
--GET--
x=1
--FILE--
<?php
$_GET['i'] = 5;
$_GET['d'] = 1.5;
$_GET['third'] = 1/3;
$_GET['t'] = true;
$_GET['f'] = false;
$_GET['n'] = null;
$_GET['o'] = (object)['p' => 'prop', 'q' => (object)['r' => 'deep']];
$_GET['other'] = new ArrayObject(['k' => 'v']);
foreach (['i', 'd', 'third', 't', 'f', 'n', 'o][p', 'o][q][r', 'o][zz'] as $key) {
    var_dump(vesk_test_global_value("_GET[$key]"));
}
// An object of another class uses the keys up and serialises itself.
var_dump(substr(vesk_test_global_value('_GET[other][k]'), 0, 14));
var_dump(vesk_test_global_exists('_GET[o][zz]'));
$_GET['i'] = 6;
var_dump(vesk_test_global_value('_GET[i]'));
?>
--EXPECT--
string(1) "5"
string(3) "1.5"
string(16) "0.33333333333333"
string(4) "true"
string(5) "false"
string(2) "N;"
string(4) "prop"
string(4) "deep"
string(2) "N;"
string(14) "O:11:"ArrayObj"
bool(true)
string(1) "6"
