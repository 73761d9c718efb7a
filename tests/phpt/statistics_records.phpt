--TEST--
Statistics records reach the script's vesk_report_statistics as an array, and nothing breaks without one
--INI--
extension=${VESK_TEST_MODULE}
vesk_statistics.enable=1
--FILE--
<?php
// Without the function the record is dropped quietly.
vesk_test_report_record(15, 3);

// Declared only here, not when the file is compiled.
if (true) {
    function vesk_report_statistics(array $record)
    {
        var_dump($record);
        return 'ignored';
    }
}
vesk_test_report_record(15, 3);
vesk_test_report_record(16, -1);
echo "done\n";
?>
--EXPECT--
array(4) {
  ["record_type"]=>
  int(15)
  ["record_sub_type"]=>
  int(-1)
  ["counter_value"]=>
  float(1)
  ["app_id"]=>
  int(3)
}
array(4) {
  ["record_type"]=>
  int(16)
  ["record_sub_type"]=>
  int(-1)
  ["counter_value"]=>
  float(1)
  ["app_id"]=>
  int(-1)
}
done
