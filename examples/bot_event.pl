#!/usr/bin/perl
# One bot-mitigation event, end to end: build the record from a hash, add a
# few fields with the accessors, pack it to wire bytes, read the bytes back
# into a new object and print what came out, as text and as a hash.
#
# Run from the repository root, after building:
#
#     perl -Mblib examples/bot_event.pl
#
# Addresses: an IPv4 address goes into ip3 as one 32-bit number (the four
# octets in network order, so 203.0.113.45 is 0xCB00712D), with ip0, ip1 and
# ip2 set to 0; an IPv6 address would fill ip0..ip3 with its four 32-bit
# words, most significant first.  rtdom_id is the routing domain the address
# belongs to.
#
# 64-bit identifiers (device_id, session_id, support_id, ...) are given and
# returned as decimal strings, so they keep all their digits on any perl.
use strict;
use warnings;

use Data::Dumper;
use quillon_event_log::QuillonEventLog;

# "a.b.c.d" -> the 32-bit number of an IPv4 address.
sub ipv4_word {
    my ($dotted) = @_;
    my @octets = split /\./, $dotted;
    die "not an IPv4 address: $dotted\n"
        unless @octets == 4 && !grep { !/^\d+$/ || $_ > 255 } @octets;
    return unpack 'N', pack 'C4', @octets;
}

# An IPv4 address as the address hash of the record.
sub ipv4_address {
    my ($dotted, $rtdom_id) = @_;
    return { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => ipv4_word($dotted), rtdom_id => $rtdom_id };
}

my $raw_request = join "\r\n",
    'POST /account/login?next=%2Forders HTTP/1.1',
    'Host: shop.example.com',
    'User-Agent: python-requests/2.31.0',
    'Accept: */*',
    'Content-Type: application/x-www-form-urlencoded',
    'Content-Length: 39',
    '',
    'username=alice&password=correct-horse-1';

my $event = quillon_event_log::QuillonEventLog->new({
    bot_name                            => 'python-requests',
    profile_name                        => 'bot_profile_storefront',
    virtual_server_name                 => 'vs_shop_https',
    client_ip                           => ipv4_address('203.0.113.45', 0),
    dest_ip                             => ipv4_address('198.51.100.10', 0),
    src_port                            => 51734,
    dest_port                           => 443,
    device_id                           => '12297829382473034410',    # above 2**63
    session_id                          => '8374562910457730112',
    request_uri                         => '/account/login?next=%2Forders',
    http_method                         => 'POST',
    host                                => 'shop.example.com',
    http_request                        => $raw_request,
    http_protocol_info                  => 'HTTP/1.1',
    bot_signature                       => 'python-requests',
    bot_signature_category              => 'HTTP Library',
    classification                      => 'Malicious Bot',
    anomaly_categories                  => ['Suspicious HTTP Headers', 'Automation Tool'],
    anomalies                           => ['Missing Accept-Language header', 'Known automation User-Agent'],
    primary_anomaly_category            => 'Automation Tool',
    configured_mitigation_action        => 'block',
    configured_mitigation_action_reason => 'Malicious bot on a login page',
    actual_mitigation_action            => 'block',
    actual_mitigation_action_reason     => 'Signature match: python-requests',
    browser_verification_status         => 'not verified',
    is_https_request                    => 1,
    request_time                        => 1795340467,    # 2026-11-22 09:41:07 UTC
    country_code                        => 'NL',
});

# Fields can also be set one by one after the record is made.
$event->set_support_id('4617315517961601024');
$event->set_request_status('blocked');
$event->add_anomalies('Credential stuffing pattern');

my $bytes = $event->pack;
printf "Packed event: %d bytes (length says %d)\n\n", length $bytes, $event->length;

my $received = quillon_event_log::QuillonEventLog->new($bytes);
die "the bytes did not read back into the same record\n"
    unless $received->pack eq $bytes;

print "Text form (debug_string):\n", $received->debug_string, "\n";

local $Data::Dumper::Sortkeys = 1;
local $Data::Dumper::Indent   = 1;
local $Data::Dumper::Useqq    = 1;    # shows the \r\n of the raw request
print "Hash form (to_hashref):\n", Data::Dumper->Dump([$received->to_hashref], ['event']);
