<?php
require __DIR__ . '/../_page.php';
// As WordPress does at shutdown: every level ends with a flush, so that the
// page goes out before the remaining shutdown work.
register_shutdown_function(function () {
    $levels = ob_get_level();
    for ($i = 0; $i < $levels; $i++) {
        ob_end_flush();
    }
});
echo page('shutdown_flush');
