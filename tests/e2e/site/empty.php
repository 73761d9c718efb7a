<?php
require __DIR__ . '/_record.php';
