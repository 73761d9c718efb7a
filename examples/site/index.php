<?php
// The demo's home page. Rendering it is made deliberately slow, so that a
// page served from the cache is easy to tell from one the script built.
usleep(200000);
$built = date('H:i:s');
?>
<!DOCTYPE html>
<html>
<head><title>Vesk Page Cache demo</title></head>
<body>
  <h1>Hello from PHP</h1>
  <p>This page was built at <?= htmlspecialchars($built) ?> by process <?= getmypid() ?>.</p>
  <p>Reload it: a page served from the cache keeps the time it was first built.</p>
  <p><a href="info.php">The extension's information page</a></p>
</body>
</html>
