<?php
// Compares the two result lists run-tests.php wrote with -W ("RESULT<TAB>path"
// per test): the run without the extension and the run with it loaded and
// active. Prints per-suite counts of both, every test that passes without and
// not with the extension, and the closing "N passed, N failed" line; exits 1
// when any test differs that way.
//
// usage: php summarize-php-suites.php SUITES OFF_RESULTS OFF_ROOT ON_RESULTS ON_ROOT
//   SUITES: lines "name<TAB>relative/dir" (the order is the report's)
//   *_ROOT: the copied source tree each run's paths start with

if ($argc != 6) {
    fwrite(STDERR, "usage: summarize-php-suites.php SUITES OFF_RESULTS OFF_ROOT ON_RESULTS ON_ROOT\n");
    exit(2);
}
[, $suitesFile, $offFile, $offRoot, $onFile, $onRoot] = $argv;

$suites = [];
foreach (file($suitesFile, FILE_IGNORE_NEW_LINES | FILE_SKIP_EMPTY_LINES) as $line) {
    [$name, $dir] = explode("\t", $line, 2);
    $suites[$name] = rtrim($dir, '/') . '/';
}

// Relative path => result word without its "ED" (PASS, FAIL, SKIP, BORK, ...).
function readResults(string $file, string $root): array
{
    $root = rtrim(realpath($root) ?: $root, '/') . '/';
    $results = [];
    foreach (@file($file, FILE_IGNORE_NEW_LINES | FILE_SKIP_EMPTY_LINES) ?: [] as $line) {
        $fields = explode("\t", $line, 2);
        if (count($fields) != 2) {
            continue;
        }
        [$result, $path] = $fields;
        $real = realpath($path) ?: $path;
        if (strncmp($real, $root, strlen($root)) == 0) {
            $real = substr($real, strlen($root));
        }
        // run-tests.php writes PASSED, FAILED, SKIPPED, BORKED, XFAILED, ...
        $words = ['PASSED' => 'PASS', 'FAILED' => 'FAIL', 'SKIPPED' => 'SKIP', 'BORKED' => 'BORK',
                  'XFAILED' => 'XFAIL', 'XLEAKED' => 'XLEAK', 'WARNED' => 'WARN', 'LEAKED' => 'LEAK'];
        $results[$real] = $words[$result] ?? $result;
    }
    return $results;
}

function suiteOf(string $path, array $suites): ?string
{
    foreach ($suites as $name => $dir) {
        if (strncmp($path, $dir, strlen($dir)) == 0) {
            return $name;
        }
    }
    return null;
}

function bucket(string $result): string
{
    switch ($result) {
        case 'PASS':
            return 'pass';
        case 'SKIP':
            return 'skip';
        case 'XFAIL':
        case 'XLEAK':
            return 'xfail';
        default: // FAIL, BORK, WARN, LEAK
            return 'fail';
    }
}

$off = readResults($offFile, $offRoot);
$on = readResults($onFile, $onRoot);

$counts = [];
foreach (array_keys($suites) as $name) {
    $counts[$name] = ['off' => ['pass' => 0, 'fail' => 0, 'skip' => 0, 'xfail' => 0],
                      'on' => ['pass' => 0, 'fail' => 0, 'skip' => 0, 'xfail' => 0]];
}
foreach (['off' => $off, 'on' => $on] as $run => $results) {
    foreach ($results as $path => $result) {
        $suite = suiteOf($path, $suites);
        if ($suite !== null) {
            $counts[$suite][$run][bucket($result)]++;
        }
    }
}

$width = max(array_map('strlen', array_keys($suites))) + 2;
printf("%-{$width}s %-27s %-27s\n", 'suite', 'without extension', 'with extension (active)');
printf("%-{$width}s %-27s %-27s\n", '', 'pass/fail/skip/xfail', 'pass/fail/skip/xfail');
$total = ['off' => [0, 0, 0, 0], 'on' => [0, 0, 0, 0]];
foreach ($counts as $name => $byRun) {
    $cells = [];
    foreach (['off', 'on'] as $run) {
        $c = $byRun[$run];
        $cells[] = sprintf('%d/%d/%d/%d', $c['pass'], $c['fail'], $c['skip'], $c['xfail']);
        $total[$run] = [$total[$run][0] + $c['pass'], $total[$run][1] + $c['fail'],
                        $total[$run][2] + $c['skip'], $total[$run][3] + $c['xfail']];
    }
    printf("%-{$width}s %-27s %-27s\n", $name, $cells[0], $cells[1]);
}
printf("%-{$width}s %-27s %-27s\n", 'total', implode('/', $total['off']), implode('/', $total['on']));

$passed = 0;
$differing = [];
foreach ($off as $path => $result) {
    if ($result != 'PASS') {
        continue;
    }
    $with = $on[$path] ?? 'MISSING';
    if ($with == 'PASS') {
        $passed++;
    } else {
        $differing[] = sprintf('  %-6s %s', $with, $path);
    }
}
// Tests the extension makes pass that failed without it are worth a look too.
$fixed = [];
foreach ($on as $path => $result) {
    if ($result == 'PASS' && isset($off[$path]) && $off[$path] != 'PASS') {
        $fixed[] = sprintf('  %-6s %s', $off[$path], $path);
    }
}

// Tests that fail either way hide what the extension does to them unless
// their output is compared too (a hang shows only here, for one).
$changed = [];
foreach ($off as $path => $result) {
    $with = $on[$path] ?? 'MISSING';
    if (bucket($result) != 'fail' || bucket($with) != 'fail') {
        continue;
    }
    $base = preg_replace('/\.phpt$/', '.out', $path);
    $outOff = @file_get_contents(rtrim($offRoot, '/') . '/' . $base);
    $outOn = @file_get_contents(rtrim($onRoot, '/') . '/' . $base);
    // The runs' directories (and so string lengths) differ between the two
    // copies; ports, times, temporary names and file offsets between runs.
    $normalize = function ($text) use ($offRoot, $onRoot) {
        $text = str_replace([dirname(rtrim($offRoot, '/')), dirname(rtrim($onRoot, '/'))], 'RUN', (string)$text);
        return preg_replace(['/:\d{4,5}\b/', '/\d{2}:\d{2}:\d{2}/', '/\bphp[A-Za-z0-9]{6}\b/', '/string\(\d+\)/', '/\b\d{5,}\b/'],
                            [':PORT', 'TIME', 'phpTEMP', 'string(N)', 'NUMBER'], $text);
    };
    if ($normalize($outOff) !== $normalize($outOn)) {
        $changed[] = sprintf('  %-6s %s', $with, $path);
    }
}

echo "\n";
if ($changed) {
    echo "Fail either way, but their output differs (result with it, test):\n", implode("\n", $changed), "\n";
}
if ($differing) {
    echo "Pass without the extension, not with it (result with it, test):\n", implode("\n", $differing), "\n";
}
if ($fixed) {
    echo "Pass only with the extension (result without it, test):\n", implode("\n", $fixed), "\n";
}
printf("%d passed, %d failed\n", $passed, count($differing));
exit($differing ? 1 : 0);
