# fronts/upload.cpp with CGI.pm. $TMPDIR should be on the file system of $STORE.
use strict;
use warnings;
use CGI;
use File::Copy qw(move);

my $q = CGI->new;
my $upload = $q->upload('u') or die 'the form contains no file';
my $size = -s $upload;
move($q->tmpFileName($upload), $ENV{STORE}) or die "cannot store the file: $!";
print $q->header(-type => 'text/plain', -charset => ''), "$size\n";
