#!/usr/bin/perl
# One record converted between its hash form and bytes, both ways, by every
# route side by side in one run: the record class (new(\%h)->pack and
# new($bytes)->to_hashref), the codec (encode_event, decode_event), and for
# scale JSON::XS, Sereal and CBOR::XS on the same hash.  Three shapes: typical
# (35 fields, about 1.1 KB), small (5 fields) and large (typical with a 16 KiB
# http_request).  Rounds interleave all cases so machine noise hits them alike;
# each figure is the median over rounds, with its spread (lowest..highest),
# and its ratio to JSON::XS's time for the same shape and direction in the
# same run.  Run: make bench-codec   (or perl -Mblib bench/codec.pl [calls] [rounds])
use strict;
use warnings;
use Time::HiRes qw(time);
use quillon_event_log::QuillonEventLog;
use quillon_event_log::Codec qw(encode_event decode_event);
use FindBin;
use lib "$FindBin::Bin/lib";
use QelBench qw(%typical %small %large);

my $N      = shift // 5_000;
my $ROUNDS = shift // 11;
my $CLASS  = 'quillon_event_log::QuillonEventLog';

my @SHAPES = ([typical => \%typical], [small => \%small], [large => \%large]);

my $json   = eval { require JSON::XS; JSON::XS->new };
my $sereal = eval { require Sereal::Encoder; require Sereal::Decoder;
                    [Sereal::Encoder->new, Sereal::Decoder->new] };
my $cbor   = eval { require CBOR::XS; CBOR::XS->new };
$json or die "JSON::XS is the yardstick: apt-get install libjson-xs-perl\n";

# [shape, route, direction, code]
my @cases;
for my $shape (@SHAPES) {
    my ($name, $h) = @$shape;
    my $bytes = encode_event($h);
    $CLASS->new($h)->pack eq $bytes or die "$name: the class and the codec disagree\n";
    my $j = $json->encode($h);
    push @cases,
        [$name, 'class',    'encode', sub { $CLASS->new($h)->pack }],
        [$name, 'class',    'decode', sub { $CLASS->new($bytes)->to_hashref }],
        [$name, 'codec',    'encode', sub { encode_event($h) }],
        [$name, 'codec',    'decode', sub { decode_event($bytes) }],
        [$name, 'JSON::XS', 'encode', sub { $json->encode($h) }],
        [$name, 'JSON::XS', 'decode', sub { $json->decode($j) }];
    if ($sereal) {
        my $s = $sereal->[0]->encode($h);
        push @cases, [$name, 'Sereal', 'encode', sub { $sereal->[0]->encode($h) }],
                     [$name, 'Sereal', 'decode', sub { $sereal->[1]->decode($s) }];
    }
    if ($cbor) {
        my $c = $cbor->encode($h);
        push @cases, [$name, 'CBOR::XS', 'encode', sub { $cbor->encode($h) }],
                     [$name, 'CBOR::XS', 'decode', sub { $cbor->decode($c) }];
    }
}

my %times;    # "shape route direction" => [ns per call of each round]
for my $round (1 .. $ROUNDS) {
    for my $case (@cases) {
        my $code = $case->[3];
        my $t0 = time;
        $code->() for 1 .. $N;
        push @{ $times{"@$case[0..2]"} }, (time - $t0) / $N * 1e9;
    }
}

sub median { my @s = sort { $a <=> $b } @_; $s[$#s / 2] }

printf "perl %vd; %d calls per round, %d rounds; median ns per call (lowest..highest), ratio to JSON::XS\n",
    $^V, $N, $ROUNDS;
for my $shape (@SHAPES) {
    my $name = $shape->[0];
    printf "\n%s: %d bytes on the wire, %d as JSON\n", $name, length encode_event($shape->[1]),
        length $json->encode($shape->[1]);
    for my $direction (qw(encode decode)) {
        my $yard = median(@{ $times{"$name JSON::XS $direction"} });
        for my $route ('class', 'codec', 'JSON::XS', 'Sereal', 'CBOR::XS') {
            my $t = $times{"$name $route $direction"} or next;
            my @s = sort { $a <=> $b } @$t;
            printf "  %-6s %-9s %8.0f ns  (%6.0f..%6.0f)  %5.2f\n",
                $direction, $route, median(@s), $s[0], $s[-1], median(@s) / $yard;
        }
    }
}
