package QelFuzz;

# Shared parts of the two fuzzers in xt/: a seeded random generator written in
# Perl (so a seed gives the same inputs on every perl and every run), their
# command-line options and summary line, an exact canonical text of Perl data
# for comparisons, and the consistency checks of one record object.

use strict;
use warnings;
no warnings 'portable';    # 64-bit hexadecimal constants below

use Exporter 'import';
use Getopt::Long ();
use Time::HiRes ();
use QelTest qw($CLASS $ADDR_CLASS field_table address_fields);
use QelRandom qw(splitmix64);    # turns seeds and input numbers into generator states

our @EXPORT_OK = qw(
    seed_rng r64 rint chance pick rbytes
    canon hexdump parse_options finish_line
    record_problems FIELDS ADDR_FIELDS
);

die "the fuzzers need a perl with 64-bit integers\n" unless (~0 >> 63) == 1;

# ---- random numbers ---------------------------------------------------------
#
# xorshift64* on Perl's unsigned integers: shifts and exclusive-or work on UVs
# with the bits shifted out lost, and the products are taken under `use
# integer`, which wraps modulo 2**64 (perl is built with -fwrapv).  Right
# shifts must stay outside `use integer`, where they would copy the sign bit.

my $S = 1;    # generator state, never 0

# seed_rng($seed [, $stream]): starts the generator for a seed and, when
# given, a stream number (the fuzzers use the input index, so each input can
# be made again on its own).
sub seed_rng {
    my ($seed, $stream) = @_;
    $S = splitmix64(splitmix64($seed) ^ splitmix64(defined $stream ? $stream + 1 : 0));
    $S = 0x9E3779B97F4A7C15 if $S == 0;
    return;
}

# r64(): the next 64-bit value (as a Perl integer; read it with >> or & to
# get the unsigned value).
sub r64 {
    my $x = $S;
    $x ^= $x >> 12;
    $x ^= $x << 25;
    $x ^= $x >> 27;
    $S = $x;
    use integer;
    return $x * 0x2545F4914F6CDD1D;
}

# rint($n): an integer in 0 .. $n-1 ($n up to 2**53).
sub rint { (r64() >> 11) % $_[0] }

# chance($n): true once in $n calls on average.
sub chance { (r64() >> 11) % $_[0] == 0 }

# pick(@list): one element of the list.
sub pick { $_[ (r64() >> 11) % @_ ] }

# rbytes($n): $n random bytes.
sub rbytes {
    my $n = shift;
    return '' if $n <= 0;
    my $out = join '', map { pack 'Q<', r64() } 1 .. ($n + 7) >> 3;
    return substr $out, 0, $n;
}

# ---- exact comparison -------------------------------------------------------

# canon($value): a text that two Perl data structures share exactly when they
# are equal: same undef-ness, same bytes, same UTF-8 flag, same keys, same
# array lengths. Only hashes, arrays and plain scalars are expected; any
# other reference reads as its kind, which never equals a plain value.
sub canon {
    my $v = shift;
    my $r = ref $v;
    unless ($r) {
        return 'u' unless defined $v;
        return (utf8::is_utf8($v) ? 'w' : 's') . length($v) . ':' . $v;
    }
    # Plain scalars inside hashes and arrays are written in place, without
    # a call per value: this runs a few times per fuzz input.
    if ($r eq 'HASH') {
        return '{' . join('', map {
            my $e = $v->{$_};
            length($_) . ':' . $_ . (defined $e && !ref $e
                ? (utf8::is_utf8($e) ? 'w' : 's') . length($e) . ':' . $e
                : canon($e));
        } sort keys %$v) . '}';
    }
    if ($r eq 'ARRAY') {
        return '[' . join('', map {
            defined $_ && !ref $_ ? (utf8::is_utf8($_) ? 'w' : 's') . length($_) . ':' . $_ : canon($_)
        } @$v) . ']';
    }
    return "<$r>";
}

# hexdump($bytes [, $max]): at most $max bytes (default 256) as lines of 32
# hex digits with their offsets, and a note of what was left out.
sub hexdump {
    my ($bytes, $max) = @_;
    $max = 256 unless defined $max;
    my $shown = substr $bytes, 0, $max;
    my @lines;
    for (my $at = 0; $at < length $shown; $at += 16) {
        push @lines, sprintf '  %06x  %s', $at, join ' ', unpack '(H2)*', substr($shown, $at, 16);
    }
    push @lines, sprintf '  ... %d more bytes', length($bytes) - $max if length $bytes > $max;
    push @lines, '  (empty)' unless length $bytes;
    return join "\n", @lines;
}

# ---- options and summary ----------------------------------------------------

# parse_options(\%defaults, $usage, @extra): the common options --seed,
# --count, --max-bytes, --first, --quiet, --trace and --max-problems, and the
# fuzzer's own further Getopt::Long option descriptions @extra; prints $usage
# for --help, dies with it on a bad option. Returns the options as a hash
# reference, with the start time under 'started'.
sub parse_options {
    my ($defaults, $usage, @extra) = @_;
    my %o = (seed => 1, count => 1000, 'max-bytes' => 4 << 20, first => 0, quiet => 0,
             trace => 0, 'max-problems' => 10, %$defaults);
    Getopt::Long::Configure('no_ignore_case');
    Getopt::Long::GetOptions(\%o, 'seed=i', 'count=i', 'max-bytes=i', 'first=i', 'quiet!',
        'trace!', 'max-problems=i', 'help', @extra)
        or die $usage;
    if ($o{help}) { print $usage; exit 0 }
    die "unexpected arguments: @ARGV\n$usage" if @ARGV;
    die "--count must not be negative\n" if $o{count} < 0;
    die "--max-bytes must be at least 1\n" if $o{'max-bytes'} < 1;
    $o{started} = Time::HiRes::time();
    return \%o;
}

# finish_line($name, $opt, @pairs): the one-line summary: the fuzzer's name,
# the seed, then the given label/value pairs, then the elapsed seconds and the
# rate per second of the first pair.
sub finish_line {
    my ($name, $opt, @pairs) = @_;
    my $elapsed = Time::HiRes::time() - $opt->{started};
    my @parts = ("seed $opt->{seed}");
    for (my $i = 0; $i < @pairs; $i += 2) {
        push @parts, "$pairs[$i] $pairs[$i + 1]";
    }
    my $rate = $elapsed > 0 ? $pairs[1] / $elapsed : 0;
    push @parts, sprintf('elapsed %.2f s', $elapsed), sprintf('(%.0f %s/s)', $rate, $pairs[0]);
    return "$name: " . join(', ', @parts) . "\n";
}

# ---- one record against its own hash form -----------------------------------

# The record's fields from the schema (not from the module): name and family,
# and the names of the methods the checks call.
my @FIELDS = map {
    my ($name, undef, $kind) = @$_;
    { name => $name, kind => $kind, has => "has_$name", size => "${name}_size" };
} field_table();
my @ADDR_FIELDS = map { { name => $_, has => "has_$_" } } address_fields();
my %IS_FIELD = map { $_->{name} => 1 } @FIELDS;
my %IS_ADDR_FIELD = map { $_->{name} => 1 } @ADDR_FIELDS;
my %OF_KIND;
push @{ $OF_KIND{ $_->{kind} } }, $_ for @FIELDS;

sub FIELDS      { @FIELDS }
sub ADDR_FIELDS { @ADDR_FIELDS }

my $U64_MAX = '18446744073709551615';

sub _is_u32 { defined $_[0] && !ref $_[0] && $_[0] =~ /\A(?:0|[1-9][0-9]{0,9})\z/ && $_[0] <= 4294967295 }

sub _is_u64 {
    defined $_[0] && !ref $_[0] && $_[0] =~ /\A(?:0|[1-9][0-9]{0,19})\z/
        && (length $_[0] < 20 || $_[0] le $U64_MAX);
}

sub _show { defined $_[0] ? (ref $_[0] ? "$_[0]" : "'" . (length $_[0] > 40 ? substr($_[0], 0, 40) . '...' : $_[0]) . "'") : 'undef' }

# The problems of an address hash of the hash form ('' when none).
sub _address_hash_problem {
    my $a = shift;
    return 'not a hash reference' unless ref $a eq 'HASH';
    for my $k (sort keys %$a) {
        return "unknown key '$k'" unless $IS_ADDR_FIELD{$k};
        return "$k is " . _show($a->{$k}) . ', not a uint32' unless _is_u32($a->{$k});
    }
    return '';
}

# The problems of the address object $obj given its expected hash $want.
sub _address_object_problems {
    my ($what, $obj, $want) = @_;
    return "$what returned " . _show($obj) . ", not a $ADDR_CLASS object"
        unless ref $obj eq $ADDR_CLASS;
    my @p;
    my $got = $obj->to_hashref;
    push @p, "$what->to_hashref is " . canon($got) . ', expected ' . canon($want)
        if canon($got) ne canon($want);
    for my $af (@ADDR_FIELDS) {
        my ($n, $has) = @$af{qw(name has)};
        my $v = $obj->$n;
        my $e = exists $want->{$n} ? $want->{$n} : 0;
        push @p, "$what->$n is " . _show($v) . ", expected $e" if !defined $v || $v ne $e;
        my $hv = $obj->$has;
        push @p, "$what->$has is " . _show($hv) if !defined $hv || $hv ne (exists $want->{$n} ? '1' : '0');
    }
    return @p;
}

# record_problems($rec [, $hash]): the ways in which the record object $rec
# disagrees with its hash form $hash (default: $rec->to_hashref): the hash
# form itself (only field names as keys, each value of its family's form);
# every getter (an absent field reads as its default: "" for strings, 0 for
# numbers and flags, "0" for uint64 values, an empty address); every has_
# method; the list getters in list and scalar context, with indexes in and
# out of range, and their _size. Returns the problems as texts, none when all
# agree.
sub record_problems {
    my ($r, $h) = @_;
    $h = $r->to_hashref if @_ < 2;
    return ('to_hashref returned ' . _show($h) . ', not a hash reference') unless ref $h eq 'HASH';
    my @p;
    for my $k (keys %$h) {
        push @p, "to_hashref has the key '$k', which names no field" unless $IS_FIELD{$k};
    }
    for my $f (@{ $OF_KIND{string} }) {
        my ($n, $has) = @$f{qw(name has)};
        my $e = exists $h->{$n};
        my $want = $e ? $h->{$n} : '';
        push @p, "to_hashref: $n is " . _show($want) . ', not a byte string'
            if $e && (!defined $want || ref $want || utf8::is_utf8($want));
        my $v = $r->$n;
        push @p, "$n is " . _show($v) . ', expected ' . _show($want)
            if !defined $v || ref $v || utf8::is_utf8($v) || $v ne $want;
        my $hv = $r->$has;
        push @p, "$has is " . _show($hv) . ' while the hash form ' . ($e ? 'has' : 'lacks') . ' the key'
            if !defined $hv || $hv ne ($e ? '1' : '0');
    }
    for my $kind (qw(uint32 uint64 bool)) {
        my $default = $kind eq 'uint64' ? '0' : 0;
        for my $f (@{ $OF_KIND{$kind} }) {
            my ($n, $has) = @$f{qw(name has)};
            my $e = exists $h->{$n};
            my $want = $e ? $h->{$n} : $default;
            my $form_ok = $kind eq 'uint32' ? _is_u32($want)
                        : $kind eq 'uint64' ? _is_u64($want)
                        : (defined $want && ($want eq '0' || $want eq '1'));
            push @p, "to_hashref: $n is " . _show($want) . ", not of the $kind form" unless $form_ok;
            my $v = $r->$n;
            push @p, "$n is " . _show($v) . ', expected ' . _show($want)
                if !defined $v || ref $v || $v ne $want;
            my $hv = $r->$has;
            push @p, "$has is " . _show($hv) . ' while the hash form ' . ($e ? 'has' : 'lacks') . ' the key'
                if !defined $hv || $hv ne ($e ? '1' : '0');
        }
    }
    for my $f (@{ $OF_KIND{address} }) {
        my ($n, $has) = @$f{qw(name has)};
        my $e = exists $h->{$n};
        my $want = $e ? $h->{$n} : {};
        if (my $why = _address_hash_problem($want)) {
            push @p, "to_hashref: $n: $why";
            next;
        }
        push @p, _address_object_problems($n, $r->$n, $want);
        my $hv = $r->$has;
        push @p, "$has is " . _show($hv) . ' while the hash form ' . ($e ? 'has' : 'lacks') . ' the key'
            if !defined $hv || $hv ne ($e ? '1' : '0');
    }
    for my $f (@{ $OF_KIND{list} }) {
        my ($n, $size) = @$f{qw(name size)};
        my $want = exists $h->{$n} ? $h->{$n} : [];
        if (ref $want ne 'ARRAY' || (exists $h->{$n} && !@$want)) {
            push @p, "to_hashref: $n is " . _show($want) . ', not a reference to a non-empty array';
            next;
        }
        my @all = $r->$n;
        push @p, "$n in list context differs from the hash form (" . scalar(@all) . ' and '
            . scalar(@$want) . ' elements)' if canon(\@all) ne canon($want);
        my $count = $r->$size;
        push @p, "$size is " . _show($count) . ', expected ' . scalar(@$want) if $count ne scalar @$want;
        my $last = $r->$n;
        push @p, "$n in scalar context is " . _show($last) . ', expected ' . _show($want->[-1])
            if canon($last) ne canon(@$want ? $want->[-1] : undef);
        my $k = @$want;
        my @idx = (($k ? (0, $k - 1, (r64() >> 11) % $k) : ()), $k, -1, -$k - 1);
        for my $i (@idx) {
            my $v = $r->$n($i);
            my $e = $i >= 0 && $i < $k ? $want->[$i] : undef;
            push @p, "$n($i) is " . _show($v) . ', expected ' . _show($e) if canon($v) ne canon($e);
        }
        # The index keeps its low 32 bits.
        my $v = $r->$n(4294967296);
        push @p, "$n(4294967296) is " . _show($v) . ', expected ' . _show($want->[0])
            if canon($v) ne canon($k ? $want->[0] : undef);
    }
    return @p;
}

1;
