<?php
header('Location: /p/headers.php', true, 301);
header('X-Powered-By: the site');
echo "moved\n";
