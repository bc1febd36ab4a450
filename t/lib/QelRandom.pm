package QelRandom;

# The records that the peer tests (t/80 to t/82) feed to the module, to protoc
# and to the pure-Perl library: a fixed hand-picked set, seeded random records
# in the hash form, and unknown fields of numbers 6 and 31 put into packed
# bytes at the wire level. The random numbers come from a splitmix64 generator
# written with exact 64-bit integer steps, so a seed gives the same records on
# every perl with 64-bit integers.

use strict;
use warnings;
no warnings 'portable';    # the 64-bit constants below

use Config ();
use Exporter qw(import);
use QelTest qw(field_table address_fields);

our @EXPORT_OK = qw(handpicked_records splitmix64);

BEGIN {
    die "QelRandom needs a perl with 64-bit integers\n" unless $Config::Config{ivsize} >= 8;
}

use constant {
    GOLDEN => 0x9E3779B97F4A7C15,
    MUL1   => 0xBF58476D1CE4E5B9,
    MUL2   => 0x94D049BB133111EB,
    TOP    => 0x8000000000000000,
};

my @FIELDS = field_table();
my @ADDR   = address_fields();

# ---- the generator -----------------------------------------------------------
# Under `use integer` perl adds and multiplies 64-bit integers modulo 2**64
# (as two's complement), which is what splitmix64 needs; its right shifts are
# arithmetic there, so each one is masked down to the bits a logical shift
# keeps. Outside, `& ~0` reads the bits as an unsigned number again.

# The splitmix64 output function of a state.
sub _mix {
    my $z = shift;
    {
        use integer;
        $z = ($z ^ (($z >> 30) & 0x3FFFFFFFF)) * MUL1;
        $z = ($z ^ (($z >> 27) & 0x1FFFFFFFFF)) * MUL2;
        $z ^= ($z >> 31) & 0x1FFFFFFFF;
    }
    return $z & ~0;
}

# splitmix64($n): splitmix64's output for the state $n, that is the mix of
# $n + GOLDEN: a well-mixed unsigned 64-bit value from any 64-bit value.
sub splitmix64 {
    my $z = shift;
    { use integer; $z += GOLDEN; }
    return _mix($z);
}

# QelRandom->new($seed [, $stream]): a generator for the unsigned 64-bit $seed
# (a decimal string or integer); each $stream (default 0) of a seed is a
# sequence of its own, so record $i of a run can be made again without the
# records before it: QelRandom->new($seed, $i)->record.
sub new {
    my ($class, $seed, $stream) = @_;
    $stream = 0 unless defined $stream;
    for ($seed, $stream) {
        die "QelRandom: not an unsigned 64-bit decimal number: '$_'\n"
            unless defined && /^[0-9]{1,20}\z/ && (length($_) < 20 || $_ le '18446744073709551615');
    }
    my $state = 0 + $seed;
    if ($stream) {
        my $s = _mix($state);
        { use integer; $s += $stream; }
        $state = _mix($s);
    }
    return bless { state => $state, word => 0, left => 0 }, $class;
}

# next64(): the next unsigned 64-bit number.
sub next64 {
    my $g = shift;
    { use integer; $g->{state} += GOLDEN; }
    return _mix($g->{state});
}

# below($n): a whole number from 0 to $n - 1 ($n from 1 to 2**32): the rest
# of a division of 32 bits, two from each 64-bit number. The bias of the rest
# is below $n / 2**32, nothing for the choices made here.
sub below {
    my ($g, $n) = @_;
    unless ($g->{left}) {
        $g->{word} = $g->next64;
        $g->{left} = 2;
    }
    $g->{left}--;
    my $r = $g->{word} & 0xFFFFFFFF;
    $g->{word} >>= 32;
    return $r % $n;
}

# pick(@values): one of the values.
sub pick { my $g = shift; $_[ $g->below(scalar @_) ] }

# bytes($n): $n arbitrary bytes.
sub bytes {
    my ($g, $n) = @_;
    my $out = '';
    $out .= pack 'Q<', $g->next64 while length $out < $n;
    return substr $out, 0, $n;
}

# ---- values of the hash form -----------------------------------------------------

# Pieces of string contents: bytes that the text form escapes, bytes that
# are not UTF-8 (lone continuation bytes, cut sequences, surrogates, overlong
# forms, beyond U+10FFFF) and well-formed UTF-8.
my @ESCAPED = ('"', '\\', "\n", "\r", "\t", "'", "\0", '?', "\x7f", "\x1b", "\x01", 'a', ' ');
my @INVALID = ("\xff", "\xfe", "\x80", "\xbf", "\xc3", "\xe2\x82", "\xed\xa0\x80", "\xc0\x80",
               "\xc1\xbf", "\xf4\x90\x80\x80", "\xf0\x9f", "\xf8\x88\x80\x80\x80", 'z');
my @UTF8    = ("\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xc3\x9f", "\xe4\xb8\xad", "\xd0\x96",
               "\xef\xbb\xbf", "\xc2\x80", "\xf4\x8f\xbf\xbf", 'b', '/');

# string(): a byte string of a skewed length: mostly short (12% empty, 70%
# 1-24 bytes), 15% up to 300, 2.9% up to 2000 and 0.1% from 4001 bytes to
# 70 KiB.
sub string {
    my $g = shift;
    my $r = $g->below(10000);
    my $len = $r < 1200 ? 0
            : $r < 8200 ? 1 + $g->below(24)
            : $r < 9700 ? 25 + $g->below(276)
            : $r < 9990 ? 301 + $g->below(1700)
            :             4001 + $g->below(70 * 1024 - 4000);
    return $g->string_of_length($len);
}

# Each byte value mapped to a printable ASCII character, and to a piece of
# each pool, so a string of n pieces takes n/8 random numbers.
my @PRINTABLE = map { chr(32 + $_ % 95) } 0 .. 255;
my @POOLS = map { my $pool = $_; [ map { $pool->[ $_ % @$pool ] } 0 .. 255 ] } \@ESCAPED, \@UTF8, \@INVALID;

# string_of_length($n): $n bytes of one of five kinds: printable ASCII,
# arbitrary bytes (NUL and above 127 included), or pieces of one pool: bytes
# the text form escapes, UTF-8 text, text with bytes that are not UTF-8 (the
# last piece may be cut short). Beyond 256 bytes a random piece of 64 to 256 bytes is
# repeated and then a few places are overwritten, which keeps long strings
# cheap to make.
sub string_of_length {
    my ($g, $n) = @_;
    return '' unless $n;
    my $piece_len = $n > 256 ? 64 + $g->below(193) : $n;
    my $kind = $g->below(5);
    my $s = $kind == 0 ? join('', @PRINTABLE[ unpack 'C*', $g->bytes($piece_len) ])
          : $kind == 1 ? $g->bytes($piece_len)
          :              join('', @{ $POOLS[$kind - 2] }[ unpack 'C*', $g->bytes($piece_len) ]);
    if ($n > length $s) {
        $s = substr $s x (int($n / length $s) + 1), 0, $n;
        for (1 .. 1 + $g->below(8)) {
            my $bit = $g->pick(@ESCAPED, @INVALID, @UTF8);
            my $at = $g->below($n);
            substr($s, $at, length $bit) = $bit if $at + length $bit <= $n;
        }
    }
    return substr $s, 0, $n;
}

# uint32(): an unsigned 32-bit value: the extremes, the edges of the varint
# lengths, small numbers and numbers of every magnitude.
sub uint32 {
    my $g = shift;
    my $r = $g->below(10);
    return $r == 0 ? 0
         : $r == 1 ? 4294967295
         : $r == 2 ? $g->pick(1, 127, 128, 16383, 16384, 2097151, 2097152, 268435455, 268435456,
                              2147483647, 2147483648, 4294967294)
         : $r < 6  ? $g->below(1000)
         :           ($g->next64 >> $g->below(64)) & 0xFFFFFFFF;
}

# uint64(): an unsigned 64-bit value as a decimal string, as the hash form has
# it: the extremes, edges and numbers of every magnitude.
sub uint64 {
    my $g = shift;
    my $r = $g->below(10);
    my $v = $r == 0 ? 0
          : $r == 1 ? 18446744073709551615
          : $r == 2 ? $g->pick(1, 127, 128, 4294967295, 4294967296, 9223372036854775807,
                               9223372036854775808, 18446744073709551614, 72057594037927936)
          : $r == 3 ? $g->below(1000)
          :           $g->next64 >> $g->below(64);
    return "$v";
}

# address(): an address hash: 15% empty, else each of ip0..rtdom_id present
# with even odds (so sometimes empty too).
sub address {
    my $g = shift;
    return {} if $g->below(100) < 15;
    my %a;
    for my $name (@ADDR) {
        $a{$name} = $g->uint32 if $g->below(2);
    }
    return \%a;
}

# list(): one to four elements, now and then up to 30; a quarter of them "".
sub list {
    my $g = shift;
    my $n = $g->below(10) ? 1 + $g->below(4) : 1 + $g->below(30);
    return [ map { $g->below(4) ? $g->string : '' } 1 .. $n ];
}

# record(): a record in the hash form (canonical: exactly what to_hashref
# gives back for it): 2% empty, 5% with every field, else each field present
# with one chance of 5, 20, 50, 80 or 95 in a hundred.
sub record {
    my $g = shift;
    my $r = $g->below(100);
    return {} if $r < 2;
    my $percent = $r < 7 ? 100 : $g->pick(5, 20, 50, 80, 95);
    my %h;
    for my $f (@FIELDS) {
        my ($name, undef, $kind) = @$f;
        next unless $percent == 100 || $g->below(100) < $percent;
        $h{$name} = $kind eq 'string'  ? $g->string
                  : $kind eq 'uint32'  ? $g->uint32
                  : $kind eq 'uint64'  ? $g->uint64
                  : $kind eq 'bool'    ? $g->below(2)
                  : $kind eq 'address' ? $g->address
                  :                      $g->list;
    }
    return \%h;
}

# ---- unknown fields ------------------------------------------------------------

# uvarint($n): the base-128 encoding of an unsigned 64-bit integer.
sub uvarint {
    my $n = shift;
    my $out = '';
    while ($n >= 0x80) {
        $out .= chr(($n & 0x7f) | 0x80);
        $n >>= 7;
    }
    return $out . chr $n;
}

# unknown_field($number [, $depth]): one field of number $number of a random
# wire type, in canonical form (so a parse and a new encoding give the same
# bytes back): a varint (10 bytes long for a quarter of them), fixed64,
# length-delimited, a group of up to three fields of numbers 1 to 40 (nested
# groups at most two deep) or fixed32. Returns the bytes and whether a varint
# of 10 bytes is in them.
sub unknown_field {
    my ($g, $num, $depth) = @_;
    $depth ||= 0;
    my $wt = $g->pick(0, 1, 2, 5, ($depth < 2 ? 3 : ()));
    my $tag = uvarint(($num << 3) | $wt);
    if ($wt == 0) {
        my $r = $g->below(4);
        my $v = $r == 0 ? $g->below(300) : $r == 1 ? ($g->next64 | TOP) : $g->next64 >> $g->below(64);
        return ($tag . uvarint($v), $v >= TOP);
    }
    return ($tag . $g->bytes(8)) if $wt == 1;
    return ($tag . $g->bytes(4)) if $wt == 5;
    if ($wt == 2) {
        # Now and then content that reads as a nested message.
        my $body = $g->below(3) ? $g->bytes($g->below(12)) : uvarint((1 + $g->below(40)) << 3) . uvarint($g->below(200));
        return ($tag . uvarint(length $body) . $body);
    }
    my ($body, $long) = ('', 0);
    for (1 .. $g->below(4)) {
        my ($bytes, $l) = $g->unknown_field(1 + $g->below(40), $depth + 1);
        $body .= $bytes;
        $long ||= $l;
    }
    return ($tag . $body . uvarint(($num << 3) | 4), $long);
}

sub _read_varint {
    my ($bytes, $pos) = @_;
    my ($v, $shift) = (0, 0);
    while (1) {
        die "QelRandom: a varint runs past the end\n" if $$pos >= length $$bytes;
        my $b = ord substr $$bytes, $$pos++, 1;
        $v |= ($b & 0x7f) << $shift;
        return $v unless $b & 0x80;
        $shift += 7;
    }
}

# The top-level fields of canonical packed bytes (varint and length-delimited
# only) as [number, bytes of the whole field, offset of the payload].
sub _split_fields {
    my $bytes = shift;
    my ($pos, @out) = (0);
    while ($pos < length $bytes) {
        my $start = $pos;
        my $key = _read_varint(\$bytes, \$pos);
        if (($key & 7) == 0) {
            _read_varint(\$bytes, \$pos);
            push @out, [$key >> 3, substr($bytes, $start, $pos - $start), undef];
        }
        elsif (($key & 7) == 2) {
            my $len = _read_varint(\$bytes, \$pos);
            my $payload = $pos;
            $pos += $len;
            push @out, [$key >> 3, substr($bytes, $start, $pos - $start), $payload - $start];
        }
        else {
            die "QelRandom: wire type " . ($key & 7) . " in packed bytes\n";
        }
    }
    return @out;
}

# Puts the unknown fields @$unknown between the fields @$fields (byte strings)
# at random places, keeping the order of each list.
sub _interleave {
    my ($g, $fields, $unknown) = @_;
    my @before = (0) x (@$fields + 1);    # how many unknown fields go before field $i
    $before[ $g->below(@$fields + 1) ]++ for @$unknown;
    my @left = @$unknown;
    my $out = '';
    for my $i (0 .. @$fields) {
        $out .= join '', splice @left, 0, $before[$i];
        $out .= $fields->[$i] if $i < @$fields;
    }
    return $out;
}

# with_unknowns($packed): $packed (the canonical bytes of a record) with
# unknown fields of numbers 6 and 31 put in for about a third of the calls:
# one to four at random places between the top-level fields and, when an
# address is there, sometimes one or two inside the address (whose length is
# written anew). Returns a hash:
#   wire       the bytes with the unknown fields
#   repacked   what pack of the parsed bytes must give: the known fields as
#              before, each address with its unknown fields after its own
#              fields, then the top-level unknown fields in the order met
#   unknown    how many unknown fields were put in (0: wire eq $packed)
#   long       whether a varint of 10 bytes is among them
#   types      how many of them are of each wire type: [varint, fixed64,
#              length-delimited, group, -, fixed32]
sub with_unknowns {
    my ($g, $packed) = @_;
    my %out = (wire => $packed, repacked => $packed, unknown => 0, long => 0, types => [(0) x 6]);
    return \%out if $g->below(3);
    my @fields = _split_fields($packed);
    my (@wire, @repacked, @top);
    for my $f (@fields) {
        my ($num, $whole, $payload) = @$f;
        if (($num == 4 || $num == 5) && $g->below(2)) {
            my $sub = substr $whole, $payload;
            my @inner;
            for (1 .. 1 + $g->below(2)) {
                my ($bytes, $long) = $g->unknown_field($g->pick(6, 31));
                push @inner, $bytes;
                $out{long} ||= $long;
                $out{types}[ ord($bytes) & 7 ]++;
            }
            my @sub_fields = map { $_->[1] } _split_fields($sub);
            my $new_sub = $g->_interleave(\@sub_fields, \@inner);
            my $tag = substr $whole, 0, 1;    # 0x22 or 0x2a
            push @wire, $tag . uvarint(length $new_sub) . $new_sub;
            my $kept = $sub . join '', @inner;
            push @repacked, $tag . uvarint(length $kept) . $kept;
            $out{unknown} += @inner;
        }
        else {
            push @wire, $whole;
            push @repacked, $whole;
        }
    }
    for (1 .. 1 + $g->below(4)) {
        my ($bytes, $long) = $g->unknown_field($g->pick(6, 31));
        push @top, $bytes;
        $out{long} ||= $long;
        $out{types}[ ord($bytes) & 7 ]++;
    }
    $out{unknown} += @top;
    $out{wire} = $g->_interleave(\@wire, \@top);
    $out{repacked} = join '', @repacked, @top;
    return \%out;
}

# ---- the hand-picked records -------------------------------------------------------

# handpicked_records(): [name, hash] of the fixed records of the peer tests,
# each in the canonical hash form: a full record (every field set), empty
# strings, NUL bytes, every byte value, bytes above 127, invalid UTF-8, the
# extremes of the integers, flags, addresses present but empty or partly set,
# lists with empty elements, and the empty record.
sub handpicked_records {
    my @all = map { chr } 0 .. 255;
    my %full;
    my $i = 0;
    for my $f (@FIELDS) {
        my ($name, $num, $kind) = @$f;
        ++$i;
        $full{$name} = $kind eq 'string'  ? "$name value $num"
                     : $kind eq 'uint32'  ? 1000 * $num + $i
                     : $kind eq 'uint64'  ? "1234567890123456$num"
                     : $kind eq 'bool'    ? $num % 2
                     : $kind eq 'address' ? { ip0 => $num, ip1 => 0, ip2 => 4294967295, ip3 => 3405803821, rtdom_id => $i }
                     :                      ["$name first", '', "$name \"third\""];
    }
    my @strings = grep { $_->[2] eq 'string' } @FIELDS;
    my %empty_strings = map { $_->[0] => '' } @strings;
    my %bools;
    $bools{$_->[0]} = $_->[1] % 2 for grep { $_->[2] eq 'bool' } @FIELDS;
    my %bools_flipped = map { $_ => 1 - $bools{$_} } keys %bools;
    return (
        ['full record (all ' . scalar(@FIELDS) . ' fields)', \%full],
        ['every string field empty, lists of one empty element',
            { %empty_strings, anomaly_categories => [''], anomalies => [''] }],
        ['NUL bytes', { bot_name => "\0", profile_name => "a\0b", host => "\0\0\0", anomalies => ["\0", "x\0"] }],
        ['every byte value 0 to 255', { http_request => join('', @all), request_uri => join('', reverse @all) }],
        ['bytes above 127 (UTF-8 and not)',
            { bot_name => "caf\xc3\xa9", host => "\xe2\x98\xba", reason => "\x80\xff", anomaly_categories => ["\xf0\x9f\x98\x80"] }],
        ['invalid UTF-8',
            { bot_name => "\xff\xfe", profile_name => "\xc3", virtual_server_name => "\xed\xa0\x80",
              request_uri => "\xc0\x80", host => "ok\xf4\x90\x80\x80", anomalies => ["\x80", "\xe2\x82"] }],
        ['bytes the text form escapes',
            { bot_name => qq{"quoted" 'single' back\\slash}, host => "\t\n\r\x0b\x0c\x07\x08\x1b\x7f?" }],
        ['uint32 and uint64 at zero',
            { src_port => 0, dest_port => 0, request_time => 0, device_id => '0', session_id => '0' }],
        ['uint32 and uint64 at their largest',
            { src_port => 4294967295, dest_port => 4294967295, slot_number => 4294967295,
              device_id => '18446744073709551615', session_id => '18446744073709551615',
              support_id => '18446744073709551615', previous_support_id => '18446744073709551615' }],
        ['integers at the edges of their varint lengths',
            { src_port => 127, dest_port => 128, request_time => 2147483648, previous_request_time => 268435456,
              device_id => '9223372036854775807', session_id => '9223372036854775808', support_id => '4294967296',
              previous_support_id => '1' }],
        ['flags (odd field numbers true)', \%bools],
        ['flags (even field numbers true)', \%bools_flipped],
        ['addresses present but empty', { client_ip => {}, dest_ip => {} }],
        ['addresses partly set',
            { client_ip => { ip3 => 0 }, dest_ip => { ip0 => 4294967295, rtdom_id => 7 } }],
        ['lists with empty elements',
            { anomaly_categories => ['', 'Automation Tool', ''], anomalies => ['', '', ''] }],
        ['a long string (70 KiB)', { http_request => join('', map { chr(($_ * 7) % 256) } 1 .. 70 * 1024) }],
        ['the empty record', {}],
    );
}

1;
