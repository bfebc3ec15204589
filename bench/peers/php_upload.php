<?php
// fronts/upload.cpp with PHP. upload_tmp_dir should be on the file system of
// $STORE.
header('Content-Type: text/plain');
$upload = $_FILES['u'];
if (!move_uploaded_file($upload['tmp_name'], getenv('STORE'))) {
    exit(1);
}
echo $upload['size'], "\n";
