# fronts/get.cpp with CGI.pm.
use strict;
use warnings;
use CGI;

my $q = CGI->new;
print $q->header(-type => 'text/plain', -charset => '');
print "$_=" . $q->param($_) . "\n" for qw(a b c);
print 'session=' . $q->cookie('session') . "\n";
