<?php
// fronts/form.cpp with PHP.
header('Content-Type: text/plain');
$size = 0;
$is_hashing = getenv('HASH') !== 'no';
$hash = hash_init('fnv1a64');
foreach ($_POST as $value) {
    $size += strlen($value);
    if ($is_hashing) {
        hash_update($hash, $value);
    }
}
echo count($_POST), ' ', $size, $is_hashing ? ' ' . hash_final($hash) : '', "\n";
