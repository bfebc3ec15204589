# Usage: upload.pl URL TEXT FILE...
# Sends a form by LWP: the text as "note", the files as "upload0" and so on.
use strict;
use warnings;
use HTTP::Request::Common qw(POST);
use LWP::UserAgent;

my ($url, $text, @files) = @ARGV;
my $number = 0;
my @uploads = map { ("upload" . $number++ => [$_]) } @files;
my $request = POST($url, Content_Type => 'form-data', Content => [note => $text, @uploads]);
my $answer = LWP::UserAgent->new(env_proxy => 0)->request($request);
binmode STDOUT;
print $answer->content;
exit !$answer->is_success;
