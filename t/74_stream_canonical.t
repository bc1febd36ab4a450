# Reader::canonical says whether the codec would give the record's bytes back
# exactly; qel decode --json relies on it to keep the original bytes only
# when they differ.  Checked against encode(decode(bytes)) eq bytes over
# mutated sample records: fields out of order or repeated, over-long varints,
# flags above 1, words above 32 bits, addresses in parts, random bytes.
use strict;
use warnings;
use Test::More;
use lib 't/lib';
use QelTest qw(varint);

use quillon_event_log::Stream;
use quillon_event_log::Codec;
use quillon_event_log::Sample;

quillon_event_log::RuntimeLog::mode('silent');
srand 20261123;

my $encoder = quillon_event_log::Codec->new(addresses => 'text');
my $gen = quillon_event_log::Sample->new(seed => 3, count => 200);
my @base;
while (my $e = $gen->next) { push @base, $encoder->encode($e) }

my @mutations = (
    sub { substr($_[0], rand length $_[0], 1) = chr rand 256 },
    sub { substr($_[0], rand length $_[0], 0) = chr rand 256 },
    sub { $_[0] .= substr($_[0], 0, 2 + int rand 40) },                        # fields again
    sub { my $x = int rand length $_[0]; $_[0] = substr($_[0], $x) . substr($_[0], 0, $x) },
    sub { $_[0] = "\x0a\x01x" . $_[0] },                                       # bot_name twice
    sub { $_[0] .= "\xc0\x01\x02" },                                           # a flag of 2
    sub { $_[0] .= "\x98\x01\xff\xff\xff\xff\x1f" },                           # a port above 32 bits
    sub { $_[0] .= "\xa0\x01\x85\x00" },                                       # an over-long varint
    sub { $_[0] .= "\x22\x02\x08\x01\x22\x04\x80\x08\x05" },                   # an address in parts
    sub { $_[0] .= "\xb0\x01\x9e\xf3\x8a\xe1\xda\xec\xcd\xba\xdc\x22" },       # bits past the 64th
    sub { $_[0] .= "\xb0\x01\x80\x80\x80\x80\x80\x80\x80\x80\x80\x01" },       # 2**63, ten bytes
);
my @options = ([], [characters => 1], [addresses => 'text'], [characters => 1, addresses => 'text']);

my ($checked, $differ, @wrong) = (0, 0);
for (1 .. 6000) {
    my $bytes = $base[rand @base];
    $mutations[rand @mutations]->($bytes) for 0 .. int rand 2;
    my $opt = $options[rand @options];
    my $r = quillon_event_log::Stream->reader(\(varint(length $bytes) . $bytes), @$opt, on_error => sub { });
    my $hash = $r->next or next;
    my $same = quillon_event_log::Codec->new(@$opt)->encode($hash) eq $bytes ? 1 : 0;
    $checked++;
    $differ++ unless $same;
    push @wrong, unpack('H*', $bytes) if ($r->canonical ? 1 : 0) != $same;
}
cmp_ok $checked, '>', 2000, "$checked records decoded";
cmp_ok $differ, '>', 500, "$differ of them are not in canonical form";
is_deeply \@wrong, [], 'canonical is right for every one';

my $b = $base[0];
my $r = quillon_event_log::Stream->reader(\(varint(length $b) . $b));
is $r->canonical, undef, 'undef before the first record';
$r->next;
ok $r->canonical, 'a record as the codec writes it';
$r = quillon_event_log::Stream->reader(\(varint(length $b) . $b));
$r->next_bytes;
is $r->canonical, undef, 'undef after next_bytes';
$r = quillon_event_log::Stream->reader(\(varint(length $b) . $b), fields => ['bot_name']);
$r->next;
is $r->canonical, undef, 'undef when only some fields were decoded';
$r = quillon_event_log::Stream->reader(\(varint(length $b) . $b), unknown_fields => 'drop');
$r->next;
is $r->canonical, undef, 'undef when unknown fields were dropped';

done_testing;
