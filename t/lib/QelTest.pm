package QelTest;

# Shared helpers for the test suite of quillon_event_log::QuillonEventLog:
# hex dumps, record construction, a reader of the .proto at the top of the
# distribution, a pure-Perl wire encoder of the hash form of a record that
# the tests use as an oracle for what `pack` must produce, records of any given
# encoded length for the length sweeps (tag :sweep), the building and running
# of the C++ checks, and the two peers of the interop tests: Debian's protoc
# and the pure-Perl protocol-buffer library (tag :peers).

use strict;
use warnings;

use Exporter 'import';
use Cwd ();
use File::Basename ();

our @EXPORT = qw(hexs new_rec proto_fields encode_ref);
our @EXPORT_OK = qw(
    $CLASS $ADDR_CLASS
    field_table field_names family_fields family_of address_fields
    proto_path proto_text
    unhex varint framed bytes_is run_perl
    error_of code_for at_re usage_re
    $TYPE_RE $EMPTY_RE $IP_TYPE_RE $IP_EMPTY_RE
    flags_of is_string_sv is_int_sv
    ip_fields present_fields empty_handle_ok
    in_path sh_quote sh_words describe_status slurp spew
    cpp_skip_reason build_cpp build_cpp_ok run_program relay_tap perl_embed_flags
    quietly vlen string_fit string_for pattern_bytes
    record_hash_of_length sweep_lengths unknown_field_samples
    protoc_skip_reason run_protoc protoc_decode_batch protoc_encode_batch
    perl_peer_skip_reason perl_peer peer_plain hash_text hash_key
);
our %EXPORT_TAGS = (
    sweep => [qw(quietly vlen string_fit string_for pattern_bytes record_hash_of_length sweep_lengths unknown_field_samples)],
    peers => [qw(protoc_skip_reason run_protoc protoc_decode_batch protoc_encode_batch
                 perl_peer_skip_reason perl_peer peer_plain hash_text hash_key)],
);
$EXPORT_TAGS{all} = [@EXPORT, @EXPORT_OK];

our $CLASS      = 'quillon_event_log::QuillonEventLog';
our $ADDR_CLASS = 'quillon_event_log::IPAddr';

# Located once at load time, so a test that changes directory later still
# finds the schema.
my $ROOT = Cwd::abs_path(File::Basename::dirname(Cwd::abs_path(__FILE__)) . '/../..');

# The record's fields as [name, number, kind], in field-number order, read
# from the .proto (never asked of the module: the oracle must not learn the
# layout from the code it checks). kind is the family of the field:
#   string   optional string       uint32   optional uint32
#   uint64   optional uint64       bool     optional bool
#   address  optional IPAddr       list     repeated string
# A field of any other label or type stops the suite here: the encoder below
# would not know how to write it. t/05_field_table.t compares the .proto with a
# fixed list of the expected fields and with `fields`.
my %KIND_OF = (
    'optional string' => 'string',
    'optional uint32' => 'uint32',
    'optional uint64' => 'uint64',
    'optional bool'   => 'bool',
    'optional IPAddr' => 'address',
    'repeated string' => 'list',
);
my @FAMILIES = qw(string uint32 uint64 bool address list);

my @FIELDS = sort { $a->[1] <=> $b->[1] } map {
    my ($name, $number, $label, $type) = @$_;
    my $kind = $KIND_OF{"$label $type"}
        or die "QelTest: no rule for the field '$label $type $name = $number' of " . proto_path() . "\n";
    [$name, $number, $kind];
} proto_fields();

my %FAMILY_OF = map { $_->[0] => $_->[2] } @FIELDS;
my %FIELDS_BY_NAME = map { $_->[0] => $_ } @FIELDS;

# The address message: [name, number] of its fields, each an optional uint32.
my @ADDR_FIELDS = sort { $a->[1] <=> $b->[1] } map {
    my ($name, $number, $label, $type) = @$_;
    die "QelTest: no rule for the address field '$label $type $name = $number' of " . proto_path() . "\n"
        unless "$label $type" eq 'optional uint32';
    [$name, $number];
} proto_fields('IPAddr');

# field_table(): copies of [name, number, kind] for every field of the record.
sub field_table { map { [@$_] } @FIELDS }

# field_names(): the names of the record's fields in field-number order.
sub field_names { map { $_->[0] } @FIELDS }

# family_fields($family): the names of the fields of one family (string,
# uint32, uint64, bool, address, list) in field-number order.
sub family_fields {
    my $family = shift;
    die "family_fields: unknown family '" . (defined $family ? $family : 'undef') . "'\n"
        unless defined $family && grep { $_ eq $family } @FAMILIES;
    return map { $_->[0] } grep { $_->[2] eq $family } @FIELDS;
}

# family_of($name): the family of a field of the record, undef for a name that
# is not one of its fields.
sub family_of { $FAMILY_OF{ $_[0] } }

# address_fields(): the names of the address fields (ip0 .. rtdom_id) in
# field-number order.
sub address_fields { map { $_->[0] } @ADDR_FIELDS }

# hexs($bytes): lower-case hex of a byte string.
sub hexs { unpack 'H*', $_[0] }

# unhex($hex): bytes from hex text; white space in the text is ignored.
sub unhex {
    (my $h = shift) =~ s/\s+//g;
    pack 'H*', $h;
}

# new_rec(%fields) or new_rec(\%fields): a new record built from the hash form.
sub new_rec {
    require quillon_event_log::QuillonEventLog;
    my $h = (@_ == 1 && ref $_[0] eq 'HASH') ? $_[0] : {@_};
    return $CLASS->new($h);
}

sub proto_path { "$ROOT/quillon_event_log.proto" }

# proto_text(): the schema with its comments removed.
sub proto_text {
    my $path = proto_path();
    open my $fh, '<', $path or die "cannot read $path: $!";
    local $/;
    my $text = <$fh>;
    close $fh;
    $text =~ s{/\*.*?\*/}{ }gs;
    $text =~ s{//[^\n]*}{}g;
    return $text;
}

# proto_fields([$message]): [name, number, label, type] for every field of the
# message (default QuillonEventLog), in declaration order. A message type is
# given without its package qualifier ("IPAddr" for ".quillon_event_log.IPAddr").
sub proto_fields {
    my $message = @_ ? shift : 'QuillonEventLog';
    my $text = proto_text();
    $text =~ /\bmessage\s+\Q$message\E\s*\{/g
        or die "message $message not found in " . proto_path() . "\n";
    my $start = pos $text;
    my ($depth, $i) = (1, $start);
    while ($depth && $i < length $text) {
        my $c = substr $text, $i++, 1;
        $depth++ if $c eq '{';
        $depth-- if $c eq '}';
    }
    die "message $message is not closed\n" if $depth;
    my $body = substr $text, $start, $i - 1 - $start;

    my @out;
    while ($body =~ /\b(optional|required|repeated)\s+([\w.]+)\s+(\w+)\s*=\s*(\d+)\s*(?:\[[^\]]*\])?\s*;/g) {
        my ($label, $type, $name, $number) = ($1, $2, $3, $4);
        $type =~ s/^\.//;
        $type =~ s/^quillon_event_log\.//;
        push @out, [$name, 0 + $number, $label, $type];
    }
    return @out;
}

# varint($n): base-128 encoding of an unsigned integer up to 2**64-1, given as
# a number or as a string of decimal digits. Long division on the decimal text
# keeps it exact whatever the width of Perl's integers.
sub varint {
    my $n = shift;
    die "varint: not an unsigned decimal number: '$n'\n" unless $n =~ /^[0-9]+$/;
    $n =~ s/^0+(?=.)//;
    my @groups;
    while (1) {
        my ($q, $r) = ('', 0);
        for my $d (split //, $n) {
            my $cur = $r * 10 + $d;
            $q .= int($cur / 128);
            $r = $cur % 128;
        }
        $q =~ s/^0+(?=.)//;
        push @groups, $r;
        last if $q eq '0';
        $n = $q;
    }
    $groups[$_] |= 0x80 for 0 .. $#groups - 1;
    return pack 'C*', @groups;
}

# Records as a stream: each preceded by its length as a varint.
sub framed { join '', map { varint(length $_) . $_ } @_ }

sub _tag { varint(($_[0] << 3) | $_[1]) }

sub _bytes_of {
    my $v = shift;
    $v = '' unless defined $v;
    $v = "$v";
    utf8::encode($v) if utf8::is_utf8($v);
    return $v;
}

sub _u32 {
    my $v = shift;
    no warnings qw(numeric uninitialized);
    return ($v + 0) & 0xffffffff;
}

sub _ld { my ($num, $payload) = @_; _tag($num, 2) . varint(length $payload) . $payload }

# encode_ref(\%hash): the wire encoding of a record given in its hash form
# (the form that to_hashref returns): keys are field names; strings are taken
# as bytes (a character string as its UTF-8 encoding); uint32 and bool values
# are numbers (a bool is true when its integer value is not zero); uint64
# values are decimal strings; client_ip and dest_ip are hashes with ip0..ip3
# and rtdom_id (any other value gives an empty address); anomaly_categories and
# anomalies are array references (holes are skipped, undef is ""). Unknown keys
# are ignored. Fields are written in field-number order.
sub encode_ref {
    my $h = shift;
    die "encode_ref: not a hash reference\n" unless ref $h eq 'HASH';
    my $out = '';
    for my $f (@FIELDS) {
        my ($name, $num, $kind) = @$f;
        next unless exists $h->{$name};
        my $v = $h->{$name};
        if ($kind eq 'string') {
            $out .= _ld($num, _bytes_of($v));
        }
        elsif ($kind eq 'uint32') {
            $out .= _tag($num, 0) . varint(_u32($v));
        }
        elsif ($kind eq 'uint64') {
            $out .= _tag($num, 0) . varint(defined $v ? $v : 0);
        }
        elsif ($kind eq 'bool') {
            no warnings qw(numeric uninitialized);
            $out .= _tag($num, 0) . (int($v) != 0 ? "\x01" : "\x00");
        }
        elsif ($kind eq 'address') {
            my $sub = '';
            if (ref $v eq 'HASH') {
                for my $a (@ADDR_FIELDS) {
                    next unless exists $v->{ $a->[0] };
                    $sub .= _tag($a->[1], 0) . varint(_u32($v->{ $a->[0] }));
                }
            }
            $out .= _ld($num, $sub);
        }
        elsif ($kind eq 'list') {
            next unless ref $v eq 'ARRAY';
            for my $i (0 .. $#$v) {
                next unless exists $v->[$i];
                $out .= _ld($num, _bytes_of($v->[$i]));
            }
        }
    }
    return $out;
}

# bytes_is($got, $expected, $name): byte-string equality that, on failure,
# reports the lengths and the first differing offset instead of dumping
# megabytes of data.
sub bytes_is {
    my ($got, $exp, $name) = @_;
    require Test::More;
    my $tb = Test::More->builder;
    my $ok = defined $got && defined $exp && $got eq $exp;
    local $Test::Builder::Level = $Test::Builder::Level + 1;
    $tb->ok($ok, $name);
    unless ($ok) {
        if (!defined $got || !defined $exp) {
            $tb->diag(sprintf "got %s, expected %s",
                defined $got ? 'a string' : 'undef', defined $exp ? 'a string' : 'undef');
        }
        else {
            my $i = 0;
            my $max = length $got < length $exp ? length $got : length $exp;
            $i++ while $i < $max && substr($got, $i, 1) eq substr($exp, $i, 1);
            my $from = $i > 8 ? $i - 8 : 0;
            $tb->diag(sprintf "lengths %d (got) and %d (expected); first difference at offset %d\n"
                . "  got      ...%s\n  expected ...%s",
                length $got, length $exp, $i,
                hexs(substr $got, $from, 24), hexs(substr $exp, $from, 24));
        }
    }
    return $ok;
}

# run_perl($code): runs $code in a new perl with this process's @INC and
# returns ($status, $output): $? of the child and its standard output and
# standard error together. For behaviour that ends the process.
sub run_perl {
    my $code = shift;
    require IPC::Open3;
    require Symbol;
    my $out = Symbol::gensym();
    my $pid = IPC::Open3::open3(my $in, $out, undef,
        $^X, (map { "-I$_" } grep { !ref } @INC), '-e', $code);
    close $in;
    my $text = do { local $/; <$out> };
    waitpid $pid, 0;
    return ($?, defined $text ? $text : '');
}

# ---- records of a given encoded length (the sweeps of the pack tests) --------

# quietly { ... }: runs the block with file descriptor 2 sent to /dev/null and
# returns what it returned (its last value in scalar context). The
# protocol-buffer runtime logs strings that are not UTF-8 there, which is
# noise for the tests. An exception of the block is passed on once standard
# error is back.
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

# vlen($n): the number of bytes of the base-128 encoding of $n.
sub vlen { my $n = shift; my $l = 1; $l++ while ($n >>= 7); $l }

# string_fit($len, $taglen): the byte count n for which a string field whose
# tag takes $taglen bytes encodes to exactly $len bytes (tag, length, n
# bytes), or undef when there is none.
sub string_fit {
    my ($len, $taglen) = @_;
    for my $vl (1 .. 4) {
        my $n = $len - $taglen - $vl;
        return $n if $n >= 0 && vlen($n) == $vl;
    }
    return undef;
}

# string_for($len, $pick, \%exclude): a string field of the record that is not
# a key of %exclude, tried from position $pick (modulo their number) of the
# string fields on, and the byte count that makes it encode to exactly $len
# bytes. Dies when no field fits; with both a one-byte and a two-byte tag
# available, every $len from 2 up fits.
sub string_for {
    my ($len, $pick, $exclude) = @_;
    my @strings = family_fields('string');
    my @order = grep { !exists $exclude->{$_} } map { $strings[($pick + $_) % @strings] } 0 .. $#strings;
    for my $f (@order) {
        my $n = string_fit($len, length _tag($FIELDS_BY_NAME{$f}[1], 2));
        return ($f, $n) if defined $n;
    }
    die "string_for: no string field encodes to $len bytes\n";
}

# Bytes 0..127 (valid UTF-8, so the runtime has nothing to report) in a
# pseudo-random order that repeats every 4096 bytes; grown on demand.
my $PATTERN_BLOCK = do {
    my $x = 1;
    join '', map { $x = ($x * 1103515245 + 12345) % 2**31; chr(($x >> 16) & 0x7f) } 1 .. 4096;
};
my $PATTERN = '';

# pattern_bytes($n [, $offset]): $n bytes of that pattern, starting $offset
# (default 0) bytes into it.
sub pattern_bytes {
    my ($n, $offset) = @_;
    $offset = 0 unless defined $offset;
    $PATTERN .= $PATTERN_BLOCK while length $PATTERN < $offset + $n;
    return substr $PATTERN, $offset, $n;
}

# The fields a mixed record takes its values from: every family, with the
# largest uint32 and uint64 values, zeros, both bool values, lists holding
# empty elements and one whose element needs a two-byte length, empty and
# filled strings, and a present but empty address.
my $U64_MAX = '18446744073709551615';
my @MIXED_POOL = (
    [client_ip             => { ip0 => 4294967295, ip1 => 0, ip2 => 127, ip3 => 128, rtdom_id => 4294967295 }],
    [src_port              => 65535],
    [device_id             => $U64_MAX],
    [anomalies             => ['', 'scraper', "\x00\x7f", 'x' x 130]],
    [mobile_is_app         => 1],
    [dest_ip               => {}],
    [session_id            => $U64_MAX],
    [request_time          => 1700000000],
    [anomaly_categories    => ['automation', '']],
    [is_https_request      => 0],
    [http_method           => 'POST'],
    [slot_number           => 4294967295],
    [is_update_request     => 1],
    [support_id            => '0'],
    [country_code          => 'NZ'],
    [previous_support_id   => $U64_MAX],
    [reason                => ''],
    [host                  => 'www.example.test'],
    [previous_request_time => 0],
    [http_protocol_info    => 'HTTP/1.1'],
);
my @MIXED_POOL_SIZE;

# record_hash_of_length($len, $shape): a record in its hash form whose encoding
# (by encode_ref) is exactly $len bytes, $len at least 2. $shape 'string': one
# string field, chosen by $len, holding pattern bytes. $shape 'mixed': the
# fields of the pool above that fit, taken from a place in the pool that moves
# with $len, then one more string field that fills up the rest. The same
# arguments give the same record.
sub record_hash_of_length {
    my ($len, $shape) = @_;
    die "record_hash_of_length: the length must be a whole number of at least 2\n"
        unless defined $len && $len =~ /^[0-9]+\z/ && $len >= 2;
    $shape = '' unless defined $shape;
    my %h;
    if ($shape eq 'string') {
        my ($f, $n) = string_for($len, $len * 3, {});
        $h{$f} = pattern_bytes($n, $len % 101);
    }
    elsif ($shape eq 'mixed') {
        @MIXED_POOL_SIZE = map { length encode_ref({ $_->[0] => $_->[1] }) } @MIXED_POOL
            unless @MIXED_POOL_SIZE;
        my $rest = $len;
        for my $k (0 .. $#MIXED_POOL) {
            my $i = ($len + $k) % @MIXED_POOL;
            my $size = $MIXED_POOL_SIZE[$i];
            # A string field takes at least 2 bytes: never leave 1 to fill.
            next unless $size == $rest || $size <= $rest - 2;
            $h{ $MIXED_POOL[$i][0] } = $MIXED_POOL[$i][1];
            $rest -= $size;
        }
        if ($rest) {
            my ($f, $n) = string_for($rest, $len * 7, \%h);
            $h{$f} = pattern_bytes($n, $len % 89);
        }
    }
    else {
        die "record_hash_of_length: the shape is 'string' or 'mixed', not '$shape'\n";
    }
    my $got = length encode_ref(\%h);
    die "record_hash_of_length: the $shape record for $len bytes encodes to $got bytes\n" unless $got == $len;
    return \%h;
}

# unknown_field_samples(): [description, hex] of one field of every wire type
# at the numbers the schema leaves free (6 and 31): varints (one of 10
# bytes), fixed64, length-delimited (one empty), groups (one empty), fixed32.
sub unknown_field_samples {
    return (
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
}

# sweep_lengths(): the encoded lengths the pack tests sweep over, ascending:
# every length from 2 to 3000 and every length within 3 bytes of a power of
# two up to 2**20.
sub sweep_lengths {
    my %seen;
    my @near = map { my $p = 2**$_; map { $p + $_ } -3 .. 3 } 1 .. 20;
    return sort { $a <=> $b } grep { $_ >= 2 && !$seen{$_}++ } 2 .. 3000, @near;
}

# ---- helpers of the accessor and error tests ---------------------------------

# error_of { ... }: runs the block and returns the exception it died with, or
# undef when it did not die.
sub error_of (&) {
    my ($code) = @_;
    local $@;
    return eval { $code->(); 1 } ? undef : $@;
}

# code_for($name [, $class]): the sub $class::$name (default: the record
# class), or undef when there is none. Calling it as a plain function lets a
# test hand the XSUB any invocant and any number of arguments.
sub code_for {
    my ($name, $class) = @_;
    $class = $CLASS unless defined $class;
    no strict 'refs';
    return defined(&{"${class}::$name"}) ? \&{"${class}::$name"} : undef;
}

# at_re($text [, $file]): matches exactly $text followed by Perl's location
# " at FILE line N.\n"; with $file given, FILE must be that file.
sub at_re {
    my ($text, $file) = @_;
    return defined $file
        ? qr/^\Q$text at $file line \E\d+\.\n\z/
        : qr/^\Q$text\E at \S+ line \d+\.\n\z/;
}

# usage_re($method, $usage [, $class]): the interpreter's usage error of
# $class::$method (default: the record class) with the usage text $usage.
sub usage_re {
    my ($method, $usage, $class) = @_;
    $class = $CLASS unless defined $class;
    return at_re("Usage: ${class}::$method($usage)");
}

our $TYPE_RE     = at_re("THIS is not of type $CLASS");
our $EMPTY_RE    = at_re("THIS holds no $CLASS record");
our $IP_TYPE_RE  = at_re("THIS is not of type $ADDR_CLASS");
our $IP_EMPTY_RE = at_re("THIS holds no $ADDR_CLASS address");

# flags_of($value): the SV flags of a scalar; is_string_sv / is_int_sv: a
# string that is not also a number, an integer that is not also a string.
sub flags_of { require B; B::svref_2object(\$_[0])->FLAGS }
sub is_string_sv { my $fl = flags_of($_[0]); ($fl & B::SVf_POK()) && !($fl & (B::SVf_IOK() | B::SVf_NOK())) }
sub is_int_sv    { my $fl = flags_of($_[0]); ($fl & B::SVf_IOK()) && !($fl & B::SVf_POK()) }

# ip_fields($address): the fields present in an address object, as a plain
# hash read through its accessors (has_ip0, ip0, ...).
sub ip_fields {
    my ($a) = @_;
    my %h;
    for my $f (address_fields()) {
        my $has = "has_$f";
        $h{$f} = $a->$f if $a->$has;
    }
    return \%h;
}

# present_fields($record): the singular fields whose has_ answers 1, in
# field-number order.
sub present_fields {
    my ($r) = @_;
    return [ grep { my $has = "has_$_"; $r->$has } map { $_->[0] } grep { $_->[2] ne 'list' } @FIELDS ];
}

# empty_handle_ok($handle, $field, $value, $error_re, $what): on a handle that
# holds no record (or no address), the getter of the singular field $field
# returns the empty list, and has_$field, clear_$field and set_$field($value)
# die with an error matching $error_re. $what names the handle in the test
# names. Four assertions.
sub empty_handle_ok {
    my ($handle, $f, $value, $error_re, $what) = @_;
    require Test::More;
    local $Test::Builder::Level = $Test::Builder::Level + 1;
    my @got = $handle->$f;
    Test::More::is(scalar(@got), 0, "$what: $f returns the empty list");
    for my $m ("has_$f", "clear_$f") {
        my $err = error_of { $handle->$m };
        Test::More::like($err, $error_re, "$what: $m dies");
    }
    my $set = "set_$f";
    my $err = error_of { $handle->$set($value) };
    Test::More::like($err, $error_re, "$what: $set dies");
}

# ---- C++ programs built against the generated message classes -----------------

# _abs($path): $path, taken relative to the repository root unless absolute.
sub _abs { my $path = shift; $path =~ m{^/} ? $path : "$ROOT/$path" }

# in_path($prog): the full path of the executable $prog found in PATH, or undef.
sub in_path {
    my $prog = shift;
    for my $dir (split /:/, $ENV{PATH} // '') {
        my $file = "$dir/$prog";
        return $file if -f $file && -x _;
    }
    return undef;
}

# sh_quote($text): $text as one word of /bin/sh.
sub sh_quote {
    my $s = shift;
    $s =~ s/'/'\\''/g;
    return "'$s'";
}

# sh_words(@words): a command line for sh, every word quoted.
sub sh_words { join ' ', map { sh_quote($_) } @_ }

# describe_status($?): a wait status in words.
sub describe_status {
    my $status = shift;
    return 'could not run' if $status == -1;
    return 'killed by signal ' . ($status & 127) if $status & 127;
    return 'exit ' . ($status >> 8);
}

# spew($path, $bytes): writes the file, or dies.
sub spew {
    my ($path, $bytes) = @_;
    open my $fh, '>:raw', $path or die "$path: $!\n";
    print $fh $bytes;
    close $fh or die "$path: $!\n";
}

# slurp($path): the whole file as bytes, or "" when it cannot be read.
sub slurp {
    my $path = shift;
    open my $fh, '<:raw', $path or return '';
    local $/;
    my $text = <$fh>;
    return defined $text ? $text : '';
}

sub _pb_dir { "$ROOT/src" }

# cpp_skip_reason([@objects]): undef when C++ programs can be built against
# the generated message classes here (g++, pkg-config knowing protobuf, and
# src/quillon_event_log.pb.o with its header, and each further object in
# @objects, paths relative to the top of the distribution); otherwise why not,
# naming what to install or run.
sub cpp_skip_reason {
    my @objects = @_;
    in_path('g++')
        or return 'g++ is not installed (apt-get install g++)';
    in_path('pkg-config') && system('pkg-config --exists protobuf') == 0
        or return 'pkg-config protobuf is not available (apt-get install pkg-config libprotobuf-dev)';
    -e _pb_dir() . '/quillon_event_log.pb.o' && -e _pb_dir() . '/quillon_event_log.pb.h'
        or return 'src/quillon_event_log.pb.o has not been built yet (run make)';
    for my $object (@objects) {
        -e _abs($object)
            or return "$object has not been built yet (run make)";
    }
    return undef;
}

# perl_embed_flags(): the compiler and linker flags of a program that embeds
# this perl, as ExtUtils::Embed gives them (ccopts, ldopts), as two strings.
# Without the development symlink libperl.so (Debian's libperl-dev), -lperl
# finds nothing; the shared library itself ($Config{libperl}, e.g.
# libperl.so.5.36) is then linked by its full path.
sub perl_embed_flags {
    require ExtUtils::Embed;
    require Config;
    # ccopts prints its flags under perl -e and returns them otherwise;
    # ldopts with arguments always returns them (1: the standard set).
    my $returned;
    my $printed = _captured(sub { $returned = ExtUtils::Embed::ccopts() });
    my $ccopts = $printed =~ /\S/ ? $printed : $returned;
    my $ldopts = ExtUtils::Embed::ldopts(1);
    s/^\s+//, s/\s+\z// for $ccopts, $ldopts;
    if ($ldopts =~ /(?:^|\s)-lperl(?:\s|\z)/) {
        my @dirs = (($ldopts =~ /(?:^|\s)-L(\S+)/g), split(' ', $Config::Config{libpth} // ''),
                    "$Config::Config{archlibexp}/CORE");
        my $linkable = grep { -e "$_/libperl.so" || -e "$_/libperl.a" } @dirs;
        my $libperl = $Config::Config{libperl};
        my ($file) = grep { -e } map { "$_/$libperl" } @dirs;
        $ldopts =~ s/(^|\s)-lperl(?=\s|\z)/$1 . sh_quote($file)/e
            if !$linkable && defined $file;
    }
    return ($ccopts, $ldopts);
}

# What a sub prints on the selected output handle.
sub _captured {
    my $code = shift;
    my $text = '';
    {
        open my $fh, '>', \$text or die "cannot capture: $!";
        my $old = select $fh;
        $code->();
        select $old;
        close $fh;
    }
    return $text;
}

# build_cpp($source [, objects => \@objects, cflags => $flags, ldflags => $flags]):
# compiles the C++ program $source (a path, relative to the top of the
# distribution unless absolute) and links it with src/quillon_event_log.pb.o,
# the further objects @objects (paths relative to the top, e.g.
# 'src/output_stream.o') and the protobuf library, into a new temporary
# directory that is removed when the test ends. $cflags go on the compiler's
# command line before the source (after -Isrc and the protobuf flags), $ldflags
# after the libraries (see perl_embed_flags for a program that embeds perl).
# Returns a hash reference:
#   skip     why nothing was tried (see cpp_skip_reason); no other key is set
#   dir      the temporary directory, for the program's scratch files
#   bin      the program, or undef when it did not compile or link
#   command  the compiler's command line
#   output   what the compiler printed
sub build_cpp {
    my ($source, %opt) = @_;
    require File::Temp;
    my @objects = @{ $opt{objects} || [] };
    if (defined(my $why = cpp_skip_reason(@objects))) {
        return { skip => $why };
    }
    my $src = _abs($source);
    (my $name = File::Basename::basename($src)) =~ s/\.[^.]*\z//;
    (my $tag = $name) =~ tr/_/-/;

    chomp(my $pb_cflags = `pkg-config --cflags protobuf`);
    chomp(my $pb_libs   = `pkg-config --libs protobuf`);
    my $pb_dir = _pb_dir();
    my $pb_obj = "$pb_dir/quillon_event_log.pb.o";
    my @objs = ($pb_obj, map { _abs($_) } @objects);

    # A sanitizer build of the message classes needs the same runtime here.
    my $symbols = join '', map { `nm $_ 2>/dev/null` // '' } map { sh_quote($_) } @objs;
    my @sanitize = (($symbols =~ /__asan_/ ? 'address' : ()), ($symbols =~ /__ubsan_/ ? 'undefined' : ()));
    my $sanitize = @sanitize ? '-fsanitize=' . join(',', @sanitize) : '';

    my $dir = File::Temp::tempdir("qel-$tag-XXXXXX", TMPDIR => 1, CLEANUP => 1);
    my $bin = "$dir/$name";
    my $command = join ' ', sh_quote(in_path('g++')), '-std=gnu++17', '-O1', $sanitize, '-I' . sh_quote($pb_dir), $pb_cflags,
        (defined $opt{cflags} ? $opt{cflags} : ()),
        '-o', sh_quote($bin), sh_quote($src), (map { sh_quote($_) } @objs), $pb_libs,
        (defined $opt{ldflags} ? $opt{ldflags} : ());
    my $output = `$command 2>&1`;
    my $built = $? == 0 && -x $bin;
    return { dir => $dir, bin => ($built ? $bin : undef), command => $command, output => $output };
}

# build_cpp_ok($source [, %options]): build_cpp($source, %options) for a test
# file that checks a C++ program. When the program cannot be built here the
# whole file is skipped (plan skip_all, with the reason). Otherwise one
# assertion, "$source compiles and links with src/quillon_event_log.pb.o"
# (and the further objects, if any), with the compiler's command and output as
# diagnostics when it fails, and then the test file ends there. Returns the
# directory for scratch files and the program.
sub build_cpp_ok {
    my ($source, %opt) = @_;
    require Test::More;
    my $build = build_cpp($source, %opt);
    Test::More::plan(skip_all => $build->{skip}) if defined $build->{skip};
    local $Test::Builder::Level = $Test::Builder::Level + 1;
    my $with = join ' ', 'src/quillon_event_log.pb.o', @{ $opt{objects} || [] };
    Test::More::ok(defined $build->{bin}, "$source compiles and links with $with")
        or Test::More::diag("$build->{command}\n$build->{output}");
    unless (defined $build->{bin}) {
        Test::More::done_testing();
        exit;
    }
    return @$build{qw(dir bin)};
}

# run_program(\@argv, dir => $dir [, stdin => $file]): runs the command
# @argv with its standard output and standard error sent to files in $dir (no
# pipe to fill up, whatever the size of the output) and its standard input
# read from $file (default: this process's). Returns the output as bytes, the
# wait status and what the program wrote on standard error.
sub run_program {
    my ($argv, %opt) = @_;
    my $dir = $opt{dir} or die "run_program: no dir\n";
    my $out = "$dir/stdout.bin";
    my $err = "$dir/stderr.txt";
    unlink $out, $err;
    my $cmd = join ' ', (map { sh_quote($_) } @$argv),
        (defined $opt{stdin} ? '<' . sh_quote($opt{stdin}) : ()),
        '>' . sh_quote($out), '2>' . sh_quote($err);
    system $cmd;
    my $status = $?;
    my ($stdout, $stderr) = (slurp($out), slurp($err));
    unlink $out;
    return ($stdout, $status, $stderr);
}

# relay_tap($bin, dir => $dir [, valgrind => $flag, expected_stderr => $text,
# cleanup => $text]): runs the C++ check program $bin (see t/cpp/tap.h) with
# its scratch files in $dir and relays its TAP as tests of this file:
#   - "ok N - name" and "not ok N - name" become ok() with the same name,
#     within a TODO when the line ends in "# TODO why"; a number out of
#     sequence is reported by diag();
#   - "# " lines following a failure that is not TODO become diag(), all other
#     "# " lines note(); a line of any other form is reported by diag();
#   - then "the C++ checks all ran (P planned, S seen)": a plan was printed,
#     it matches the number of checks, and there was at least one;
#   - and "the C++ program exits 0", with the wait status as diagnostics.
# What the program wrote on standard error is shown by diag() when a check
# failed (TODO ones aside) or the exit status was not 0, otherwise by note(),
# as what is expected there when $text is given (" ($text are expected)").
# With $flag true the program is run a second time, under valgrind: four more
# tests (skipped when valgrind is not installed): exit 0 (no memory errors,
# no definite leaks), every check ran and passed (TODO ones aside), nothing
# in use at exit ("under valgrind: $text", the cleanup option; by default
# "ShutdownProtobufLibrary() leaves nothing in use"), and no errors at all.
# The tests are reported at the line of the call.
sub relay_tap {
    my ($bin, %opt) = @_;
    require Test::More;
    my $dir = $opt{dir} or die "relay_tap: no dir\n";
    local $Test::Builder::Level = $Test::Builder::Level + 1;

    my ($out, $status, $stderr) = run_program([$bin, @{ $opt{args} || [] }], dir => $dir);
    my ($planned, $seen, $failed) = _relay_lines($out);
    Test::More::ok(defined $planned && $planned == $seen && $seen > 0,
        'the C++ checks all ran (' . ($planned // 'no plan') . " planned, $seen seen)");
    Test::More::is($status, 0, 'the C++ program exits 0')
        or Test::More::diag(describe_status($status));
    if ($failed || $status != 0) {
        Test::More::diag("stderr of the C++ program:\n$stderr") if length $stderr;
    }
    elsif (length $stderr) {
        my $expected = defined $opt{expected_stderr} ? " ($opt{expected_stderr} are expected)" : '';
        Test::More::note("stderr of the C++ program$expected:\n$stderr");
    }

    _relay_valgrind($bin, $dir, $opt{cleanup} // 'ShutdownProtobufLibrary() leaves nothing in use')
        if $opt{valgrind};
    return;
}

# The TAP lines of relay_tap. Returns (planned, seen, failed): the number of
# the plan line (undef without one), the checks seen, and those of them that
# failed, TODO checks not counted.
sub _relay_lines {
    my ($out) = @_;
    my $tb = Test::More->builder;
    local $Test::Builder::Level = $Test::Builder::Level + 1;
    my ($planned, $seen, $failed) = (undef, 0, 0);
    my $quiet = 1;    # the last check passed or is TODO
    for my $line (split /\n/, $out) {
        if ($line =~ /^(not )?ok (\d+) - (.*?)(?: # TODO (.*))?$/) {
            my ($bad, $number, $name, $todo) = ($1, $2, $3, $4);
            ++$seen;
            $quiet = !$bad || defined $todo;
            ++$failed if $bad && !defined $todo;
            # A reason of "" or "0" is no TODO to Test::More.
            $tb->todo_start($todo) if $todo;
            Test::More::ok(!$bad, $name);
            $tb->todo_end if $todo;
            Test::More::diag("numbered $number, expected $seen") if $number != $seen;
        }
        elsif ($line =~ /^1\.\.(\d+)$/) {
            $planned = $1;
        }
        elsif ($line =~ /^#\s?(.*)$/) {
            $quiet ? Test::More::note($1) : Test::More::diag($1);
        }
        else {
            Test::More::diag("unexpected output: $line");
        }
    }
    return ($planned, $seen, $failed);
}

# The valgrind run of relay_tap: four tests.
sub _relay_valgrind {
    my ($bin, $dir, $cleanup) = @_;
    local $Test::Builder::Level = $Test::Builder::Level + 1;
    SKIP: {
        my $valgrind = in_path('valgrind')
            or Test::More::skip('valgrind is not installed (apt-get install valgrind)', 4);
        my $log = "$dir/valgrind.log";
        my ($vout, $vstatus) = run_program(
            [$valgrind, '--error-exitcode=99', '--leak-check=full', '--errors-for-leak-kinds=definite',
             '--child-silent-after-fork=yes', "--log-file=$log", $bin],
            dir => $dir,
        );
        my $report = slurp($log);
        Test::More::is($vstatus, 0, 'under valgrind: exit 0 (no memory errors, no definite leaks)')
            or Test::More::diag(describe_status($vstatus) . "\n$report");
        my @results = $vout =~ /^(?:not )?ok \d+ - /mg;
        my ($vplanned) = $vout =~ /^1\.\.(\d+)$/m;
        Test::More::ok(defined $vplanned && $vplanned == @results && $vout !~ /^not ok \d+ - (?:(?! # TODO ).)*$/m,
            'under valgrind: every C++ check ran and passed')
            or Test::More::diag($vout);
        Test::More::like($report, qr/in use at exit: 0 bytes in 0 blocks/, "under valgrind: $cleanup")
            or Test::More::diag($report);
        Test::More::like($report, qr/ERROR SUMMARY: 0 errors from 0 contexts/,
            'under valgrind: nothing is freed twice or read after it was freed')
            or Test::More::diag($report);
    }
    return;
}

# ---- the peers: Debian's protoc and the pure-Perl protocol-buffer library -----

# protoc_skip_reason(): undef when protoc is installed, else why not.
sub protoc_skip_reason {
    in_path('protoc') ? undef : 'protoc is not installed (apt-get install protobuf-compiler)';
}

# A temporary directory for protoc's input and output files and the wrapper
# schema of the batches: a message whose field 1 holds any number of records,
# so one protoc run reads or writes a whole batch of them.
my $PEER_DIR;
sub _peer_dir {
    return $PEER_DIR if defined $PEER_DIR;
    require File::Temp;
    $PEER_DIR = File::Temp::tempdir('qel-peers-XXXXXX', TMPDIR => 1, CLEANUP => 1);
    open my $fh, '>', "$PEER_DIR/qel_peer_batch.proto" or die "cannot write the batch schema: $!";
    print $fh qq{syntax = "proto2";\npackage qel_peer_batch;\nimport "quillon_event_log.proto";\n},
              qq{message Batch { repeated quillon_event_log.QuillonEventLog record = 1; }\n};
    close $fh or die "cannot write the batch schema: $!";
    return $PEER_DIR;
}

# run_protoc(\@args, $input): runs protoc (through run_program) with the
# arguments @args, with -I for the top directory and for the directory of
# the batch schema, $input (bytes) on its standard input. Returns its
# standard output (bytes), its wait status and its standard error.
sub run_protoc {
    my ($args, $input) = @_;
    my $protoc = in_path('protoc') or die "protoc is not installed\n";
    my $dir = _peer_dir();
    my $in = "$dir/in.bin";
    open my $fh, '>:raw', $in or die "cannot write $in: $!";
    print $fh $input;
    close $fh or die "cannot write $in: $!";
    my @result = run_program([$protoc, "-I$ROOT", "-I$dir", @$args], dir => $dir, stdin => $in);
    unlink $in;
    return @result;
}

sub _batch_error {
    my ($what, $status, $stderr, $detail) = @_;
    return "protoc $what: " . describe_status($status) . ($detail ? "; $detail" : '') . "\n$stderr";
}

# protoc_decode_batch(\@bytes): protoc's text form of each record of @bytes
# (wire bytes of one record each), all decoded by one run as one batch.
# protoc prints each record as a block "record {" ... "}" whose lines are
# indented by two spaces; the blocks are split apart and de-indented.
# Returns (\@texts, undef), or (undef, $why) when protoc fails or its output
# is not one such block per record.
sub protoc_decode_batch {
    my $list = shift;
    my $input = join '', map { "\x0a" . varint(length $_) . $_ } @$list;
    my ($out, $status, $stderr) = run_protoc(['--decode=qel_peer_batch.Batch', 'qel_peer_batch.proto'], $input);
    return (undef, _batch_error('--decode', $status, $stderr)) if $status;
    my (@texts, $text);
    my $line_no = 0;
    for my $line (split /^/m, $out) {
        ++$line_no;
        if (!defined $text && $line eq "record {\n") {
            $text = '';
        }
        elsif (defined $text && $line eq "}\n") {
            push @texts, $text;
            undef $text;
        }
        elsif (defined $text && $line =~ /\A  (.*\n)\z/s) {
            $text .= $1;
        }
        else {
            return (undef, _batch_error('--decode', $status, $stderr, "unexpected output line $line_no: $line"));
        }
    }
    return (undef, _batch_error('--decode', $status, $stderr, 'the last block is not closed')) if defined $text;
    return (undef, _batch_error('--decode', $status, $stderr, scalar(@texts) . ' blocks for ' . scalar(@$list) . ' records'))
        unless @texts == @$list;
    return (\@texts, undef);
}

# protoc_encode_batch(\@texts): protoc's wire bytes of each record given in
# the text form in @texts, all encoded by one run as one batch. Returns
# (\@bytes, undef), or (undef, $why) when protoc fails or its output is not
# one record field per text.
sub protoc_encode_batch {
    my $texts = shift;
    my $input = join '', map { (my $t = $_) =~ s/^(?=.)/  /mg; "record {\n$t}\n" } @$texts;
    my ($out, $status, $stderr) = run_protoc(['--encode=qel_peer_batch.Batch', 'qel_peer_batch.proto'], $input);
    return (undef, _batch_error('--encode', $status, $stderr)) if $status;
    my ($pos, @bytes) = (0);
    while ($pos < length $out) {
        return (undef, _batch_error('--encode', $status, $stderr, "no record field at offset $pos"))
            unless substr($out, $pos++, 1) eq "\x0a";
        my ($len, $shift) = (0, 0);
        while (1) {
            return (undef, _batch_error('--encode', $status, $stderr, 'the output ends inside a length'))
                if $pos >= length $out;
            my $b = ord substr $out, $pos++, 1;
            $len |= ($b & 0x7f) << $shift;
            $shift += 7;
            last unless $b & 0x80;
        }
        return (undef, _batch_error('--encode', $status, $stderr, 'the output ends inside a record'))
            if $pos + $len > length $out;
        push @bytes, substr $out, $pos, $len;
        $pos += $len;
    }
    return (undef, _batch_error('--encode', $status, $stderr, scalar(@bytes) . ' records for ' . scalar(@$texts) . ' texts'))
        unless @bytes == @$texts;
    return (\@bytes, undef);
}

# perl_peer_skip_reason(): undef when the pure-Perl library can be loaded,
# else why not.
sub perl_peer_skip_reason {
    return eval { require Google::ProtocolBuffers; 1 } ? undef
        : 'Google::ProtocolBuffers is not installed (apt-get install libgoogle-protocolbuffers-perl)';
}

# perl_peer(): the pure-Perl library's class of the record, made once from
# the text of the .proto. Only the package line is changed (to qel_peer), so
# that its classes are QelPeer::QuillonEventLog and QelPeer::IPAddr and stay
# clear of the module's own package names.
my $PEER_CLASS;
sub perl_peer {
    return $PEER_CLASS if defined $PEER_CLASS;
    require Google::ProtocolBuffers;
    my $text = slurp(proto_path());
    $text =~ s/^package\s+quillon_event_log\s*;/package qel_peer;/m
        or die "no package line in " . proto_path() . "\n";
    my @classes = Google::ProtocolBuffers->parse($text, {});
    die "the pure-Perl library made the classes @classes\n"
        unless "@classes" eq 'QelPeer::IPAddr QelPeer::QuillonEventLog';
    return $PEER_CLASS = 'QelPeer::QuillonEventLog';
}

# peer_plain($value): a copy of what the pure-Perl library decoded, with its
# objects (blessed hashes of the record and of the addresses) turned into
# plain hashes and arrays copied; other values are kept as they are.
sub peer_plain {
    my $v = shift;
    require Scalar::Util;
    my $type = Scalar::Util::reftype($v) // '';
    return { map { $_ => peer_plain($v->{$_}) } keys %$v } if $type eq 'HASH';
    return [ map { peer_plain($_) } @$v ] if $type eq 'ARRAY';
    return $v;
}

# hash_key($value [, $flags]): a fast exact comparison key of a hash form:
# keys sorted, every value as its length and string form (numbers compare by
# their digits); with $flags true a string's UTF-8 flag counts too.
sub hash_key {
    my ($v, $flags) = @_;
    my $type = ref $v;
    return '{' . join('', map { length($_) . ":$_=" . hash_key($v->{$_}, $flags) } sort keys %$v) . '}' if $type eq 'HASH';
    return '[' . join('', map { hash_key($_, $flags) } @$v) . ']' if $type eq 'ARRAY';
    return 'u' unless defined $v;
    return ($flags && utf8::is_utf8($v) ? 'c' : '') . length($v) . ":$v";
}

# hash_text($hash): a record in the hash form (or any nest of hashes, arrays
# and plain values) as one line of text, keys sorted and values by their
# string form, bytes outside printable ASCII as \xNN: equal texts mean equal
# contents. Numbers and strings of the same digits give the same text.
sub hash_text {
    my $v = shift;
    my $type = ref $v;
    return '{' . join(',', map { "$_=" . hash_text($v->{$_}) } sort keys %$v) . '}' if $type eq 'HASH';
    return '[' . join(',', map { hash_text($_) } @$v) . ']' if $type eq 'ARRAY';
    return 'undef' unless defined $v;
    die "hash_text: a $type reference\n" if $type;
    (my $s = "$v") =~ s/([^\x20-\x7e]|["\\])/sprintf '\\x%02x', ord $1/ge;
    return qq{"$s"};
}

# A tied scalar that counts how often its value is fetched:
#   tie my $v, 'CountingScalar', $value;  ...  tied($v)->{fetches}
package CountingScalar;
sub TIESCALAR { my ($class, $value) = @_; bless { value => $value, fetches => 0 }, $class }
sub FETCH     { my $self = shift; $self->{fetches}++; $self->{value} }
sub STORE     { $_[0]{value} = $_[1] }

1;
