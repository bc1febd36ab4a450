#!/usr/bin/perl
# Nanoseconds per call of the module's hot paths, the loop's own cost removed,
# and a typical record's round trip (hash -> bytes -> hash) beside JSON::XS.
# Best of several runs; compare figures from one run only, the machines are
# shared.  Run: make bench   (or perl -Mblib bench/accessors.pl [iterations])
use strict;
use warnings;
use Time::HiRes qw(time);
use quillon_event_log::QuillonEventLog;

my $N    = shift // 200_000;
my $RUNS = 5;
my $CLASS = 'quillon_event_log::QuillonEventLog';

# A typical record: what the traffic processor writes for one blocked request.
my %typical = (
    bot_name            => 'curl',
    profile_name        => 'bot-defense-strict',
    virtual_server_name => '/Common/vs_shop_https',
    client_ip           => { ip0 => 0, ip1 => 0, ip2 => 0xffff, ip3 => 0xc0a80a17, rtdom_id => 0 },
    dest_ip             => { ip0 => 0, ip1 => 0, ip2 => 0xffff, ip3 => 0x0a000005, rtdom_id => 0 },
    request_uri         => '/api/v2/cart/checkout?session=abc123&step=2',
    http_request        => "GET /api/v2/cart/checkout?session=abc123&step=2 HTTP/1.1\r\n"
                         . "Host: shop.example.com\r\nUser-Agent: curl/7.88.1\r\nAccept: */*\r\n\r\n",
    bot_signature       => 'curl',
    src_port            => 51234,
    dest_port           => 443,
    device_id           => '1234567890123',
    session_id          => '18446744073709551557',
    support_id          => '9876543210987654321',
    mobile_is_app       => 0,
    request_time        => 1795000000,
    http_method         => 'GET',
    country_code        => 'US',
    classification      => 'Malicious Bot',
    bot_signature_category => 'HTTP Library',
    anomaly_categories  => ['Suspicious HTTP Headers'],
    anomalies           => ['Missing Accept-Language header', 'Known bot User-Agent'],
    configured_mitigation_action => 'block',
    actual_mitigation_action     => 'block',
    is_https_request    => 1,
    host                => 'shop.example.com',
    request_status      => 'blocked',
    enforced_by         => 'bot-defense',
);

sub ns_per_call {
    my ($code) = @_;
    my $best;
    for (1 .. $RUNS) {
        my $t0 = time;
        $code->() for 1 .. $N;
        my $dt = time - $t0;
        $best = $dt if !defined $best || $dt < $best;
    }
    return $best / $N * 1e9;
}

my $empty = ns_per_call(sub { });
sub report { printf "%-40s %8.0f ns\n", $_[0], ns_per_call($_[1]) - $empty }

my $r     = $CLASS->new(\%typical);
my $bytes = $r->pack;
my $plain = bless \(my $v = 'x'), 'Plain';
sub Plain::get { ${ $_[0] } }

print "perl $^V, $N calls, best of $RUNS; loop cost ($empty ns) removed\n";
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

my $rt = ns_per_call(sub { $CLASS->new($CLASS->new(\%typical)->pack)->to_hashref }) - $empty;
printf "%-40s %8.0f ns  (%d bytes)\n", 'round trip: new(\%h)->pack, new->to_hashref', $rt, length $bytes;
if (eval { require JSON::XS; 1 }) {
    my $json = JSON::XS->new->canonical(0);
    my $js = ns_per_call(sub { $json->decode($json->encode(\%typical)) }) - $empty;
    printf "%-40s %8.0f ns  (%d bytes)\n", 'round trip: JSON::XS encode, decode', $js,
        length $json->encode(\%typical);
    printf "%-40s %8.2f\n", 'JSON::XS time / our time', $js / $rt;
} else {
    print "JSON::XS not installed: no comparison (apt-get install libjson-xs-perl)\n";
}
