<?php
// fronts/get.cpp with PHP.
header('Content-Type: text/plain');
foreach (['a', 'b', 'c'] as $name) {
    echo $name, '=', $_GET[$name], "\n";
}
echo 'session=', $_COOKIE['session'], "\n";
