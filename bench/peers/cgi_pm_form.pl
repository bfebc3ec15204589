# fronts/form.cpp with CGI.pm.
use strict;
use warnings;
use CGI;

my $q = CGI->new;
my $is_hashing = ($ENV{HASH} // '') ne 'no';
my ($count, $size) = (0, 0);
# 14695981039346656037 as a signed number.
my $hash = -3750763034362895579;
for my $name ($q->param) {
    my $value = $q->param($name);
    ++$count;
    $size += length $value;
    next unless $is_hashing;
    # Multiplication must wrap at 64 bits.
    use integer;
    $hash = ($hash ^ $_) * 1099511628211 for unpack 'C*', $value;
}
print $q->header(-type => 'text/plain', -charset => ''), "$count $size";
printf ' %016x', $hash if $is_hashing;
print "\n";
