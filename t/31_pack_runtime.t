# pack writes through its own output stream; here its bytes are checked
# against the protobuf runtime's own serialiser. Every record below is packed,
# all of them are handed to t/cpp/reserialise.cc in one run, which parses each
# with ParseFromString and writes it again with SerializeAsString, and the two
# byte strings must be identical: for every encoded length from 2 to 3000
# bytes and within 3 bytes of every power of two up to 1 MiB, in two shapes
# (one string field, and a mix of every family padded by one string; see
# record_hash_of_length in t/lib/QelTest.pm), and for records carrying unknown
# fields or a present but empty address.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);

my ($dir, $bin) = build_cpp_ok('t/cpp/reserialise.cc');

require quillon_event_log::QuillonEventLog;
my $PKG = 'quillon_event_log::QuillonEventLog';

# Each record packed, with what to call it: [name, packed bytes].
my @cases;

# Packs $record, checks that the packed length, $record->length and
# $target agree (one assertion), and queues the bytes for the runtime.
# With $quiet true, pack runs with standard error discarded.
sub add_case {
    my ($name, $record, $target, $quiet) = @_;
    my $packed = $quiet ? quietly { $record->pack } : $record->pack;
    is join(' ', length $packed, $record->length), "$target $target",
        "$name: packed length and length are $target";
    push @cases, [$name, $packed];
}

# ---- the length sweep ------------------------------------------------------------

for my $len (sweep_lengths()) {
    for my $shape (['one string', 'string'], ['mixed', 'mixed']) {
        my ($what, $kind) = @$shape;
        add_case("$len bytes, $what", new_rec(record_hash_of_length($len, $kind)), $len);
    }
}

# ---- unknown fields (6 and 31 are free in the schema) ----------------------------

my @unknown = unknown_field_samples();
my $all_unknown = join '', map { $_->[1] } @unknown;
my $known = '0a0161' . '2204' . '0801' . '1002' . '980105' . 'a801ffffffffffffffffff01' . 'c80101'
          . 'e2020178' . 'ea020179' . 'aa030168';

my @parsed = (
    (map { ["$_->[0] alone", $_->[1]] } @unknown),
    (map { ["$_->[0] before known fields", $_->[1] . $known] } @unknown),
    (map { ["$_->[0] after known fields", $known . $_->[1]] } @unknown),
    ['every unknown field before the known ones', $all_unknown . $known],
    ['unknown fields between known ones',
        '3005' . '0a0161' . 'f80107' . '2204' . '0801' . '1002' . '3200' . '980105' . 'fb011005fc01' . 'ea020179'],
    ['an unknown field inside client_ip', '2206' . '0801' . '3005' . '1002' . '980105'],
    ['unknown fields inside client_ip and dest_ip and around them',
        'f80107' . '2204' . '3005' . '0801' . '2a05' . '1002' . 'f80101' . '3501020304'],
);
for my $p (@parsed) {
    my ($what, $hex) = @$p;
    my $bytes = unhex($hex);
    my $o = $PKG->new;
    $o->unpack($bytes) or die "test bug: $what ($hex) does not parse\n";
    add_case("parsed, $what", $o, length $bytes);
}

# Unknown length-delimited fields of 16 KiB, 64 KiB and 1 MiB, and a swept
# record with unknown fields on both sides.
for my $size (16384, 65536, 1048576) {
    my $payload = pattern_bytes($size, 5);
    my $bytes = unhex('3a012f') . "\x32" . varint($size) . $payload . unhex('f80107');
    add_case("parsed, field 6 with $size bytes between known fields", $PKG->new($bytes), length $bytes);
    my $big = unhex('fa01') . varint($size) . $payload;
    add_case("parsed, field 31 with $size bytes alone", $PKG->new($big), length $big);
}
for my $len (100, 1000, 4099, 65533, 1048579) {
    my $bytes = unhex('3005' . 'fd01ffffffff') . encode_ref(record_hash_of_length($len, 'mixed')) . unhex('f9010807060504030201' . '3200');
    add_case("parsed, $len bytes mixed between unknown fields", $PKG->new($bytes), length $bytes);
}

# ---- present but empty addresses, and other small records --------------------------

add_case('empty client_ip', new_rec(client_ip => {}), 2);
add_case('empty client_ip and dest_ip', new_rec(client_ip => {}, dest_ip => {}), 4);
add_case('empty client_ip with strings around it',
    new_rec(bot_name => 'b', client_ip => {}, request_uri => '/x', anomalies => ['']), 3 + 2 + 4 + 3);
add_case('parsed, empty client_ip', $PKG->new(unhex('2200')), 2);
{
    my $o = $PKG->new;
    $o->set_client_ip(quillon_event_log::IPAddr->new);
    add_case('empty client_ip set by set_client_ip', $o, 2);
    my $p = $PKG->new;
    $p->set_dest_ip(quillon_event_log::IPAddr->new({ rtdom_id => 0 }));
    $p->set_mobile_is_app(0);
    $p->add_anomaly_categories('');
    add_case('dest_ip with rtdom_id 0, false bool, one empty list entry, by setters', $p, 4 + 3 + 3);
}
{
    my $bytes = join '', map { chr } 0 .. 255;
    add_case('host holding every byte 0..255 (not UTF-8)', new_rec(host => $bytes), 2 + 2 + 256, 'quiet');
}

# ---- the runtime's turn -------------------------------------------------------------

my $in = "$dir/records.bin";
open my $fh, '>:raw', $in or die "cannot write $in: $!";
print {$fh} pack('V', length $_->[1]), $_->[1] for @cases;
close $fh or die "cannot write $in: $!";

my ($out, $status, $stderr) = run_program([$bin], dir => $dir, stdin => $in);
unlink $in;
is($status, 0, 'reserialise exits 0') or diag(describe_status($status) . "\n$stderr");

my $at = 0;
for my $c (@cases) {
    my ($name, $packed) = @$c;
    my ($parsed, $again);
    if (length($out) - $at >= 5) {
        my $n;
        ($parsed, $n) = unpack 'a V', substr $out, $at, 5;
        if (length($out) - $at - 5 >= $n) {
            $again = substr $out, $at + 5, $n;
            $at += 5 + $n;
        }
    }
    my $ok = bytes_is(defined $parsed && $parsed eq '1' ? $again : undef, $packed,
        "$name: the runtime serialises the parsed bytes to exactly pack's bytes");
    unless ($ok) {
        diag(!defined $again         ? 'the output of reserialise ended before this record'
           : $parsed ne '1'           ? 'ParseFromString failed on the packed bytes'
           :                            'parsed, but serialised differently');
    }
}
is(length($out) - $at, 0, 'reserialise wrote one frame per record and nothing more');
note("stderr of reserialise (the runtime's reports of the host that is not UTF-8 are expected):\n$stderr")
    if length $stderr && $status == 0;

done_testing;
