# pack writes through its own output stream; here its bytes are checked
# against the protobuf runtime's own serialiser. Every record below is packed,
# all of them are handed to t/cpp/reserialise.cc in one run, which parses each
# with ParseFromString and writes it again with SerializeAsString, and the two
# byte strings must be identical: for every encoded length from 2 to 3000
# bytes and around every power of two from 32 bytes to 1 MiB, in two shapes
# (one string field, and a mix of every family padded by one string), and for
# records carrying unknown fields or a present but empty address.
use strict;
use warnings;
use Test::More;
use File::Spec;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);

my $build = build_cpp('t/cpp/reserialise.cc');
plan skip_all => $build->{skip} if defined $build->{skip};

my ($dir, $bin) = @$build{qw(dir bin)};
ok(defined $bin, 't/cpp/reserialise.cc compiles and links with src/quillon_event_log.pb.o')
    or diag("$build->{command}\n$build->{output}");
unless (defined $bin) {
    done_testing();
    exit;
}

require quillon_event_log::QuillonEventLog;
my $PKG = 'quillon_event_log::QuillonEventLog';

# Each record packed, with what to call it: [name, packed bytes].
my @cases;

# Runs $code with file descriptor 2 sent to /dev/null: the runtime reports
# strings that are not UTF-8 there, which is noise here.
sub quietly (&) {
    my $code = shift;
    open my $saved, '>&', \*STDERR or die "dup STDERR: $!";
    open STDERR, '>', '/dev/null' or die "reopen STDERR: $!";
    my @r = eval { $code->() };
    my $err = $@;
    open STDERR, '>&', $saved or die "restore STDERR: $!";
    die $err if $err;
    return wantarray ? @r : $r[0];
}

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

my @strings = family_fields('string');
my %num = map { $_->[0] => $_->[1] } field_table();

# Bytes 0..127 in an order that repeats only every 4096 bytes: valid UTF-8,
# so the runtime has nothing to report, and no two lengths share a prefix.
my $PATTERN = join '', map { chr((($_ * 53) + 7) % 128) } 0 .. 4095;
$PATTERN x= 260;    # a little over 1 MiB

sub vlen { my $n = shift; my $l = 1; $l++ while ($n >>= 7); $l }

# The byte count for which a string field whose tag takes $taglen bytes
# encodes to exactly $len bytes, or undef when there is none.
sub string_fit {
    my ($len, $taglen) = @_;
    for my $vl (1 .. 4) {
        my $n = $len - $taglen - $vl;
        return $n if $n >= 0 && vlen($n) == $vl;
    }
    return undef;
}

# A string field not in %$exclude, tried from position $pick on, and the byte
# count that makes it encode to exactly $len bytes.
sub string_for {
    my ($len, $pick, $exclude) = @_;
    for my $f (grep { !exists $exclude->{$_} } map { $strings[($pick + $_) % @strings] } 0 .. $#strings) {
        my $n = string_fit($len, $num{$f} < 16 ? 1 : 2);
        return ($f, $n) if defined $n;
    }
    die "test bug: no string field encodes to $len bytes\n";
}

sub one_string {
    my $len = shift;
    my ($f, $n) = string_for($len, $len * 3, {});
    return { $f => substr($PATTERN, $len % 101, $n) };
}

# Fields of every family; a record takes those that fit, starting at a place
# that moves with the length, then one string field fills it up.
my $U64_MAX = '18446744073709551615';
my @pool = (
    [client_ip           => { ip0 => 4294967295, ip1 => 0, ip2 => 127, ip3 => 128, rtdom_id => 4294967295 }],
    [device_id           => $U64_MAX],
    [anomalies           => ['', 'scraper', "\x00\x7f", 'x' x 130]],
    [mobile_is_app       => 1],
    [http_method         => 'POST'],
    [session_id          => $U64_MAX],
    [dest_ip             => { ip3 => 1 }],
    [src_port            => 65535],
    [is_https_request    => 0],
    [country_code        => 'NZ'],
    [previous_support_id => $U64_MAX],
    [anomaly_categories  => ['automation', '']],
    [slot_number         => 4294967295],
    [reason              => ''],
    [support_id          => '0'],
    [is_update_request   => 1],
    [host                => 'www.example.test'],
    [request_time        => 1700000000],
    [http_protocol_info  => 'HTTP/1.1'],
    [previous_request_time => 0],
);
my @pool_size = map { length encode_ref({ $_->[0] => $_->[1] }) } @pool;

sub mixed {
    my $len = shift;
    my %h;
    my $rest = $len;
    for my $k (0 .. $#pool) {
        my $i = ($len + $k) % @pool;
        next unless $pool_size[$i] == $rest || $pool_size[$i] <= $rest - 2;
        $h{ $pool[$i][0] } = $pool[$i][1];
        $rest -= $pool_size[$i];
    }
    if ($rest) {
        my ($f, $n) = string_for($rest, $len * 7, \%h);
        $h{$f} = substr $PATTERN, $len % 89, $n;
    }
    return \%h;
}

my %seen;
my @lengths = grep { !$seen{$_}++ } 2 .. 3000, map { my $p = 2**$_; map { $p + $_ } -3 .. 3 } 5 .. 20;

for my $len (@lengths) {
    for my $shape (['one string', \&one_string], ['mixed', \&mixed]) {
        my ($what, $make) = @$shape;
        my $h = $make->($len);
        my $ref_len = length encode_ref($h);
        die "test bug: the $what record for $len bytes encodes to $ref_len bytes\n" unless $ref_len == $len;
        add_case("$len bytes, $what", new_rec($h), $len);
    }
}

# ---- unknown fields (6 and 31 are free in the schema) ----------------------------

my @unknown = (
    ['field 6 varint',                 '3005'],
    ['field 6 varint, 10 bytes',       '30ffffffffffffffffff01'],
    ['field 6 fixed64',                '310102030405060708'],
    ['field 6 length-delimited',       '3203616263'],
    ['field 6 empty length-delimited', '3200'],
    ['field 6 group',                  '33' . '0801' . '3a0178' . '34'],
    ['field 6 empty group',            '3334'],
    ['field 6 fixed32',                '3501020304'],
    ['field 31 varint',                'f80107'],
    ['field 31 fixed64',               'f9010807060504030201'],
    ['field 31 length-delimited',      'fa01027879'],
    ['field 31 group',                 'fb01' . '1005' . 'fc01'],
    ['field 31 fixed32',               'fd01ffffffff'],
);
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
    my $payload = substr $PATTERN, 5, $size;
    my $bytes = unhex('3a012f') . "\x32" . varint($size) . $payload . unhex('f80107');
    add_case("parsed, field 6 with $size bytes between known fields", $PKG->new($bytes), length $bytes);
    my $big = unhex('fa01') . varint($size) . $payload;
    add_case("parsed, field 31 with $size bytes alone", $PKG->new($big), length $big);
}
for my $len (100, 1000, 4099, 65533, 1048579) {
    my $bytes = unhex('3005' . 'fd01ffffffff') . encode_ref(mixed($len)) . unhex('f9010807060504030201' . '3200');
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

my $in = File::Spec->catfile($dir, 'records.bin');
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
