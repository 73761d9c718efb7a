<?php
header('Location: /p/headers.php', true, 301);
echo "moved\n";
