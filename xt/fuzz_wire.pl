#!/usr/bin/perl
# Wire-input fuzzer of quillon_event_log::QuillonEventLog: parses seeded,
# mutated encodings with new and unpack and checks that everything the parsed
# record then reports (hash form, getters, pack, length, copies) agrees; then
# decodes each input with quillon_event_log::Codec and checks the result
# against the record class's reading and the codec's documented rules.
# Run from the top of the built tree: perl -Mblib xt/fuzz_wire.pl --seed 1 --count 10000

use strict;
use warnings;
no warnings qw(portable recursion);
use Cwd ();
my $HERE;
BEGIN { ($HERE = Cwd::abs_path(__FILE__)) =~ s{/[^/]*\z}{} }
use lib "$HERE/lib", "$HERE/../t/lib";
use QelTest qw($CLASS);
use QelFuzz qw(seed_rng r64 rint chance pick rbytes canon hexdump parse_options finish_line
               record_problems FIELDS ADDR_FIELDS);
use QelCodec qw(wire_faults unknown_runs field_items class_to_codec_form ADDRESS_LEVEL
                ADDRESS_NAME_OF);
use quillon_event_log::QuillonEventLog;

my $USAGE = <<'END';
usage: perl -Mblib xt/fuzz_wire.pl [options]
  --seed N          seed of the inputs (default 1); different seeds give
                    independent inputs, so runs can be split by seed
  --count N         number of inputs (default 1000)
  --first N         number of the first input (default 0): --first K --count 1
                    makes input K of the seed again, alone
  --max-bytes N     no input is longer than N bytes (default 4194304)
  --max-problems N  stop after N inputs with problems (default 10)
  --trace           print each input's number before it is tried (to find the
                    input of a crash)
  --save DIR        write each input with problems to DIR as a .bin file
  --quiet           print only problems and the summary line
  --no-codec        do not decode the inputs with quillon_event_log::Codec
  --codec-only      check only the codec's outcomes (against the record
                    class's parse), not the record class's own consistency:
                    several times faster, for long runs
Exit status 0 when every input was handled consistently, 1 otherwise.
Standard error carries the protocol-buffer runtime's complaints about strings
that are not UTF-8; they are expected.
END

my $opt = parse_options({ codec => 1 }, $USAGE, 'save=s', 'codec!', 'codec-only');
die "--codec-only and --no-codec exclude each other\n" if $opt->{'codec-only'} && !$opt->{codec};
$| = 1;
if ($opt->{codec}) { require quillon_event_log::Codec }

my @FIELDS = FIELDS();
my @ADDR = map { $_->{name} } ADDR_FIELDS();
my %NUM_OF = map { $_->[0] => $_->[1] } QelTest::field_table();
my @KNOWN_NUMS = sort { $a <=> $b } values %NUM_OF;
my @ADDR_NUMS = map { $NUM_OF{$_} } grep { $NUM_OF{$_} } qw(client_ip dest_ip);
my %WT_OF = map { my $k = $_->{kind}; ($NUM_OF{ $_->{name} } => ($k eq 'string' || $k eq 'list' || $k eq 'address') ? 2 : 0) } @FIELDS;
my $MAX_NUM = (1 << 29) - 1;

{
    my @names = $CLASS->fields;
    my $want = join ',', map { $_->{name} } @FIELDS;
    die "fields() is (@names), the schema has ($want)\n" unless join(',', @names) eq $want;
}

# ---- wire pieces -------------------------------------------------------------

# vint($n): the shortest varint of an unsigned 64-bit value.
sub vint {
    my $n = $_[0] >> 0;
    my $o = '';
    while ($n >= 0x80) { $o .= chr(($n & 0x7f) | 0x80); $n >>= 7 }
    return $o . chr($n);
}

# vpad($n, $len): $n as a varint of exactly $len bytes (over-long encodings
# pad with continuation bytes; $len of 11 or more is beyond the format).
sub vpad {
    my ($n, $len) = @_;
    $n >>= 0;
    my $o = '';
    for my $i (1 .. $len) {
        my $b = $n & 0x7f;
        $n >>= 7;
        $o .= chr($i < $len ? $b | 0x80 : $b);
    }
    return $o;
}

sub tag { vint(($_[0] << 3) | $_[1]) }

sub read_varint {
    my ($b, $p) = @_;
    return if $p >= length $b;
    my $c = ord substr $b, $p, 1;
    return ($c, $p + 1) if $c < 0x80;
    my ($v, $shift) = (0, 0);
    while ($p < length $b) {
        my $c = ord substr $b, $p++, 1;
        $v |= ($c & 0x7f) << $shift if $shift < 64;
        return ($v, $p) unless $c & 0x80;
        $shift += 7;
        return if $shift >= 70;
    }
    return;
}

# skip_value($bytes, $pos, $num, $wt): the position after the value of a field
# whose tag ended at $pos; undef when the bytes do not hold a whole value.
sub skip_value {
    my ($b, $p, $num, $wt, $depth) = @_;
    if ($wt == 0) { my @v = read_varint($b, $p) or return undef; return $v[1] }
    return $p + 8 if $wt == 1;
    return $p + 4 if $wt == 5;
    if ($wt == 2) {
        my ($len, $q) = read_varint($b, $p) or return undef;
        return $q + $len;
    }
    if ($wt == 3) {
        return undef if ($depth || 0) > 200;
        while ($p < length $b) {
            my ($t, $q) = read_varint($b, $p) or return undef;
            my ($n, $w) = ($t >> 3, $t & 7);
            return ($n == $num ? $q : undef) if $w == 4;
            $p = skip_value($b, $q, $n, $w, ($depth || 0) + 1);
            return undef unless defined $p && $p <= length $b;
        }
    }
    return undef;
}

# split_fields($bytes): the top-level fields as hashes {start, end, num, wt,
# lenpos, payload}, or undef when the bytes are not a sequence of whole fields.
sub split_fields {
    my $b = shift;
    return undef if length $b > 65536;    # big inputs get byte-level changes only
    my @f;
    my $p = 0;
    while ($p < length $b) {
        my ($t, $q) = read_varint($b, $p) or return undef;
        my %f = (start => $p, num => $t >> 3, wt => $t & 7);
        return undef if $f{num} == 0;
        if ($f{wt} == 2) {
            my ($len, $r) = read_varint($b, $q) or return undef;
            @f{qw(lenpos payload)} = ($q, $r);
        }
        my $end = skip_value($b, $q, $f{num}, $f{wt});
        return undef unless defined $end && $end <= length $b;
        $f{end} = $end;
        push @f, \%f;
        $p = $end;
    }
    return \@f;
}

sub piece { substr $_[0], $_[1]{start}, $_[1]{end} - $_[1]{start} }

# ---- random values -----------------------------------------------------------

my @WORDS = ('curl', 'python-requests', 'block', 'captcha', 'HTTP/1.1', 'GET', 'POST', '/login',
             'Malicious Bot', 'NZ', 'www.example.test', 'x' x 130, "\x{e2}\x{98}\x{ba}");

# printable($n): $n printable ASCII bytes (hex digits and letters).
sub printable { my $n = shift; my $s = unpack 'H*', rbytes(($n + 1) >> 1); $s =~ tr/0-9/g-p/ if chance(2); substr $s, 0, $n }

# A string value; about one in ten is not valid UTF-8 (the runtime complains
# about those on standard error each time it parses or writes them).
sub rstring {
    my $k = rint(24);
    return ''                                  if $k <= 1;
    return pick(@WORDS)                        if $k <= 8;
    return rbytes(rint(24))                    if $k == 9;    # any bytes
    return printable(rint(40))                 if $k <= 14;
    return join '', map { my $c = chr(0x80 + rint(0x3000)); utf8::encode($c); $c } 1 .. rint(8) if $k <= 16;
    if ($k == 17) { my $s = "a\0b" . rbytes(rint(4)); $s &= "\x7f" x length $s; return $s }
    if ($k <= 19) { my $s = rbytes(100 + rint(300)); $s &= "\x7f" x length $s; return $s }    # 7-bit bytes
    return "\xff\xfe\xc0\x80"                  if $k == 20;
    return 'y' x (1000 + rint(4000));
}

sub ru32 {
    my $k = rint(6);
    return pick(0, 1, 127, 128, 16383, 16384, 2147483647, 2147483648, 4294967295) if $k <= 1;
    return rint(65536) if $k == 2;
    return (r64() >> 32);
}

sub ru64 {
    my $k = rint(5);
    return pick('0', '1', '127', '128', '4294967295', '4294967296', '9223372036854775807',
                '9223372036854775808', '18446744073709551615') if $k <= 1;
    return '' . rint(100000) if $k == 2;
    return '' . (r64() >> rint(64));
}

sub raddress {
    my %a;
    for my $f (@ADDR) { $a{$f} = ru32() if chance(2) }
    return \%a;
}

# random_hash(): a record in the hash form with a random choice of fields of
# every family.
sub random_hash {
    my @order = @FIELDS;
    my $n = pick(0, 1, 2, 3, 5, 8, 12, 20, 40, scalar @FIELDS);
    my %h;
    for my $i (0 .. $n - 1) {
        my $j = $i + rint(@order - $i);
        @order[$i, $j] = @order[$j, $i];
        my ($name, $k) = @{ $order[$i] }{qw(name kind)};
        $h{$name} = $k eq 'string'  ? rstring()
                  : $k eq 'uint32'  ? ru32()
                  : $k eq 'uint64'  ? ru64()
                  : $k eq 'bool'    ? rint(2)
                  : $k eq 'address' ? raddress()
                  :                   [ map { rstring() } 1 .. pick(1, 1, 2, 3, 5, 20) ];
    }
    return \%h;
}

sub encode { $CLASS->new($_[0])->pack }

# A field number: one of the record's, a free one, a large one or the largest.
sub rnum {
    my $k = rint(10);
    return pick(@KNOWN_NUMS)           if $k <= 3;
    return pick(6, 31, 62, 63, 64)     if $k <= 5;
    return pick(@ADDR_NUMS)            if $k == 6;
    return 62 + rint(2000)             if $k == 7;
    return pick($MAX_NUM, 19000, 19999, 1 << 28);
}

# unknown_field($depth): one field of a random number and wire type, every
# wire type included (groups nested and unbalanced, and the invalid 6 and 7).
sub unknown_field {
    my $depth = shift || 0;
    my $num = rnum();
    my $wt = rint(8);
    my $t = tag($num, $wt);
    return $t . (chance(8) ? vpad(r64(), pick(10, 11)) : vint(r64() >> rint(64))) if $wt == 0;
    return $t . rbytes(chance(10) ? rint(8) : 8) if $wt == 1;
    return $t . rbytes(chance(10) ? rint(4) : 4) if $wt == 5;
    if ($wt == 2) {
        my $payload = chance(2) || $depth > 3 ? rbytes(rint(20)) : join '', map { unknown_field($depth + 1) } 1 .. rint(4);
        my $len = chance(10) ? length($payload) + rint(5) - 2 : length $payload;
        $len = 0 if $len < 0;
        return $t . vint($len) . $payload;
    }
    if ($wt == 3) {
        my $inner = $depth > 3 ? '' : join '', map { unknown_field($depth + 1) } 1 .. rint(3);
        my $k = rint(10);
        return $t . $inner . tag($num, 4)               if $k <= 6;    # balanced
        return $t . $inner                              if $k == 7;    # never closed
        return $t . $inner . tag(pick(@KNOWN_NUMS, 6), 4) if $k == 8;  # closed by another number
        return $t . $inner . tag($num, 4) . tag($num, 4);              # closed twice
    }
    return $t if $wt == 4;                               # an end without a start
    return $t . rbytes(rint(6));                         # wire types 6 and 7
}

# nested_groups($depth, $balanced): groups inside groups, $depth deep.
sub nested_groups {
    my ($depth, $balanced) = @_;
    my @nums = map { chance(3) ? pick(6, 31, 1000) : rnum() } 1 .. $depth;
    my $open = join '', map { tag($_, 3) } @nums;
    my $mid = chance(2) ? unknown_field(4) : '';
    my $close = join '', map { tag($_, 4) } reverse @nums;
    return $open . $mid . $close if $balanced;
    return $open . $mid . substr($close, 0, rint(length($close) + 1)) if chance(2);
    return $open . $mid . $close . tag(pick(@nums), 4);
}

# Garbage fit for the inside of an address: its own fields, unknown fields,
# groups nested past the parser's depth limit, bad varints, random bytes.
sub address_garbage {
    my $out = '';
    for (1 .. 1 + rint(4)) {
        my $k = rint(10);
        $out .= $k <= 1 ? tag(1 + rint(5), 0) . vint(r64() >> rint(64))
              : $k == 2 ? tag(1 + rint(5), pick(1, 2, 5)) . rbytes(rint(10))
              : $k <= 4 ? unknown_field()
              : $k == 5 ? nested_groups(pick(1, 2, 10, 50, 98, 99, 100, 101, 150), chance(4) ? 0 : 1)
              : $k == 6 ? tag(1 + rint(5), 0) . vpad(r64(), pick(10, 11))
              : $k == 7 ? pick("\x00", "\x02\x00", "\x80\x00", "\x03\x04", "\x04")
              : $k == 8 ? tag(pick(@ADDR_NUMS), 2) . vint(3) . "\x08\x01"    # an address inside the address
              :           rbytes(1 + rint(12));
    }
    return $out;
}

# Zero tags: the 0 byte, field number 0 with each wire type, over-long zeros.
sub zero_tag {
    return pick("\x00", "\x00\x00", "\x00\x01", "\x02\x00", "\x02\x03abc", "\x01" . ("\x00" x 8),
                "\x05\x00\x00\x00\x00", "\x03\x04", "\x03", "\x04", "\x06", "\x07",
                "\x80\x00", "\x80\x80\x00", "\x82\x00\x00", "\x80" x 9 . "\x00", "\x80" x 10 . "\x00",
                "\x00" x 16);
}

# A length prefix other than the true one.
sub bad_length {
    my $len = shift;
    my $k = rint(10);
    return vint($len + 1 + rint(10))                    if $k <= 2;
    return vint($len > 0 ? $len - 1 : 1)                if $k == 3;
    return "\xff\xff\xff\xff\x0f"                       if $k == 4;    # 0xFFFFFFFF
    return pick("\x80\x80\x80\x80\x08", "\xff\xff\xff\xff\x07",        # 2**31, 2**31-1
                "\x81\x80\x80\x80\x08")                 if $k == 5;    # 2**31+1
    return vint((1 << 32) + $len)                       if $k == 6;    # the true length plus 2**32
    return vint((1 << 63) + $len)                       if $k == 7;
    return ("\xff" x 9) . "\x01"                        if $k == 8;    # 2**64-1
    return vpad($len, pick(6, 10, 11));                                # over-long, true value
}

# ---- inputs ------------------------------------------------------------------

# A big input (a few in a thousand): a long string, a long list, many unknown
# fields, or one record many times over.
sub big_input {
    my $max = $opt->{'max-bytes'};
    my $size = 256 * 1024 + rint(4 * 1024 * 1024);
    $size = $max if $size > $max;
    my $k = rint(4);
    if ($k == 0) {
        my $s = substr(printable(4096) x (1 + ($size >> 12)), 0, $size);
        return encode({ pick(map { $_->{name} } grep { $_->{kind} eq 'string' } @FIELDS) => $s, src_port => 80 });
    }
    if ($k == 1) {
        # Many list elements, written directly: 1000 elements repeated.
        my $t = tag($NUM_OF{ pick('anomalies', 'anomaly_categories') }, 2);
        my $block = join '', map { my $e = printable(rint(12)); $t . vint(length $e) . $e } 1 .. 1000;
        return encode({ host => 'h' }) . $block x (1 + int($size / length $block));
    }
    if ($k == 2) {
        my $field = unknown_field();
        $field = "\x30\x01" if length $field == 0;    # field 6, a varint
        return $field x (1 + int($size / length $field));
    }
    my $one = encode(random_hash());
    return $one x (1 + int($size / length $one));
}

sub base_input {
    my $k = rint(100);
    return ''             if $k == 0;
    return "\0" x 16      if $k == 1;    # what pack gives for an empty record
    return encode({})     if $k == 2;
    return big_input()    if $k == 3 && chance(10);
    return encode(random_hash());
}

# Inserts $what at a field boundary (at a random byte when the input is not
# made of whole fields).
sub insert_at_boundary {
    my ($b, $what) = @_;
    my $f = split_fields($b);
    my $at = $f && @$f ? pick(0, map { $_->{end} } @$f) : rint(length($b) + 1);
    substr($b, $at, 0) = $what;
    return $b;
}

my @MUTATIONS = (
    truncate => sub { substr $_[0], 0, rint(length($_[0]) + 1) },
    bit_flips => sub {
        my $b = shift;
        return $b unless length $b;
        for (1 .. pick(1, 1, 1, 2, 3, 8)) {
            my $at = rint(length $b);
            vec($b, $at * 8 + rint(8), 1) ^= 1;
        }
        return $b;
    },
    insert_bytes => sub {
        my $b = shift;
        my $what = chance(2) ? rbytes(1 + rint(4)) : pick("\x00", "\x80", "\xff", "\x08", "\x0a", "\x0b", "\x0c", "\x22", "\x2a", "\x07");
        substr($b, rint(length($b) + 1), 0) = $what;
        return $b;
    },
    delete_bytes => sub {
        my $b = shift;
        substr($b, rint(length($b) + 1), 1 + rint(4)) = '' if length $b;
        return $b;
    },
    duplicate_field => sub {
        my $b = shift;
        my $f = split_fields($b) or return $b;
        return $b unless @$f;
        return insert_at_boundary($b, piece($b, pick(@$f)));
    },
    reorder_fields => sub {
        my $b = shift;
        my $f = split_fields($b) or return $b;
        my @p = map { piece($b, $_) } @$f;
        if (chance(2) && @p > 1) {
            my ($i, $j) = (rint(scalar @p), rint(scalar @p));
            @p[$i, $j] = @p[$j, $i];
        }
        else {
            for (my $i = $#p; $i > 0; $i--) { my $j = rint($i + 1); @p[$i, $j] = @p[$j, $i] }
        }
        return join '', @p;
    },
    drop_field => sub {
        my $b = shift;
        my $f = split_fields($b) or return $b;
        return $b unless @$f;
        my $x = pick(@$f);
        substr($b, $x->{start}, $x->{end} - $x->{start}) = '';
        return $b;
    },
    bad_length => sub {
        my $b = shift;
        my $f = split_fields($b) or return $b;
        my @ld = grep { $_->{wt} == 2 } @$f;
        return $b . tag(pick(1, 4, 5, 44, 6), 2) . bad_length(rint(5)) . rbytes(rint(5)) unless @ld;
        my $x = pick(@ld);
        my $len = $x->{end} - $x->{payload};
        substr($b, $x->{lenpos}, $x->{payload} - $x->{lenpos}) = bad_length($len);
        return $b;
    },
    unknown_fields => sub {
        my $b = shift;
        $b = insert_at_boundary($b, unknown_field()) for 1 .. pick(1, 1, 2, 5);
        return $b;
    },
    address_garbage => sub {
        my $b = shift;
        my $f = split_fields($b);
        my @addr = $f ? grep { my $n = $_->{num}; $_->{wt} == 2 && grep { $_ == $n } @ADDR_NUMS } @$f : ();
        if (@addr && chance(2)) {
            # Garbage inside an address that is there: replace, prepend or append.
            my $x = pick(@addr);
            my $old = substr $b, $x->{payload}, $x->{end} - $x->{payload};
            my $g = address_garbage();
            my $new = pick($g, $g . $old, $old . $g);
            substr($b, $x->{lenpos}, $x->{end} - $x->{lenpos}) = vint(length $new) . $new;
            return $b;
        }
        my $g = address_garbage();
        return insert_at_boundary($b, tag(pick(@ADDR_NUMS), 2) . vint(length $g) . $g);
    },
    splice_records => sub {
        my $b = shift;
        my $o = encode(random_hash());
        return $b . $o if chance(2);
        return substr($b, 0, rint(length($b) + 1)) . substr($o, rint(length($o) + 1));
    },
    long_varints => sub {
        my $b = shift;
        my $num = pick(grep { $WT_OF{$_} == 0 } @KNOWN_NUMS);
        my $k = rint(4);
        my $what = $k == 0 ? tag($num, 0) . vpad(r64(), pick(10, 11))                  # as a value
                 : $k == 1 ? vpad(($num << 3), pick(10, 11)) . vint(rint(1000))         # as a tag
                 : $k == 2 ? vpad((pick(1, 2, 53) << 3) | 2, pick(5, 10, 11)) . "\x02ab"
                 :           tag($num, 0) . ("\xff" x 9) . pick("\x01", "\x7f", "\xff\x01");
        return insert_at_boundary($b, $what);
    },
    zero_tags => sub { insert_at_boundary($_[0], zero_tag()) },
    wrong_wire_type => sub {
        my $b = shift;
        my $num = pick(@KNOWN_NUMS);
        my $wt = pick(grep { $_ != $WT_OF{$num} } 0, 1, 2, 5);
        my $v = $wt == 0 ? vint(rint(300)) : $wt == 1 ? rbytes(8) : $wt == 5 ? rbytes(4) : "\x03abc";
        return insert_at_boundary($b, tag($num, $wt) . $v);
    },
    nested_groups => sub {
        insert_at_boundary($_[0], nested_groups(pick(1, 3, 30, 99, 100, 101, 200), chance(3) ? 0 : 1));
    },
);
my @MUTATION_NAMES = @MUTATIONS[grep { !($_ & 1) } 0 .. $#MUTATIONS];
my @MUTATION_SUBS  = @MUTATIONS[grep { $_ & 1 } 0 .. $#MUTATIONS];

# make_input($index): the input of that number for the seed, and the names of
# the mutations applied.
sub make_input {
    my $index = shift;
    seed_rng($opt->{seed}, $index);
    my $b = base_input();
    my @done;
    my $rounds = pick(0, 0, 1, 1, 1, 2, 2, 3, 4);
    for (1 .. $rounds) {
        my $i = rint(scalar @MUTATION_SUBS);
        $b = $MUTATION_SUBS[$i]->($b);
        push @done, $MUTATION_NAMES[$i];
    }
    $b = substr $b, 0, $opt->{'max-bytes'} if length $b > $opt->{'max-bytes'};
    return ($b, @done);
}

# ---- checks ------------------------------------------------------------------

# A record that already holds fields, for unpack to replace.
my $DIRTY = $CLASS->new({ bot_name => 'dirty', client_ip => { ip0 => 1 }, anomalies => ['d'], device_id => '7' });

# check_input($bytes): parses the input every way and checks the results
# against each other. Returns the outcome of unpack and the problems found.
sub check_input {
    my $bytes = shift;
    my @p;
    my $r = $CLASS->new($bytes);
    my $f = $CLASS->new;
    my $ok = $f->unpack($bytes);
    push @p, 'unpack returned ' . (defined $ok ? "'$ok'" : 'undef') . ', not 1 or 0'
        unless defined $ok && ($ok eq '1' || $ok eq '0');

    $DIRTY->set_host('dirty');
    $DIRTY->add_anomaly_categories('dirty');
    my $ok_dirty = $DIRTY->unpack($bytes);
    push @p, "unpack into a record holding fields returned $ok_dirty, into a new one $ok"
        if $ok_dirty ne $ok;

    my $h = $f->to_hashref;
    my $hc = canon($h);
    my $packed = $f->pack;
    my $len = $f->length;
    push @p, 'new($bytes) and unpack($bytes) give different hash forms' if canon($r->to_hashref) ne $hc;
    push @p, 'new($bytes) and unpack($bytes) give different pack results' if $r->pack ne $packed;
    push @p, 'unpack into a record holding fields gives a different hash form' if canon($DIRTY->to_hashref) ne $hc;
    push @p, 'unpack into a record holding fields gives a different pack result' if $DIRTY->pack ne $packed;
    push @p, 'unpack into a record holding fields gives a different length' if $DIRTY->length != $len;

    push @p, record_problems($f, $h);

    # length and pack
    if (!defined $packed) {
        push @p, 'pack returned undef';
        $packed = '';
    }
    elsif (utf8::is_utf8($packed)) {
        push @p, 'pack returned a string with the UTF-8 flag';
    }
    if ($len =~ /\A[1-9][0-9]*\z/) {
        push @p, "length is $len but pack gives " . length($packed) . ' bytes' if $len != length $packed;
    }
    elsif ($len eq '0') {
        push @p, 'length is 0 but pack is not 16 zero bytes' if $packed ne "\0" x 16;
        push @p, 'length is 0 but to_hashref is not empty' if $hc ne '{}';
    }
    else {
        push @p, "length is '$len', not a count of bytes";
    }

    # text forms
    my $text = $f->debug_string;
    my $short = $f->short_debug_string;
    push @p, 'debug_string is empty for a record of length ' . $len if $text eq '' && $len != 0;
    push @p, 'debug_string is not empty for a record of length 0' if $text ne '' && $len == 0;
    push @p, 'debug_string does not end in a newline' if $text ne '' && substr($text, -1) ne "\n";
    push @p, 'short_debug_string is empty while debug_string is not' if ($short eq '') != ($text eq '');
    push @p, 'short_debug_string holds a newline' if index($short, "\n") >= 0;

    # The hash form gives back an equal record, whatever the parse left.
    my $from_hash = $CLASS->new($h);
    push @p, 'new(to_hashref)->to_hashref differs from to_hashref' if canon($from_hash->to_hashref) ne $hc;

    # A copy is the same record; a merge into an empty record too.
    my $copy = $CLASS->new;
    $copy->copy_from($f);
    push @p, 'copy_from gives a different hash form' if canon($copy->to_hashref) ne $hc;
    push @p, 'copy_from gives a different pack result' if $copy->pack ne $packed;
    if (chance(4)) {
        my $m = $CLASS->new;
        $m->merge_from($r);
        push @p, 'merge_from into an empty record gives a different pack result' if $m->pack ne $packed;
        push @p, 'merge_from into an empty record gives a different hash form' if canon($m->to_hashref) ne $hc;
    }
    # Without its unknown fields the record is what its hash form makes.
    $copy->discard_unkown_fields;
    push @p, 'discard_unkown_fields changes the hash form' if canon($copy->to_hashref) ne $hc;
    push @p, 'after discard_unkown_fields, pack differs from new(to_hashref)->pack'
        if $copy->pack ne $from_hash->pack;

    # What parsed cleanly reads back the same.
    if ($ok) {
        my $again = $CLASS->new($packed);
        push @p, 'pack -> new -> to_hashref differs from to_hashref' if canon($again->to_hashref) ne $hc;
        my $repacked = $again->pack;
        push @p, 'pack -> new -> pack is not byte-identical'
            . ' (' . length($repacked) . ' and ' . length($packed) . ' bytes)' if $repacked ne $packed;
        my $u = $CLASS->new;
        push @p, 'unpack(pack) returns 0 for a record that parsed' if $len > 0 && !$u->unpack($packed);
    }
    return ($ok, @p);
}

# ---- the codec -----------------------------------------------------------------

# The codec objects: every combination of the options; each input is decoded
# with decode_event (the defaults) and with one of these, chosen by the seed.
my @CODEC_OPTIONS = map {
    my $i = $_;
    { characters => $i & 1, addresses => ($i & 2 ? 'text' : 'hash'), unknown_fields => ($i & 4 ? 'drop' : 'keep') };
} 0 .. 7;
my @CODECS = $opt->{codec} ? map { quillon_event_log::Codec->new(%$_) } @CODEC_OPTIONS : ();
my %DEFAULTS = (characters => 0, addresses => 'hash', unknown_fields => 'keep');

# The reasons a malformed record may be refused for.
my $F = qr/[0-9]+(?: \([a-z0-9_]+\))?(?: in [a-z_]+)?/;
my $REASON = join '|', 'truncated varint', 'varint longer than 10 bytes', 'field number 0', 'tag longer than 5 bytes',
    'wire type [67]', "length of field $F runs past the end", "truncated fixed(?:32|64) in field $F",
    "end-group tag of field $F without a start", "group of field $F is not closed", 'nesting deeper than 100 levels';
$REASON = qr/$REASON/;

my %CODEC_COUNT = (decoded => 0, refused => 0, 'refused by the codec only' => 0);

# A copy of a decoded hash without its `_unknown` keys, with strings of ASCII
# characters as byte strings when $chars (the codec may leave them either way).
sub strip {
    my ($v, $chars) = @_;
    if (ref $v eq 'HASH') { return { map { ($_ => strip($v->{$_}, $chars)) } grep { $_ ne '_unknown' } keys %$v } }
    if (ref $v eq 'ARRAY') { return [ map { strip($_, $chars) } @$v ] }
    return $v if ref $v || !defined $v || !$chars || $v =~ /[^\x00-\x7F]/;
    my $s = $v;
    utf8::downgrade($s);
    return $s;
}

# The shapes a decoded hash must have: keys of fields only (and `_unknown`
# unless unknown fields are dropped), strings as bytes or, under the
# characters option, flagged when not ASCII; `_unknown` entries "POS:HEX".
sub form_problems {
    my ($what, $h, $o) = @_;
    my @p;
    my $check_unknown = sub {
        my ($where, $u) = @_;
        return push @p, "$what: $where is present although unknown fields are dropped" if $o->{unknown_fields} eq 'drop';
        return push @p, "$what: $where is not an array of entries" unless ref $u eq 'ARRAY' && @$u;
        my $last = -1;
        for my $e (@$u) {
            my ($pos) = defined $e && !ref $e && !utf8::is_utf8($e) ? $e =~ /\A([0-9]+):(?:[0-9a-f][0-9a-f])+\z/ : ();
            push(@p, "$what: $where holds '" . (defined $e ? $e : 'undef') . "', not POS:HEX"), last unless defined $pos;
            push @p, "$what: $where positions decrease" if $pos < $last;
            $last = $pos;
        }
    };
    for my $k (keys %$h) {
        my $v = $h->{$k};
        if ($k eq '_unknown') { $check_unknown->('_unknown', $v); next }
        my $kind = $QelCodec::RECORD_KIND{$k};
        if (!defined $kind) { push @p, "$what: unknown key '$k'"; next }
        my @strings = $kind eq 'string' ? ($v) : $kind eq 'list' ? (ref $v eq 'ARRAY' ? @$v : ()) : ();
        for my $s (@strings) {
            next if defined $s && !ref $s && ($o->{characters} ? ($s !~ /[^\x00-\x7F]/ || utf8::is_utf8($s)) : !utf8::is_utf8($s));
            push @p, "$what: $k holds a string of the wrong form";
        }
        if ($kind eq 'address' && ref $v eq 'HASH' && exists $v->{_unknown}) {
            $check_unknown->("$k._unknown", $v->{_unknown});
        }
    }
    return @p;
}

# repeats($bytes): whether whole wire data holds a singular known field or an
# address more than once, or an address holds one of its fields more than once.
sub repeats {
    my %n;
    for my $it (field_items($_[0])) {
        next unless $it->[4] && $QelCodec::RECORD_KIND{ QelCodec::RECORD_LEVEL()->{ $it->[2] }[0] } ne 'list';
        return 1 if $n{ $it->[2] }++;
        next unless ADDRESS_NAME_OF->{ $it->[2] };
        my %w;
        for my $in (field_items(substr($_[0], $it->[5], $it->[1] - $it->[5]), ADDRESS_LEVEL)) {
            return 1 if $in->[4] && $w{ $in->[2] }++;
        }
    }
    return 0;
}

# unpositioned($hash): a copy with the `_unknown` entries of each level as
# one string of all their wire bytes, without positions (runs that meet when
# positions move become one).
sub unpositioned {
    my $v = shift;
    return $v unless ref $v eq 'HASH';
    return { map {
        ($_ => $_ eq '_unknown' && ref $v->{$_} eq 'ARRAY'
            ? join('', map { my $e = $_; $e =~ s/\A[0-9]+://; $e } @{ $v->{$_} })
            : unpositioned($v->{$_}));
    } keys %$v };
}

# decode_with($codec, $bytes): (hash) or (undef, error).
sub decode_with {
    my ($c, $b) = @_;
    local $@;
    my $h = eval { $c ? $c->decode($b) : quillon_event_log::Codec::decode_event($b) };
    return $@ ? (undef, $@) : ($h);
}

# check_codec($bytes, $which): decodes the input with the defaults and with
# codec object $which and checks both outcomes. Returns the outcome
# ('decoded', 'refused' or 'refused by the codec only') and the problems.
sub check_codec {
    my ($bytes, $which) = @_;
    my @p;
    my $cls = $CLASS->new;
    my $ok = $cls->unpack($bytes);
    my @faults = wire_faults($bytes);
    my $fault_text = join ' or ', map { "at byte $_->[0]: $_->[1]" } @faults;
    my $big = length($bytes) > 256 * 1024;
    my ($keep, $keep_err);
    my %outcome;
    for my $run ([undef, \%DEFAULTS, 'decode_event'], [$CODECS[$which], $CODEC_OPTIONS[$which], "codec $which"]) {
        my ($c, $o, $what) = @$run;
        $what .= ' (' . join(', ', map { "$_ => $o->{$_}" } sort keys %$o) . ')' if $c;
        my ($h, $err) = decode_with($c, $bytes);
        if (defined $err) {
            my ($at, $reason) = $err =~ /\Amalformed record at byte ([0-9]+): ($REASON) at \S+ line [0-9]+\.\n\z/;
            $outcome{$what} = defined $at ? "$at: $reason" : $err;
            if (!defined $at) {
                push @p, "$what died of '$err', not of a documented text";
            }
            elsif (!@faults) {
                push @p, "$what refused whole wire data: '$err'";
            }
            elsif (!grep { $_->[0] == $at && $_->[1] eq $reason } @faults) {
                push @p, "$what refused the data at byte $at: $reason; the first fault is $fault_text";
            }
            next;
        }
        $outcome{$what} = 'hash';
        if (ref $h ne 'HASH') { push @p, "$what returned " . (defined $h ? "'$h'" : 'undef') . ', not a hash reference'; next }
        push @p, "$what accepted malformed data (the first fault is $fault_text)" if @faults;
        ($keep, $keep_err) = ($h) if !$c;
        push @p, form_problems($what, $h, $o);
        if (!$ok) { push @p, "$what decoded data that the record class refuses"; next }
        my $want = class_to_codec_form($cls->to_hashref, $o, $keep);
        my ($gc, $wc) = (canon(strip($h, $o->{characters})), canon(strip($want, $o->{characters})));
        push @p, "$what gives $gc, the record class $wc" if $gc ne $wc;
        if ($o->{unknown_fields} eq 'keep' && !$big) {
            # The unknown runs and their positions, read from the input.
            my @want = unknown_runs($bytes);
            my $got = exists $h->{_unknown} ? $h->{_unknown} : [];
            push @p, "$what: _unknown is " . canon($got) . ', expected ' . canon(\@want)
                if canon($got) ne canon(\@want);
            my %seen;
            for my $it (field_items($bytes)) {
                my $name = ADDRESS_NAME_OF->{ $it->[2] } or next;
                $seen{$name}{count}++ if $it->[4];
                $seen{$name}{payload} = substr $bytes, $it->[5], $it->[1] - $it->[5] if $it->[4];
            }
            for my $name (sort keys %seen) {
                next if $seen{$name}{count} != 1 || ref $h->{$name} ne 'HASH';    # merged: positions unclear
                my @w = unknown_runs($seen{$name}{payload}, ADDRESS_LEVEL);
                my $g = exists $h->{$name}{_unknown} ? $h->{$name}{_unknown} : [];
                push @p, "$what: $name._unknown is " . canon($g) . ', expected ' . canon(\@w) if canon($g) ne canon(\@w);
            }
        }

        # Encoded again: no error, and it decodes to the same hash.
        my $e = eval { $c ? $c->encode($h) : quillon_event_log::Codec::encode_event($h) };
        if (!defined $e) { push @p, "$what: encoding the decoded hash died: $@"; next }
        push @p, "$what: the encoding has the UTF-8 flag" if utf8::is_utf8($e);
        my ($h2, $err2) = decode_with($c, $e);
        if (defined $err2) { push @p, "$what: decoding its own encoding died: $err2"; next }
        # POS counts the known values of the input: after a repeated singular
        # field or address, the re-encoding has fewer, so the positions of
        # the runs may move (on purpose: the runs and their order stay).
        my $moved = $big || repeats($bytes);
        push @p, "$what: decode(encode(decode(\$bytes))) differs from decode(\$bytes)"
            if canon($moved ? unpositioned($h2) : $h2) ne canon($moved ? unpositioned($h) : $h);
        my $cls_pack = $cls->pack;
        if ($o->{unknown_fields} eq 'keep') {
            push @p, "$what: the record class packs the re-encoding unlike the input"
                if $CLASS->new($e)->pack ne $cls_pack;
            push @p, "$what: a canonical input re-encodes as other bytes (" . length($e) . ' instead of ' . length($bytes) . ')'
                if ($bytes eq '' || $cls_pack eq $bytes) && $e ne $bytes;
        }
        else {
            my $d = $CLASS->new;
            $d->copy_from($cls);
            $d->discard_unkown_fields;
            my $want_bytes = $d->length ? $d->pack : '';
            push @p, "$what: the re-encoding (" . length($e) . ' bytes) is not the record class\'s without unknown fields ('
                . length($want_bytes) . ' bytes)' if $e ne $want_bytes;
        }
    }
    my @o = values %outcome;
    my ($first, $second) = sort keys %outcome;
    push @p, "decode_event and the codec object end differently ($outcome{$first}; $outcome{$second})"
        if $outcome{$first} ne $outcome{$second};
    return ('decoded', @p) if $o[0] eq 'hash';
    return ('refused', @p) unless $ok;
    # The record class reads what the codec refuses: only for what the codec
    # documents as refused and the class keeps (field number 0, tags longer
    # than 5 bytes, lengths of 2**32 or more, which the class reads modulo
    # 2**32).
    my ($at, $reason) = $o[0] =~ /\A([0-9]+): (.*)\z/s or return ('refused', @p);
    my $documented = $reason eq 'field number 0' || $reason eq 'tag longer than 5 bytes';
    if ($reason =~ /\Alength of field /) {
        my ($len) = QelCodec::read_varint($bytes, $at, length $bytes, 10);
        $documented = 1 if defined $len && $len >= 4294967296;
    }
    push @p, "the record class reads the data, the codec refuses it ($o[0]), which the class should refuse too"
        unless $documented;
    return ('refused by the codec only', @p);
}

# minimize($bytes, $signature): a shorter input whose first problem reads the
# same (numbers aside): whole top-level fields are dropped, then the payloads
# of length-delimited fields emptied, then chunks of bytes of halving sizes
# removed, as long as the problem stays. At most 3000 tries.
sub minimize {
    my ($bytes, $sig, $which) = @_;
    my $tries = 0;
    my $fails = sub {
        $tries++;
        my (undef, undef, @p) = input_problems($_[0], $which);
        return @p && signature($p[0]) eq $sig;
    };
    my $fields = sub { my $f = split_fields($_[0]); $f ? @$f : () };
    for my $i (reverse 0 .. scalar($fields->($bytes)) - 1) {
        my @f = $fields->($bytes);
        next if $i > $#f || $tries >= 3000;
        my $shorter = $bytes;
        substr($shorter, $f[$i]{start}, $f[$i]{end} - $f[$i]{start}) = '';
        $bytes = $shorter if $fails->($shorter);
    }
    for my $i (reverse 0 .. scalar($fields->($bytes)) - 1) {
        my @f = $fields->($bytes);
        next if $i > $#f || $f[$i]{wt} != 2 || $f[$i]{end} == $f[$i]{payload} || $tries >= 3000;
        my $shorter = $bytes;
        substr($shorter, $f[$i]{lenpos}, $f[$i]{end} - $f[$i]{lenpos}) = "\0";
        $bytes = $shorter if $fails->($shorter);
    }
    for (my $chunk = int(length($bytes) / 2) || 1; $tries < 3000; $chunk = int($chunk / 2)) {
        for (my $at = 0; $at < length $bytes && $tries < 3000; ) {
            my $shorter = $bytes;
            substr($shorter, $at, $chunk) = '';
            if ($fails->($shorter)) { $bytes = $shorter } else { $at += $chunk }
        }
        last if $chunk <= 1;
    }
    return $bytes;
}

# input_problems($bytes, $which): the outcome of unpack, the codec's outcome
# (undef under --no-codec) and the problems of the input: the record class's
# own checks (unless --codec-only), then the codec's, with codec object
# $which.
sub input_problems {
    my ($bytes, $which) = @_;
    my ($ok, @p) = $opt->{'codec-only'} ? ($CLASS->new->unpack($bytes)) : check_input($bytes);
    return ($ok, undef, @p) unless $opt->{codec};
    my ($outcome, @cp) = check_codec($bytes, $which);
    return ($ok, $outcome, @p, @cp);
}

sub signature { (my $s = shift) =~ s/[0-9]+|'[^']*'/#/g; $s }

# ---- the run -----------------------------------------------------------------

sub main {
    my ($inputs, $parsed, $rejected, $longest, $bad) = (0, 0, 0, 0, 0);
    my $step = $opt->{count} >= 10 ? int($opt->{count} / 10) : 0;
    for my $index ($opt->{first} .. $opt->{first} + $opt->{count} - 1) {
        my ($bytes, @mutations) = make_input($index);
        my $which = rint(scalar @CODEC_OPTIONS);    # drawn after the input: the inputs stay those of the seed
        print "input $index: ", length($bytes), " bytes, mutations: @mutations",
            ($opt->{codec} ? ", codec $which" : ''), "\n" if $opt->{trace};
        my ($ok, $outcome, @problems) = input_problems($bytes, $which);
        $inputs++;
        $ok ? $parsed++ : $rejected++;
        $CODEC_COUNT{$outcome}++ if defined $outcome;
        $longest = length $bytes if length $bytes > $longest;
        if (@problems) {
            $bad++;
            print "PROBLEM: seed $opt->{seed}, input $index (", length($bytes), " bytes, unpack returned $ok",
                ', mutations: ', (@mutations ? "@mutations" : 'none'), ")\n";
            print "  $_\n" for @problems[0 .. ($#problems < 9 ? $#problems : 9)];
            print '  ... ', @problems - 10, " more\n" if @problems > 10;
            print hexdump($bytes), "\n";
            my $small = minimize($bytes, signature($problems[0]), $which);
            print "  reduced to ", length($small), " bytes with the same first problem:\n", hexdump($small, 128), "\n"
                if length $small < length $bytes;
            if (defined $opt->{save}) {
                my $path = "$opt->{save}/fuzz_wire-seed$opt->{seed}-input$index.bin";
                open my $fh, '>:raw', $path or die "$path: $!";
                print {$fh} $bytes;
                close $fh;
            }
            last if $bad >= $opt->{'max-problems'};
        }
        print "  $inputs inputs\n" if $step && !$opt->{quiet} && $inputs % $step == 0;
    }

    print finish_line('fuzz_wire', $opt, inputs => $inputs, parsed => $parsed, rejected => $rejected,
        longest => "$longest bytes",
        ($opt->{codec} ? map { ("codec $_" => $CODEC_COUNT{$_}) } 'decoded', 'refused', 'refused by the codec only' : ()),
        problems => $bad);
    return $bad ? 1 : 0;
}

exit main() unless caller;
1;
