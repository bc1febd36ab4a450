# The sample file shipped in examples/ is exactly what `qel sample` writes
# for its count and seed, and every record in it reads back cleanly.
use strict;
use warnings;
use Test::More;
use lib 't/lib';
use QelTest qw(sh_words);

use quillon_event_log::Stream;

# Some sample requests carry binary bodies: the runtime's complaints about
# them are expected.
quillon_event_log::RuntimeLog::mode('silent');

my $file = 'examples/events.qel';
open my $fh, '<:raw', $file or die "$file: $!";
my $shipped = do { local $/; <$fh> };

my $cmd = sh_words($^X, '-Mblib', 'blib/script/qel', 'sample', '--count', '200', '--seed', '1');
my $made = `$cmd`;
is $?, 0, 'qel sample ran';
is length $made, length $shipped, 'same length';
ok $made eq $shipped, "$file equals qel sample --count 200 --seed 1";

my $r = quillon_event_log::Stream->reader($file, on_error => sub { fail($_[0]{message}) });
my $n = 0;
$n++ while $r->next;
is $n, 200, '200 records, every one decodes';

done_testing;
