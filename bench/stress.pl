#!/usr/bin/perl
# Round-trips many typical records (hash -> new -> pack -> new -> to_hashref),
# compares every 1000th with the hash it came from, and prints the process's
# resident memory as it goes: it must stay flat once the first records have
# warmed the allocator.  Exits 1 on a mismatch, or when the resident memory
# grew by more than 4 MiB between the first report and the last.
# Run: make stress   (or perl -Mblib bench/stress.pl [records])
use strict;
use warnings;
use Time::HiRes qw(time);
use FindBin;
use lib "$FindBin::Bin/../t/lib";
use QelTest qw(hash_text);    # one line of text per record, equal exactly when the records are
use quillon_event_log::QuillonEventLog;

my $RECORDS = shift // 1_000_000;
my $EVERY   = 100_000 < $RECORDS ? 100_000 : $RECORDS;
my $CLASS   = 'quillon_event_log::QuillonEventLog';

sub rss_kib {
    open my $fh, '<', '/proc/self/status' or return 0;
    while (<$fh>) { return $1 if /^VmRSS:\s+(\d+)/ }
    return 0;
}

# A typical record, different in every round in its numbers, identifiers,
# URI and list lengths, so no two encodings are alike.
sub record_hash {
    my ($i) = @_;
    return {
        bot_name            => 'curl',
        profile_name        => 'bot-defense-strict',
        virtual_server_name => '/Common/vs_shop_https',
        client_ip           => { ip0 => 0, ip1 => 0, ip2 => 0xffff, ip3 => (0xc0a80000 + $i) & 0xffffffff, rtdom_id => $i % 3 },
        dest_ip             => { ip3 => 0x0a000005 },
        request_uri         => "/api/v2/cart/checkout?session=$i&step=" . ($i % 7),
        http_request        => "GET /api/v2/cart/checkout?session=$i HTTP/1.1\r\nHost: shop.example.com\r\n"
                             . "User-Agent: curl/7.88.1\r\nAccept: */*\r\n\r\n",
        src_port            => 1024 + $i % 64000,
        dest_port           => 443,
        device_id           => "${i}0123",
        session_id          => '18446744073709551557',
        request_time        => 1795000000 + $i,
        mobile_is_app       => $i % 2,
        http_method         => 'GET',
        country_code        => 'US',
        classification      => 'Malicious Bot',
        anomaly_categories  => ['Suspicious HTTP Headers'],
        anomalies           => [ map { "anomaly $_" } 0 .. $i % 4 ],
        actual_mitigation_action => 'block',
        is_https_request    => 1,
        host                => 'shop.example.com',
    };
}

my ($mismatches, $bytes_total) = (0, 0);
my $start_rss = rss_kib();
my ($first_rss, $last_rss);
printf "%10s  %10s  %12s\n", 'records', 'RSS KiB', 'records/s';
printf "%10d  %10d\n", 0, $start_rss;
my $t0 = my $t_last = time;
for my $i (1 .. $RECORDS) {
    my $hash  = record_hash($i);
    my $bytes = $CLASS->new($hash)->pack;
    $bytes_total += length $bytes;
    my $back = $CLASS->new($bytes)->to_hashref;
    if ($i % 1000 == 0 && hash_text($back) ne hash_text($hash)) {
        $mismatches++;
        print "record $i differs:\n  ", hash_text($hash), "\n  ", hash_text($back), "\n" if $mismatches <= 3;
    }
    if ($i % $EVERY == 0) {
        my $now = time;
        $last_rss = rss_kib();
        $first_rss //= $last_rss;
        printf "%10d  %10d  %12.0f\n", $i, $last_rss, $EVERY / ($now - $t_last);
        $t_last = $now;
    }
}
my $elapsed = time - $t0;
my $growth  = ($last_rss // 0) - ($first_rss // 0);
printf "%d records in %.1f s: %.0f records/s, %.0f bytes per record on average\n",
    $RECORDS, $elapsed, $RECORDS / $elapsed, $bytes_total / $RECORDS;
printf "RSS: %d KiB at the start, %d KiB after the first %d, %d KiB at the end (%+d KiB since the first report)\n",
    $start_rss, $first_rss // 0, $EVERY, $last_rss // 0, $growth;
printf "%d of %d sampled records differed\n", $mismatches, int($RECORDS / 1000);
exit($mismatches || $growth > 4096 ? 1 : 0);
