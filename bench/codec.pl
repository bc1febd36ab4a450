#!/usr/bin/perl
# The codec beside the record class on three shapes of record: typical (35
# fields, about 1 KB), small (5 fields) and large (a 16 KiB http_request),
# with JSON::XS and Sereal for scale when they are installed.  Rates and
# ratios come from one Benchmark run per shape; compare figures of one run
# only, the machines are shared.  Run: perl -Mblib bench/codec.pl [seconds]
use strict;
use warnings;
use Benchmark qw(timethese cmpthese);
use quillon_event_log::QuillonEventLog;
use quillon_event_log::Codec;

my $SECONDS = shift // 1;
my $CLASS = 'quillon_event_log::QuillonEventLog';
my $json   = eval { require JSON::XS; JSON::XS->new->canonical(0) };
my ($sereal_enc, $sereal_dec) = eval {
    require Sereal::Encoder; require Sereal::Decoder;
    (Sereal::Encoder->new, Sereal::Decoder->new);
};

my %typical = (
    bot_name            => 'curl',
    profile_name        => 'bot-defense-strict',
    virtual_server_name => '/Common/vs_shop_https',
    client_ip           => { ip0 => 0, ip1 => 0, ip2 => 0xffff, ip3 => 0xc0a80a17, rtdom_id => 0 },
    dest_ip             => { ip0 => 0, ip1 => 0, ip2 => 0xffff, ip3 => 0x0a000005, rtdom_id => 0 },
    request_uri         => '/api/v2/cart/checkout?session=abc123&step=2',
    http_request        => "GET /api/v2/cart/checkout?session=abc123&step=2 HTTP/1.1\r\n"
                         . "Host: shop.example.com\r\nUser-Agent: Mozilla/5.0 (X11; Linux x86_64) curl/7.88.1\r\n"
                         . "Accept: */*\r\nAccept-Encoding: gzip, deflate, br\r\nConnection: keep-alive\r\n"
                         . "Cookie: TS01abc=0123456789abcdef0123456789abcdef; session=abc123\r\n\r\n",
    bot_signature       => 'curl',
    microservice_name   => 'checkout',
    reason              => 'Signature match: HTTP Library',
    src_port            => 51234,
    dest_port           => 443,
    device_id           => '1234567890123',
    session_id          => '18446744073709551557',
    support_id          => '9876543210987654321',
    previous_support_id => '9876543210987654320',
    mobile_is_app       => 0,
    request_time        => 1795000000,
    previous_request_time => 1794999990,
    http_method         => 'GET',
    country_code        => 'US',
    classification      => 'Malicious Bot',
    bot_signature_category => 'HTTP Library',
    captcha_status      => 'not_received',
    device_id_status    => 'none',
    anomaly_categories  => ['Suspicious HTTP Headers', 'Automation Tool'],
    anomalies           => ['Missing Accept-Language header', 'Known bot User-Agent', 'Header order anomaly'],
    configured_mitigation_action => 'block',
    actual_mitigation_action     => 'block',
    is_https_request    => 1,
    slot_number         => 7,
    host                => 'shop.example.com',
    request_status      => 'blocked',
    enforced_by         => 'bot-defense',
    primary_anomaly_category => 'Automation Tool',
    http_protocol_info  => 'HTTP/1.1',
);
my %small = (bot_name => 'curl', src_port => 51234, session_id => '18446744073709551557',
             is_https_request => 1, host => 'shop.example.com');
my %large = (%small, http_request => join('', map { chr(32 + ($_ * 7) % 95) } 1 .. 16 * 1024));

for my $shape (['typical', \%typical], ['small', \%small], ['large', \%large]) {
    my ($name, $h) = @$shape;
    my $bytes = encode_event($h);
    die "$name: the codec and pack disagree\n" unless $bytes eq $CLASS->new($h)->pack;
    printf "\n== %s: %d fields, %d bytes\n", $name, scalar(keys %$h), length $bytes;
    my %enc = (
        'codec encode' => sub { encode_event($h) },
        'class pack'   => sub { $CLASS->new($h)->pack },
    );
    $enc{'JSON::XS encode'} = sub { $json->encode($h) } if $json;
    $enc{'Sereal encode'} = sub { $sereal_enc->encode($h) } if $sereal_enc;
    cmpthese(timethese(-$SECONDS, \%enc, 'none'));
    my ($j, $s) = ($json ? $json->encode($h) : undef, $sereal_enc ? $sereal_enc->encode($h) : undef);
    my %dec = (
        'codec decode'     => sub { decode_event($bytes) },
        'class to_hashref' => sub { $CLASS->new($bytes)->to_hashref },
    );
    $dec{'JSON::XS decode'} = sub { $json->decode($j) } if $json;
    $dec{'Sereal decode'} = sub { $sereal_dec->decode($s) } if $sereal_dec;
    cmpthese(timethese(-$SECONDS, \%dec, 'none'));
}
