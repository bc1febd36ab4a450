#!/usr/bin/perl
# Nanoseconds per call of the module's hot paths, the loop's own cost removed,
# and a typical record's round trip (hash -> bytes -> hash) beside JSON::XS.
# Best of several runs; compare figures from one run only, the machines are
# shared.  Run: make bench   (or perl -Mblib bench/accessors.pl [iterations])
use strict;
use warnings;
use Time::HiRes qw(time);
use quillon_event_log::QuillonEventLog;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelBench qw(%typical);    # 35 fields, about 1.1 KB

my $N    = shift // 20_000;
my $RUNS = 15;
my $CLASS = 'quillon_event_log::QuillonEventLog';


# Each case runs $N calls per round; rounds go over all cases in turn, so a
# slow moment of the machine hits every case alike, and the best round counts.
my @cases;
sub report { push @cases, [@_] }
sub run_rounds {
    my %best;
    for my $round (1 .. $RUNS) {
        for my $case (@cases) {
            my ($name, $code) = @$case;
            my $t0 = time;
            $code->() for 1 .. $N;
            my $ns = (time - $t0) / $N * 1e9;
            $best{$name} = $ns if !defined $best{$name} || $ns < $best{$name};
        }
    }
    return \%best;
}

my $r     = $CLASS->new(\%typical);
my $bytes = $r->pack;
my $plain = bless \(my $v = 'x'), 'Plain';
sub Plain::get { ${ $_[0] } }
my $json  = eval { require JSON::XS; JSON::XS->new };

report('empty loop',                    sub { });
report('pure-Perl getter (for scale)',  sub { $plain->get });
report('string getter',                 sub { $r->bot_name });
report('string setter',                 sub { $r->set_bot_name('curl') });
report('uint32 getter',                 sub { $r->src_port });
report('uint32 setter',                 sub { $r->set_src_port(443) });
report('uint64 getter',                 sub { $r->session_id });
report('uint64 setter',                 sub { $r->set_session_id('18446744073709551557') });
report('bool getter',                   sub { $r->is_https_request });
report('bool setter',                   sub { $r->set_is_https_request(1) });
report('has_',                          sub { $r->has_host });
report('address getter (IPAddr copy)',  sub { $r->client_ip });
report('list getter',                   sub { my @a = $r->anomalies });
report('new / DESTROY (empty)',         sub { $CLASS->new });
report('new(\%typical)',                sub { $CLASS->new(\%typical) });
report('pack (typical)',                sub { $r->pack });
report('new($bytes)',                   sub { $CLASS->new($bytes) });
report('unpack($bytes)',                sub { $r->unpack($bytes) });
report('to_hashref (typical)',          sub { $r->to_hashref });
report('round trip: new(\%h)->pack, new->to_hashref',
       sub { $CLASS->new($CLASS->new(\%typical)->pack)->to_hashref });
report('round trip: JSON::XS encode, decode', sub { $json->decode($json->encode(\%typical)) }) if $json;

my $best  = run_rounds();
my $empty = $best->{'empty loop'};
printf "perl %vd, %d calls per round, best of %d rounds; the empty loop's %.0f ns removed\n",
    $^V, $N, $RUNS, $empty;
for my $case (@cases[1 .. $#cases]) {
    printf "%-45s %8.0f ns\n", $case->[0], $best->{ $case->[0] } - $empty;
}
printf "typical record: %d bytes packed, %d bytes as JSON\n", length $bytes,
    $json ? length $json->encode(\%typical) : 0;
if ($json) {
    my ($ours, $theirs) = map { $best->{$_} - $empty }
        'round trip: new(\%h)->pack, new->to_hashref', 'round trip: JSON::XS encode, decode';
    printf "JSON::XS round trip time / ours: %.2f\n", $theirs / $ours;
} else {
    print "JSON::XS not installed: no comparison (apt-get install libjson-xs-perl)\n";
}
