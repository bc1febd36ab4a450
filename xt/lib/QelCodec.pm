package QelCodec;

# What the fuzzers expect of quillon_event_log::Codec, written from its
# documented rules and independent of its code: the faults of malformed wire
# data with their offsets and reasons, the unknown-field runs of a record,
# UTF-8 with surrogate escapes, address texts, the descriptions and displays
# of Perl values in error texts, and the suggestion for a misspelt key.

use strict;
use warnings;
no warnings qw(portable recursion);

use Exporter 'import';
use Socket ();
use B ();
use Scalar::Util qw(blessed reftype);
use QelTest qw(field_table address_fields);

our @EXPORT_OK = qw(
    RECORD_LEVEL ADDRESS_LEVEL ADDRESS_NUMS ADDRESS_NAME_OF
    read_varint encode_varint wire_faults unknown_runs field_items entry_problem
    bytes_to_chars chars_to_bytes
    address_text parse_address_text
    describe display suggestion
    class_to_codec_form
);

# ---- the schema as the wire sees it ------------------------------------------------

# A level: number => [name, wire type, kind] for the record and the address.
my %RECORD_LEVEL = map {
    my ($name, $num, $kind) = @$_;
    ($num => [$name, ($kind eq 'uint32' || $kind eq 'uint64' || $kind eq 'bool') ? 0 : 2, $kind]);
} field_table();
my @ADDR_NAMES = address_fields();
my %ADDRESS_LEVEL = map { ($_ + 1 => [$ADDR_NAMES[$_], 0, 'uint32']) } 0 .. $#ADDR_NAMES;
my %ADDRESS_NAME_OF = map { $_ => $RECORD_LEVEL{$_}[0] } grep { $RECORD_LEVEL{$_}[2] eq 'address' } keys %RECORD_LEVEL;
our %RECORD_KIND = map { $_->[0] => $_->[2] } field_table();

sub RECORD_LEVEL    { \%RECORD_LEVEL }
sub ADDRESS_LEVEL   { \%ADDRESS_LEVEL }
sub ADDRESS_NUMS    { sort { $a <=> $b } keys %ADDRESS_NAME_OF }
sub ADDRESS_NAME_OF { \%ADDRESS_NAME_OF }

# ---- wire data ---------------------------------------------------------------------

# read_varint($bytes, $pos, $end, $max): (value, position after it), or
# (undef, 'truncated') when $end comes first, or (undef, 'long') when $max
# bytes all carry the continuation bit. Bits past the 64th are dropped.
sub read_varint {
    my ($b, $p, $end, $max) = @_;
    my ($v, $shift) = (0, 0);
    for my $i (0 .. $max - 1) {
        return (undef, 'truncated') if $p + $i >= $end;
        my $c = ord substr $b, $p + $i, 1;
        $v |= ($c & 0x7f) << $shift if $shift < 64;
        $shift += 7;
        return ($v, $p + $i + 1) unless $c & 0x80;
    }
    return (undef, 'long');
}

# encode_varint($n): the shortest varint of an unsigned 64-bit value.
sub encode_varint {
    my $n = shift;
    my $o = '';
    while ($n >= 0x80) { $o .= chr(($n & 0x7f) | 0x80); $n >>= 7 }
    return $o . chr($n);
}

sub _field_text {
    my ($num, $level, $ctx) = @_;
    my $t = "$num";
    $t .= " ($level->{$num}[0])" if $level && $level->{$num};
    $t .= " in $ctx" if defined $ctx;
    return $t;
}

# wire_faults($bytes [, $level, $ctx]): the first fault of the data read as
# the fields of $level (default the record's; ADDRESS_LEVEL inside the address
# named $ctx) as [offset, reason] (in a list, empty when the data is whole).
# The offset is that of the faulty item: the tag for a bad tag, an end tag or
# a group that is not closed; the varint, length or fixed-size value that is
# cut off or runs past the end; a tag of field number 0 is that fault whatever
# its wire type.
sub wire_faults {
    my ($b, $level, $ctx) = @_;
    my @c;
    _fields($b, 0, length $b, $level || \%RECORD_LEVEL, $ctx, 0, undef, \@c);
    return @c;
}

# entry_problem($bytes, $level, $depth): what is wrong with the bytes of an
# `_unknown` entry of a level at nesting $depth (0 for the record, 1 inside an
# address): (own => $number, $name) for a field that has a key of its own,
# (fault => $offset, $reason) for malformed data (field names of the level,
# no address named), or () when they are whole unknown fields.
sub entry_problem {
    my ($b, $level, $depth) = @_;
    my $p = 0;
    while ($p < length $b) {
        my ($tag) = read_varint($b, $p, length $b, 5);
        if (defined $tag && $tag <= 0xFFFFFFFF && ($tag >> 3) && ($tag & 7) < 6) {
            my $f = $level->{ $tag >> 3 };
            return (own => $tag >> 3, $f->[0]) if $f && $f->[1] == ($tag & 7);
        }
        # One field at a time: its own end or its fault.
        my @c;
        my $end;
        {
            my ($t, $q) = read_varint($b, $p, length $b, 5);
            if (defined $t && ($t & 7) == 4 && ($t >> 3) && $t <= 0xFFFFFFFF) {
                return (fault => $p, 'end-group tag of field ' . _field_text($t >> 3, $level, undef) . ' without a start');
            }
            # A field alone: read it as the only field of a level that ends
            # where the bytes end, and stop after it.
            $end = _one_field($b, $p, $level, $depth, \@c);
        }
        return (fault => @{ $c[0] }) if @c;
        $p = $end;
    }
    return ();
}

# _one_field: reads the one field at $p (as _fields would) and returns the
# position after it, or undef with the fault in @$c.
sub _one_field {
    my ($b, $p, $level, $depth, $c) = @_;
    # A copy of _fields' step: read through _fields over the whole rest, but
    # stop after one field by giving it a group-free view: simplest is to
    # find the field's end with _fields on a prefix that grows.
    my ($tag, $q) = read_varint($b, $p, length $b, 5);
    my $at = $p;
    if (!defined $tag) { push @$c, [$at, $q eq 'truncated' ? 'truncated varint' : 'tag longer than 5 bytes']; return undef }
    if ($tag > 0xFFFFFFFF) { push @$c, [$at, 'tag longer than 5 bytes']; return undef }
    my ($num, $wt) = ($tag >> 3, $tag & 7);
    if ($num == 0 || $wt >= 6) { push @$c, [$at, $num == 0 ? 'field number 0' : "wire type $wt"]; return undef }
    my $ft = _field_text($num, $level, undef);
    my $end = length $b;
    if ($wt == 0) {
        my ($v, $r) = read_varint($b, $q, $end, 10);
        if (!defined $v) { push @$c, [$q, $r eq 'truncated' ? 'truncated varint' : 'varint longer than 10 bytes']; return undef }
        return $r;
    }
    if ($wt == 1 || $wt == 5) {
        my $size = $wt == 1 ? 8 : 4;
        if ($end - $q < $size) { push @$c, [$q, 'truncated ' . ($wt == 1 ? 'fixed64' : 'fixed32') . " in field $ft"]; return undef }
        return $q + $size;
    }
    if ($wt == 2) {
        my ($len, $r) = read_varint($b, $q, $end, 10);
        if (!defined $len) { push @$c, [$q, $r eq 'truncated' ? 'truncated varint' : 'varint longer than 10 bytes']; return undef }
        if ($len > $end - $r) { push @$c, [$q, "length of field $ft runs past the end"]; return undef }
        return $r + $len;
    }
    if ($depth + 1 > 100) { push @$c, [$at, 'nesting deeper than 100 levels']; return undef }
    return _fields($b, $q, $end, undef, undef, $depth + 1, [$num, $ft, $at], $c);
}

# _fields: reads fields from $p to $end; in a group ($group = [num, text,
# offset]) up to its end tag. Returns the position after what was read, or
# undef with the fault's candidates pushed on @$c.
sub _fields {
    my ($b, $p, $end, $level, $ctx, $depth, $group, $c) = @_;
    while ($p < $end) {
        my $at = $p;
        my ($tag, $q) = read_varint($b, $p, $end, 5);
        if (!defined $tag) {
            push @$c, [$at, $q eq 'truncated' ? 'truncated varint' : 'tag longer than 5 bytes'];
            return undef;
        }
        if ($tag > 0xFFFFFFFF) { push @$c, [$at, 'tag longer than 5 bytes']; return undef }
        my ($num, $wt) = ($tag >> 3, $tag & 7);
        if ($num == 0 || $wt >= 6) {
            push @$c, [$at, $num == 0 ? 'field number 0' : "wire type $wt"];
            return undef;
        }
        my $ft = _field_text($num, $level, $ctx);
        if ($wt == 4) {
            return $q if $group && $num == $group->[0];
            # (an end tag of another group than the open one, too)
            push @$c, [$at, "end-group tag of field $ft without a start"];
            return undef;
        }
        if ($wt == 0) {
            my ($v, $r) = read_varint($b, $q, $end, 10);
            if (!defined $v) {
                push @$c, [$q, $r eq 'truncated' ? 'truncated varint' : 'varint longer than 10 bytes'];
                return undef;
            }
            $p = $r;
        }
        elsif ($wt == 1 || $wt == 5) {
            my $size = $wt == 1 ? 8 : 4;
            if ($end - $q < $size) {
                my $what = $wt == 1 ? 'fixed64' : 'fixed32';
                push @$c, [$q, "truncated $what in field $ft"];
                return undef;
            }
            $p = $q + $size;
        }
        elsif ($wt == 2) {
            my ($len, $r) = read_varint($b, $q, $end, 10);
            if (!defined $len) {
                push @$c, [$q, $r eq 'truncated' ? 'truncated varint' : 'varint longer than 10 bytes'];
                return undef;
            }
            if ($len > $end - $r) {
                push @$c, [$q, "length of field $ft runs past the end"];
                return undef;
            }
            if ($level && $level == \%RECORD_LEVEL && $ADDRESS_NAME_OF{$num} && !$group) {
                if ($depth + 1 > 100) { push @$c, [$at, 'nesting deeper than 100 levels']; return undef }
                defined _fields($b, $r, $r + $len, \%ADDRESS_LEVEL, $ADDRESS_NAME_OF{$num}, $depth + 1, undef, $c)
                    or return undef;
            }
            $p = $r + $len;
        }
        else {    # a group
            if ($depth + 1 > 100) { push @$c, [$at, 'nesting deeper than 100 levels']; return undef }
            $p = _fields($b, $q, $end, undef, $ctx, $depth + 1, [$num, $ft, $at], $c);
            return undef unless defined $p;
        }
    }
    if ($group) {
        push @$c, [$group->[2], "group of field $group->[1] is not closed"];
        return undef;
    }
    return $p;
}

# _skip($bytes, $pos, $num, $wt): the position after the value of a field of
# whole wire data whose tag ended at $pos.
sub _skip {
    my ($b, $p, $num, $wt) = @_;
    return (read_varint($b, $p, length $b, 10))[1] if $wt == 0;
    return $p + 8 if $wt == 1;
    return $p + 4 if $wt == 5;
    if ($wt == 2) { my ($len, $q) = read_varint($b, $p, length $b, 10); return $q + $len }
    for (;;) {    # a group: up to its end tag
        my ($t, $q) = read_varint($b, $p, length $b, 5);
        return $q if ($t & 7) == 4 && ($t >> 3) == $num;
        $p = _skip($b, $q, $t >> 3, $t & 7);
    }
}

# field_items($bytes [, $level]): the fields of whole wire data as
# [start, end, num, wt, known, payload start] (known: the number is the
# level's with its own wire type).
sub field_items {
    my ($b, $level) = @_;
    $level ||= \%RECORD_LEVEL;
    my @items;
    my $p = 0;
    while ($p < length $b) {
        my ($t, $q) = read_varint($b, $p, length $b, 5);
        my ($num, $wt) = ($t >> 3, $t & 7);
        my $end = _skip($b, $q, $num, $wt);
        my $payload = $wt == 2 ? (read_varint($b, $q, length $b, 10))[1] : undef;
        push @items, [$p, $end, $num, $wt, ($level->{$num} && $level->{$num}[1] == $wt ? 1 : 0), $payload];
        $p = $end;
    }
    return @items;
}

# unknown_runs($bytes [, $level]): the `_unknown` entries of whole wire data:
# "POS:HEX" for each run of consecutive unknown fields, POS the number of
# known values before it.
sub unknown_runs {
    my ($b, $level) = @_;
    my (@runs, $known, $cur);
    $known = 0;
    for my $it (field_items($b, $level)) {
        if ($it->[4]) { $known++; $cur = undef; next }
        my $hex = unpack 'H*', substr $b, $it->[0], $it->[1] - $it->[0];
        if (defined $cur) { $runs[-1] .= $hex }
        else { push @runs, "$known:$hex"; $cur = 1 }
    }
    return @runs;
}

# ---- UTF-8 ---------------------------------------------------------------------------

# One well-formed UTF-8 sequence: no overlong forms, no surrogates, nothing
# above U+10FFFF.
my $SEQ = qr/[\x00-\x7F]|[\xC2-\xDF][\x80-\xBF]|\xE0[\xA0-\xBF][\x80-\xBF]|[\xE1-\xEC\xEE\xEF][\x80-\xBF]{2}
            |\xED[\x80-\x9F][\x80-\xBF]|\xF0[\x90-\xBF][\x80-\xBF]{2}|[\xF1-\xF3][\x80-\xBF]{3}|\xF4[\x80-\x8F][\x80-\xBF]{2}/x;


# bytes_to_chars($bytes): the characters a string field decodes to under the
# characters option: its UTF-8, each byte of an invalid sequence as U+DC00+byte.
sub bytes_to_chars {
    my $s = shift;
    return $s if $s !~ /[\x80-\xFF]/;
    my $out = '';
    # (runs taken in bounded pieces: the regex engine limits repetitions of
    # a group to 65534)
    while ($s =~ /\G((?:$SEQ){1,30000})|\G(.)/gcs) {
        if (defined $1) { my $r = $1; utf8::decode($r); $out .= $r }
        else { $out .= chr(0xDC00 + ord $2) }
    }
    utf8::upgrade($out);
    return $out;
}

# chars_to_bytes($string): the bytes a string is written as under the
# characters option, or (undef, $code_point) for the first character that
# cannot be written.
sub chars_to_bytes {
    my $s = shift;
    return (utf8::is_utf8($s) ? do { my $t = $s; utf8::encode($t); $t } : do { my $t = $s; utf8::upgrade($t); utf8::encode($t); $t })
        unless utf8::is_utf8($s) && $s =~ /[\x{D800}-\x{DFFF}]|[^\x{0}-\x{10FFFF}]/;
    if ($s =~ /([\x{D800}-\x{DC7F}\x{DD00}-\x{DFFF}]|[^\x{0}-\x{10FFFF}])/) {
        return (undef, ord $1);
    }
    my $out = '';
    for my $piece (split /([\x{DC80}-\x{DCFF}]+)/, $s) {
        if ($piece =~ /\A[\x{DC80}-\x{DCFF}]/) { $out .= join '', map { chr(ord($_) - 0xDC00) } split //, $piece }
        else { my $t = $piece; utf8::encode($t); $out .= $t }
    }
    return $out;
}

# ---- addresses as text -----------------------------------------------------------------

# address_text(\%addr): the text of an address hash with all five fields.
sub address_text {
    my $a = shift;
    my @w = map { $a->{$_} } qw(ip0 ip1 ip2 ip3);
    my $t = ($w[0] == 0 && $w[1] == 0 && $w[2] == 0)
        ? join('.', unpack 'C4', pack 'N', $w[3])
        : Socket::inet_ntop(Socket::AF_INET6(), pack 'N4', @w);
    $t .= "%$a->{rtdom_id}" if $a->{rtdom_id} != 0;
    return $t;
}

# parse_address_text($text): the address hash (all five fields) of a valid
# address text, undef for anything else.
sub parse_address_text {
    my $t = shift;
    return undef if !defined $t || ref $t || utf8::is_utf8($t) && $t =~ /[^\x00-\x7F]/;
    my ($ip, $dom) = $t =~ /\A([^%]*)(?:%([0-9]{1,10}))?\z/ or return undef;
    return undef if defined $dom && $dom > 4294967295;
    my %a = (rtdom_id => defined $dom ? 0 + $dom : 0);
    if ($ip =~ /\A[0-9.]+\z/) {
        my $p = Socket::inet_pton(Socket::AF_INET(), $ip) or return undef;
        @a{qw(ip0 ip1 ip2 ip3)} = (0, 0, 0, unpack 'N', $p);
        return \%a;
    }
    return undef if $ip =~ /[\x00-\x20\[\]]/ || $ip eq '';
    my $p = Socket::inet_pton(Socket::AF_INET6(), $ip) or return undef;
    @a{qw(ip0 ip1 ip2 ip3)} = unpack 'N4', $p;
    return \%a;
}

# ---- Perl values in error texts --------------------------------------------------------

# describe($value): the DESC texts the value may have (one in all but the
# cases the rules leave open).
sub describe {
    my $v = shift;
    return ('undef') unless defined $v;
    if (my $r = ref $v) {
        return ("a $r object") if blessed $v;
        return ('an array reference') if $r eq 'ARRAY';
        return ('a hash reference') if $r eq 'HASH';
        return ('a code reference') if $r eq 'CODE';
        return ('a scalar reference') if $r eq 'SCALAR';
        return ('a scalar reference', 'a reference') if $r eq 'REF';
        return ('a reference');
    }
    return ('a glob') if reftype(\$v) eq 'GLOB';
    my $f = B::svref_2object(\$v)->FLAGS;
    return ('a string') if $f & B::SVf_POK();
    return ('a number');
}

# display($string [, $max]): the value as error texts show it: in double
# quotes, bytes outside 0x20..0x7E as \xhh, cut to $max bytes (default 40)
# and then "..." after the closing quote. A string of characters is shown by
# its characters when they all fit in a byte, else by its UTF-8 bytes.
sub display {
    my ($s, $max) = @_;
    $max = 40 unless defined $max;
    utf8::encode($s) if utf8::is_utf8($s) && !utf8::downgrade($s, 1);
    my $cut = length $s > $max;
    $s = substr $s, 0, $max if $cut;
    $s =~ s/([^\x20-\x7E])/sprintf '\\x%02x', ord $1/ge;
    return '"' . $s . '"' . ($cut ? '...' : '');
}

sub _distance {
    my ($s, $t) = @_;
    my @prev = (0 .. length $t);
    for my $i (1 .. length $s) {
        my @cur = ($i);
        my $cs = substr $s, $i - 1, 1;
        for my $j (1 .. length $t) {
            my $cost = $cs eq substr($t, $j - 1, 1) ? 0 : 1;
            my $m = $prev[$j] + 1;
            $m = $cur[$j - 1] + 1 if $cur[$j - 1] + 1 < $m;
            $m = $prev[$j - 1] + $cost if $prev[$j - 1] + $cost < $m;
            push @cur, $m;
        }
        @prev = @cur;
    }
    return $prev[-1];
}

# suggestion($key, @names): the name suggested for an unknown key (the first
# of the nearest), or undef when the nearest is more than 3 edits away or
# more than half the key's length.
sub suggestion {
    my ($key, @names) = @_;
    my ($best, $bd);
    for my $n (@names) {
        next if abs(length($n) - length($key)) > 3;
        my $d = _distance($key, $n);
        ($best, $bd) = ($n, $d) if !defined $bd || $d < $bd;
    }
    return undef if !defined $bd || $bd > 3 || 2 * $bd > length $key;
    return $best;
}

# ---- the hash form ---------------------------------------------------------------------

# class_to_codec_form($class_hash, \%options, $keep_hash): the hash the codec
# must decode to, given the record class's hash form of the same bytes and
# the options (characters, addresses, unknown_fields), without `_unknown`
# keys. $keep_hash is the codec's decoding with default options, whose
# `_unknown` keys of addresses tell which addresses had unknown fields.
sub class_to_codec_form {
    my ($h, $o, $keep) = @_;
    my %out;
    for my $k (keys %$h) {
        my $v = $h->{$k};
        my $kind = $RECORD_KIND{$k};
        if ($kind eq 'string') { $out{$k} = $o->{characters} ? bytes_to_chars($v) : $v }
        elsif ($kind eq 'list') { $out{$k} = [ map { $o->{characters} ? bytes_to_chars($_) : $_ } @$v ] }
        elsif ($kind eq 'address') {
            my $whole = 5 == grep { exists $v->{$_} } @ADDR_NAMES;
            # Unknown fields keep an address a hash unless they are dropped.
            my $had_unknown = $o->{unknown_fields} eq 'keep' && $keep && ref $keep->{$k} eq 'HASH' && exists $keep->{$k}{_unknown};
            $out{$k} = ($o->{addresses} eq 'text' && $whole && !$had_unknown) ? address_text($v) : {%$v};
        }
        else { $out{$k} = $v }
    }
    return \%out;
}

1;
