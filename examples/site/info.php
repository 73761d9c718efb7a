<?php
// The extension's section of the information page, as "Name => Value" lines.
header('Content-Type: text/plain');
ob_start();
phpinfo(INFO_MODULES);
$page = ob_get_clean();
$start = strpos($page, 'name="module_vesk+page+cache"');
if ($start === false) {
    echo "The Vesk Page Cache extension is not loaded.\n";
    return;
}
$section = substr($page, $start, strpos($page, '</table>', $start) - $start);
preg_match_all('#<td class="e">(.*?)\s*</td><td class="v">(.*?)\s*</td>#', $section, $rows, PREG_SET_ORDER);
foreach ($rows as [, $name, $value]) {
    echo html_entity_decode($name), ' => ', html_entity_decode(strip_tags($value)), "\n";
}
