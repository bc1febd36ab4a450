package QelBench;

# The records the benchmarks time, one place for all of them: typical (35
# fields, about 1.1 KB, what the traffic processor writes for one blocked
# request), small (5 fields) and large (typical with a 16 KiB http_request).
use strict;
use warnings;
use Exporter 'import';
our @EXPORT_OK = qw(%typical %small %large median);

our %typical = (
    bot_name                           => 'curl',
    profile_name                       => 'bot-defense-strict',
    virtual_server_name                => '/Common/vs_shop_https',
    client_ip                          => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0xcb00712d, rtdom_id => 0 },
    dest_ip                            => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0x0a000005, rtdom_id => 2 },
    request_uri                        => '/api/v2/cart/checkout?session=abc123&step=2&currency=EUR&ref=mail',
    http_request                       => "GET /api/v2/cart/checkout?session=abc123&step=2&currency=EUR&ref=mail HTTP/1.1\r\n"
                                        . "Host: shop.example.com\r\nUser-Agent: curl/7.88.1\r\nAccept: */*\r\n"
                                        . "Accept-Encoding: gzip, deflate, br\r\nConnection: keep-alive\r\n"
                                        . "Cookie: TS01a2b3c4=0123456789abcdef0123456789abcdef; session=abc123\r\n"
                                        . "X-Forwarded-For: 203.0.113.45\r\n\r\n",
    bot_signature                      => 'curl',
    configured_mitigation_action_reason => 'Signature matched a malicious bot',
    actual_mitigation_action_reason    => 'Signature matched a malicious bot',
    reason                             => 'Known bot signature',
    src_port                           => 51234,
    dest_port                          => 443,
    device_id                          => '1234567890123',
    session_id                         => '18446744073709551557',
    support_id                         => '9876543210987654321',
    previous_support_id                => '9876543210987654320',
    mobile_is_app                      => 0,
    request_time                       => 1795000000,
    previous_request_time              => 1794999990,
    http_method                        => 'GET',
    country_code                       => 'US',
    classification                     => 'Malicious Bot',
    bot_signature_category             => 'HTTP Library',
    captcha_status                     => 'not_received',
    browser_verification_status        => 'not_verified',
    device_id_status                   => 'none',
    anomaly_categories                 => ['Suspicious HTTP Headers', 'Automation Tool'],
    anomalies                          => ['Missing Accept-Language header', 'Known bot User-Agent'],
    configured_mitigation_action       => 'block',
    actual_mitigation_action           => 'block',
    is_https_request                   => 1,
    host                               => 'shop.example.com',
    request_status                     => 'blocked',
    enforced_by                        => 'bot-defense',
);
our %small = (
    bot_name    => 'curl',
    client_ip   => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0xcb00712d, rtdom_id => 0 },
    src_port    => 51234,
    request_uri => '/login',
    actual_mitigation_action => 'block',
);
our %large = (%typical, http_request => $typical{http_request} . ('x' x (16 * 1024)));
# The median of a list of numbers (the mean of the middle two for an even
# count); undef for no numbers, a case that did not run.
sub median {
    my @s = sort { $a <=> $b } @_ or return undef;
    @s % 2 ? $s[$#s / 2] : ($s[@s / 2 - 1] + $s[@s / 2]) / 2;
}

1;
