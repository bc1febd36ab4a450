# qel and the stream reader against programs written by others:
#  - Debian's python3-protobuf (with classes made by protoc) writes a stream
#    of varied records; qel decode --json gives exactly the records Python
#    wrote, in the JSON mapping of the manual, and so does
#    quillon_event_log::Stream's reader, in both of its hash forms;
#  - JSON Lines written here, through qel encode, make a stream that Python
#    parses to exactly the records meant, byte for byte the stream Python
#    itself writes for them;
#  - Python's stream through qel decode --json | qel encode is the same bytes;
#  - jq reads every line of qel decode --json, and its queries count what
#    the records written here hold.
use strict;
use warnings;
use Test::More;
use File::Temp qw(tempdir);
use lib 't/lib';
use QelTest qw(in_path run_program sh_words slurp spew);
use JSON::XS ();
use B ();

use quillon_event_log::Stream;

my $PYTHON = '/usr/bin/python3';    # Debian's, not whatever python3 comes first in PATH

my $dir = tempdir(CLEANUP => 1);
my @qel = ($^X, '-Mblib', 'blib/script/qel');
my $json = JSON::XS->new->utf8->canonical;

# Runs a program with standard input from a file (or /dev/null): (stdout,
# stderr, exit status).
sub run {
    my ($stdin, @cmd) = @_;
    my ($out, $status, $err) = run_program(\@cmd, dir => $dir, stdin => $stdin // '/dev/null');
    return ($out, $err, $status >> 8);
}

# ---- the peers ------------------------------------------------------------------

my $protoc = in_path('protoc');
plan skip_all => 'protoc is not installed (apt-get install protobuf-compiler)' unless $protoc;
plan skip_all => "$PYTHON is not installed (apt-get install python3 python3-protobuf)" unless -x $PYTHON;
{
    my ($out, $err, $st) = run(undef, $PYTHON, '-I', '-c', 'import google.protobuf');
    plan skip_all => "$PYTHON cannot import google.protobuf (apt-get install python3-protobuf)" if $st;
}

# The field types, read from the schema itself.
my (%TYPE, @FIELDS);
{
    my $proto = slurp('quillon_event_log.proto');
    my ($body) = $proto =~ /message QuillonEventLog \{(.*?)\}/s or die "no record message in the schema\n";
    while ($body =~ /^\s*(optional|repeated) (\w+) (\w+) = (\d+);/mg) {
        my ($label, $type, $name) = ($1, $2, $3);
        $TYPE{$name} = $label eq 'repeated' ? 'list' : $type eq 'IPAddr' ? 'address' : $type;
        push @FIELDS, $name;
    }
    is scalar @FIELDS, 59, 'the schema has 59 fields';
}

# Python classes of the schema.
my $gen = "$dir/gen";
mkdir $gen or die "$gen: $!";
{
    my ($out, $err, $st) = run(undef, $protoc, '-I.', "--python_out=$gen", 'quillon_event_log.proto');
    is_deeply [$err, $st], ['', 0], 'protoc makes the Python classes';
}

# ---- the records ------------------------------------------------------------------

# A record is written here in the form Python's MessageToDict gives (field
# names kept): strings as characters, uint32 as numbers, uint64 as strings
# of digits, flags as JSON booleans, addresses as objects of their words,
# lists as arrays.

# A tiny deterministic generator, the same on every machine.
my $state = 20251120;
sub pick_int { my ($n) = @_; $state = ($state * 1103515245 + 12345) % 2147483648; return int($state / 65536) % $n }
sub pick { $_[ pick_int(scalar @_) ] }
sub pick_u32 { pick_int(4096) << 20 | pick_int(1024) << 10 | pick_int(1024) }    # 0 .. 2**32-1

my @STRINGS = ('curl', 'python-requests', 'Googlebot', 'Malicious', 'Trusted Bot', '/account/login?next=%2F',
    "caf\x{e9}.example", "\x{6771}\x{4eac}", "bot \x{1f916} with an emoji", "\x{dc}n\x{ef}c\x{f6}d\x{e9}",
    '', 'quote " and backslash \\', "tab\tnew line\ncarriage return\r", "control \x01 and \x7f",
    "GET / HTTP/1.1\r\nHost: shop.example\r\nUser-Agent: Mozilla/5.0\r\n\r\n", 'x' x 300,
    "\x{10ffff} last code point", "\x{20ac}100", 'NL', 'US');
my @U32 = (0, 1, 127, 128, 16383, 16384, 65535, 2147483648, 4294967295, 1763596800);
my @U64 = ('0', '1', '127', '128', '4294967295', '4294967296', '9223372036854775807', '9223372036854775808',
    '18446744073709551614', '18446744073709551615', '12297829382473034410');
my @ADDRESSES = (
    { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0xCB00712D, rtdom_id => 0 },             # 203.0.113.45
    { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0xC0000201, rtdom_id => 2 },             # 192.0.2.1%2
    { ip0 => 0x20010DB8, ip1 => 0, ip2 => 0, ip3 => 1, rtdom_id => 0 },             # 2001:db8::1
    { ip0 => 0xFE800000, ip1 => 0, ip2 => 0, ip3 => 1, rtdom_id => 4294967295 },    # fe80::1%4294967295
    { ip0 => 0, ip1 => 0, ip2 => 0xFFFF, ip3 => 0xCB00712D, rtdom_id => 0 },        # ::ffff:203.0.113.45
    { ip0 => 0x20010DB8, ip1 => 1, ip2 => 0x10001, ip3 => 0x10001, rtdom_id => 0 }, # no run of two zero groups
    { ip0 => 0x20010000, ip1 => 0, ip2 => 0x10000, ip3 => 1, rtdom_id => 7 },       # the longer run of zeros
    { ip0 => 0, ip1 => 1, ip2 => 0, ip3 => 0, rtdom_id => 0 },                      # zeros at the end
    { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0, rtdom_id => 0 },                      # 0.0.0.0
    { ip0 => 0xFFFFFFFF, ip1 => 0xFFFFFFFF, ip2 => 0xFFFFFFFF, ip3 => 0xFFFFFFFF, rtdom_id => 1 },
    { ip3 => 0xCB00712D },                                                          # words missing: an object
    { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 5 },                                     # no rtdom_id: an object
    {},                                                                             # present, no words
);

my ($true, $false) = (JSON::XS::true(), JSON::XS::false());

# Records chosen by hand, then varied ones.
my @records = (
    { bot_name => 'python-requests', client_ip => $ADDRESSES[0], dest_ip => $ADDRESSES[2], dest_port => 443,
      src_port => 51734, device_id => '18446744073709551615', session_id => '0', request_uri => '/account/login',
      anomalies => ['Known automation User-Agent', 'Missing Accept-Language header'], is_https_request => $true,
      mobile_is_app => $false, host => "caf\x{e9}.example", classification => 'Malicious', request_time => 1763596800 },
    { bot_name => '', request_time => 0, is_update_request => $false, anomaly_categories => [''] },
    { client_ip => $ADDRESSES[10], dest_ip => $ADDRESSES[12] },
    { client_ip => $ADDRESSES[4], dest_ip => $ADDRESSES[3], reason => "\x{1f916}\x{6771}\x{4eac}" },
    {},
    { map { $_ => pick(@STRINGS) } grep { $TYPE{$_} eq 'string' } @FIELDS },
);
for my $i (1 .. 60) {
    my %r;
    for my $f (@FIELDS) {
        next if pick_int(3) == 0;
        my $t = $TYPE{$f};
        $r{$f} = $t eq 'string' ? pick(@STRINGS)
               : $t eq 'uint32' ? pick(@U32, pick_u32())
               : $t eq 'uint64' ? pick(@U64, sprintf '%u', (pick_u32() << 32) | pick_u32())
               : $t eq 'bool'   ? pick($true, $false)
               : $t eq 'address' ? pick(@ADDRESSES)
               : [ map { pick(@STRINGS) } 1 .. 1 + pick_int(4) ];
    }
    push @records, \%r;
}
my $N = @records;

# The IPv6 text of eight 16-bit groups: lower case, no leading zeros, the
# first longest run of two or more zero groups as "::".
sub ipv6_text {
    my @g = @_;
    my ($best, $len) = (-1, 1);
    for (my $i = 0; $i < 8;) {
        if ($g[$i]) { $i++; next }
        my $j = $i;
        $j++ while $j < 8 && !$g[$j];
        ($best, $len) = ($i, $j - $i) if $j - $i > $len;
        $i = $j;
    }
    my @hex = map { sprintf '%x', $_ } @g;
    return join ':', @hex if $best < 0;
    return join(':', @hex[0 .. $best - 1]) . '::' . join(':', @hex[$best + $len .. 7]);
}

# The text of an address of five words: dotted IPv4 when the first three
# words are 0, "::ffff:" and dotted for the IPv4-mapped range, else IPv6;
# then "%N" for a routing domain that is not 0.
sub address_text {
    my ($a) = @_;
    my ($w0, $w1, $w2, $w3) = @$a{qw(ip0 ip1 ip2 ip3)};
    my $dotted = join '.', unpack 'C4', pack 'N', $w3;
    my $text = !$w0 && !$w1 && !$w2 ? $dotted
             : !$w0 && !$w1 && $w2 == 0xFFFF ? "::ffff:$dotted"
             : ipv6_text(map { ($_ >> 16, $_ & 0xFFFF) } $w0, $w1, $w2, $w3);
    return $a->{rtdom_id} ? "$text%$a->{rtdom_id}" : $text;
}

{
    my @texts = map { exists $_->{rtdom_id} && keys %$_ == 5 ? address_text($_) : '(object)' } @ADDRESSES;
    is_deeply \@texts, ['203.0.113.45', '192.0.2.1%2', '2001:db8::1', 'fe80::1%4294967295', '::ffff:203.0.113.45',
                        '2001:db8:0:1:1:1:1:1', '2001::1:0:0:1%7', '0:0:0:1::', '0.0.0.0',
                        'ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff%1', '(object)', '(object)', '(object)'],
        'the address texts expected (worked out here)';
}

# qel's JSON form of a record in Python's form: an address of five words
# becomes its text.
sub qel_form {
    my ($r) = @_;
    my %h = %$r;
    for my $f (grep { $TYPE{$_} eq 'address' } keys %h) {
        $h{$f} = address_text($h{$f}) if keys %{ $h{$f} } == 5;
    }
    return \%h;
}

# The hash that Stream's reader gives with its default options: strings as
# UTF-8 bytes, flags 1 and 0, addresses as hashes.
sub byte_form {
    my ($r) = @_;
    my %h;
    for my $f (keys %$r) {
        my ($t, $v) = ($TYPE{$f}, $r->{$f});
        $h{$f} = $t eq 'string' ? do { my $s = $v; utf8::encode($s); $s }
               : $t eq 'list'   ? [ map { my $s = $_; utf8::encode($s); $s } @$v ]
               : $t eq 'bool'   ? ($v ? 1 : 0)
               : $t eq 'address' ? { %$v }
               : $v;
    }
    return \%h;
}

# A decoded JSON value with its JSON types made visible, so that comparing
# two of them also compares string against number against boolean.
sub typed {
    my ($v) = @_;
    return { map { $_ => typed($v->{$_}) } keys %$v } if ref $v eq 'HASH';
    return [ map { typed($_) } @$v ] if ref $v eq 'ARRAY';
    return 'null' unless defined $v;
    return $v ? 'true' : 'false' if JSON::XS::is_bool($v);
    my $flags = B::svref_2object(\$v)->FLAGS;
    return ($flags & B::SVf_POK()) ? "string \"$v\"" : "number $v";
}

# A fresh copy of a record in Python's form whose values have the JSON
# types of that form (a number that was once used as a string would else be
# written as a string).
sub python_form {
    my ($r) = @_;
    my %h;
    for my $f (keys %$r) {
        my ($t, $v) = ($TYPE{$f}, $r->{$f});
        $h{$f} = $t eq 'uint32' ? 0 + $v
               : $t eq 'address' ? { map { $_ => 0 + $v->{$_} } keys %$v }
               : $t eq 'list' ? [ map { "$_" } @$v ]
               : $t eq 'bool' ? $v
               : "$v";
    }
    return \%h;
}

# The line qel decode --json should print for a record: its canonical JSON
# text in qel's form.
sub canonical_line {
    my ($r) = @_;
    return $json->encode(qel_form(python_form($r)));
}
# The records as JSON for Python, and the lines qel should print for them.
spew("$dir/plan.json", $json->encode([ map { python_form($_) } @records ]));
my @lines = map { canonical_line($_) } @records;

is $lines[0], '{"anomalies":["Known automation User-Agent","Missing Accept-Language header"],"bot_name":"python-requests",'
    . '"classification":"Malicious","client_ip":"203.0.113.45","dest_ip":"2001:db8::1","dest_port":443,'
    . qq("device_id":"18446744073709551615","host":"caf\xc3\xa9.example","is_https_request":true,"mobile_is_app":false,)
    . '"request_time":1763596800,"request_uri":"/account/login","session_id":"0","src_port":51734}',
    'the first record in the JSON form of the manual';
is $lines[1], '{"anomaly_categories":[""],"bot_name":"","is_update_request":false,"request_time":0}',
    'the second: empty, zero and false values that are present';
is $lines[2], '{"client_ip":{"ip3":3405803821},"dest_ip":{}}', 'the third: addresses that stay objects';
is $lines[3], qq({"client_ip":"::ffff:203.0.113.45","dest_ip":"fe80::1%4294967295","reason":"\xf0\x9f\xa4\x96\xe6\x9d\xb1\xe4\xba\xac"}),
    'the fourth: an IPv4-mapped address, a routing domain, four-byte UTF-8';
is $lines[4], '{}', 'the fifth: an empty record';

# ---- the Python scripts -------------------------------------------------------------

my $py_common = <<'PY';
import json, sys
sys.path.insert(0, sys.argv[1])
import quillon_event_log_pb2 as pb
from google.protobuf.json_format import MessageToDict

def dict_of(message):
    return MessageToDict(message, preserving_proto_field_name=True)
PY

# write.py GEN PLAN OUT: the records of PLAN (a JSON array) as a stream in
# OUT, each record's varint length then its bytes; prints each record as
# MessageToDict gives it, one JSON line each.
spew("$dir/write.py", $py_common . <<'PY');
from google.protobuf.internal.encoder import _VarintBytes

with open(sys.argv[2], encoding='utf-8') as f:
    plan = json.load(f)
fields = pb.QuillonEventLog.DESCRIPTOR.fields_by_name
with open(sys.argv[3], 'wb') as out:
    for record in plan:
        message = pb.QuillonEventLog()
        for name, value in record.items():
            field = fields[name]
            if field.label == field.LABEL_REPEATED:
                getattr(message, name).extend(value)
            elif field.message_type is not None:
                address = getattr(message, name)
                address.SetInParent()
                for word, number in value.items():
                    setattr(address, word, number)
            elif field.type == field.TYPE_UINT64:
                setattr(message, name, int(value))
            else:
                setattr(message, name, value)
        data = message.SerializeToString()
        out.write(_VarintBytes(len(data)) + data)
        print(json.dumps(dict_of(message), sort_keys=True))
PY

# read.py GEN STREAM: parses every record of STREAM; prints for each a JSON
# line with the record as MessageToDict gives it and whether serialising it
# again gives the same bytes.
spew("$dir/read.py", $py_common . <<'PY');
with open(sys.argv[2], 'rb') as f:
    data = f.read()
pos = 0
while pos < len(data):
    length, shift = 0, 0
    while True:
        byte = data[pos]
        pos += 1
        length |= (byte & 0x7f) << shift
        shift += 7
        if byte < 0x80:
            break
    if pos + length > len(data):
        sys.exit('truncated record at byte %d' % pos)
    payload = data[pos:pos + length]
    pos += length
    message = pb.QuillonEventLog()
    message.ParseFromString(payload)
    print(json.dumps({'record': dict_of(message), 'same_bytes': message.SerializeToString() == payload}, sort_keys=True))
PY

# ---- Python writes, qel and the reader read ---------------------------------------------

my $py_stream = "$dir/python.qel";
my @py;
{
    my ($out, $err, $st) = run(undef, $PYTHON, '-I', "$dir/write.py", $gen, "$dir/plan.json", $py_stream);
    is_deeply [$err, $st], ['', 0], 'Python writes the stream';
    @py = map { $json->decode($_) } split /\n/, $out;
    is scalar @py, $N, "Python describes $N records";
    my @wrong = grep { !eq_deeply_typed($py[$_], $records[$_]) } 0 .. $N - 1;
    is_deeply \@wrong, [], 'Python wrote the records meant (by its own account)';
}

sub eq_deeply_typed {
    my ($got, $want) = @_;
    return $json->encode(typed($got)) eq $json->encode(typed(python_form($want)));
}

subtest 'qel decode --json: the records Python wrote' => sub {
    my ($out, $err, $st) = run(undef, @qel, 'decode', '--json', $py_stream);
    is_deeply [$err, $st], ['', 0], 'decoded cleanly';
    my @got = split /\n/, $out;
    is scalar @got, $N, "$N lines";
    for my $i (0 .. $N - 1) {
        my $line = $got[$i] // '';
        is $line, $lines[$i], "record @{[$i + 1]}: the exact JSON text";
        my $decoded = eval { $json->decode($line) } // {};
        my $want = qel_form($py[$i]);
        my @differ = grep { $json->encode([typed($decoded->{$_})]) ne $json->encode([typed($want->{$_})]) }
            sort keys %{ { %$decoded, %$want } };
        is_deeply \@differ, [], "record @{[$i + 1]}: field by field as Python wrote it";
    }
};

subtest 'Stream reader: the records Python wrote' => sub {
    my $in = quillon_event_log::Stream->reader($py_stream);
    my $text = quillon_event_log::Stream->reader($py_stream, characters => 1, addresses => 'text');
    for my $i (0 .. $N - 1) {
        is_deeply $in->next, byte_form($py[$i]), "record @{[$i + 1]}: default hash form";
        my $want = qel_form($py[$i]);
        $_ = $_ ? 1 : 0 for grep { JSON::XS::is_bool($_) } values %$want;
        is_deeply $text->next, $want, "record @{[$i + 1]}: with characters and text addresses";
    }
    is $in->next, undef, 'then the end';
    is $text->next, undef, 'then the end (the other reader)';
};

# ---- qel writes, Python reads ----------------------------------------------------------

subtest 'qel encode: Python reads the records meant' => sub {
    spew("$dir/lines.jsonl", join '', map { "$_\n" } @lines);
    my ($out, $err, $st) = run("$dir/lines.jsonl", @qel, 'encode');
    is_deeply [$err, $st], ['', 0], 'encoded cleanly';
    ok $out eq slurp($py_stream), 'the same bytes as the stream Python wrote';
    spew("$dir/qel.qel", $out);
    my ($read, $perr, $pst) = run(undef, $PYTHON, '-I', "$dir/read.py", $gen, "$dir/qel.qel");
    is_deeply [$perr, $pst], ['', 0], 'Python parses the stream';
    my @got = map { $json->decode($_) } split /\n/, $read;
    is scalar @got, $N, "$N records";
    for my $i (0 .. $N - 1) {
        ok eq_deeply_typed($got[$i]{record}, $records[$i]), "record @{[$i + 1]}: the fields meant"
            or diag $json->encode($got[$i]{record});
        is $got[$i]{same_bytes} ? 'same' : 'differ', 'same', "record @{[$i + 1]}: Python serialises it to the same bytes";
    }

    # Other spellings that qel encode takes, and what Python reads.
    my @spellings = (
        ['a uint64 as a JSON number, a flag as 1',
         '{"device_id":18446744073709551615,"is_https_request":1,"mobile_is_app":0}',
         '{"device_id":"18446744073709551615","is_https_request":true,"mobile_is_app":false}'],
        ['numbers as strings with leading zeros',
         '{"dest_port":"00443","session_id":"007"}', '{"dest_port":443,"session_id":"7"}'],
        ['addresses as objects of their words',
         '{"client_ip":{"ip3":1},"dest_ip":{"ip0":0,"ip1":0,"ip2":0,"ip3":3405803821,"rtdom_id":9}}',
         '{"client_ip":{"ip3":1},"dest_ip":{"ip0":0,"ip1":0,"ip2":0,"ip3":3405803821,"rtdom_id":9}}'],
        ['address texts: IPv6 with a dotted tail, a routing domain with leading zeros',
         '{"client_ip":"::192.0.2.1","dest_ip":"2001:DB8::a%007"}',
         '{"client_ip":{"ip0":0,"ip1":0,"ip2":0,"ip3":3221225985,"rtdom_id":0},'
         . '"dest_ip":{"ip0":536939960,"ip1":0,"ip2":0,"ip3":10,"rtdom_id":7}}'],
        ['JSON escapes of non-ASCII characters and a surrogate pair',
         '{"bot_name":"caf\u00e9 \ud83e\udd16","anomalies":["a","\u6771"]}',
         qq({"anomalies":["a","\xe6\x9d\xb1"],"bot_name":"caf\xc3\xa9 \xf0\x9f\xa4\x96"})],
        ['an empty list and null: nothing written', '{"anomalies":[],"bot_name":null,"host":"h"}', '{"host":"h"}'],
    );
    spew("$dir/spellings.jsonl", join '', map { "$_->[1]\n" } @spellings);
    ($out, $err, $st) = run("$dir/spellings.jsonl", @qel, 'encode');
    is_deeply [$err, $st], ['', 0], 'other spellings: encoded cleanly';
    spew("$dir/spellings.qel", $out);
    ($read, $perr, $pst) = run(undef, $PYTHON, '-I', "$dir/read.py", $gen, "$dir/spellings.qel");
    is_deeply [$perr, $pst], ['', 0], 'Python parses them';
    @got = map { $json->decode($_) } split /\n/, $read;
    is scalar @got, scalar @spellings, 'one record per line';
    for my $i (0 .. $#spellings) {
        my ($what, undef, $want) = @{ $spellings[$i] };
        is $json->encode($got[$i]{record} // {}), $want, "$what: what Python reads";
    }
};

# ---- the round trip through qel, byte for byte ----------------------------------------

subtest 'qel decode --json | qel encode: the bytes Python wrote' => sub {
    my $cmd = sh_words(@qel, 'decode', '--json', $py_stream) . ' | ' . sh_words(@qel, 'encode')
            . ' > ' . sh_words("$dir/again.qel");
    my ($out, $err, $st) = run(undef, '/bin/sh', '-c', $cmd);
    is_deeply [$out, $err, $st], ['', '', 0], 'the pipe runs cleanly';
    is -s "$dir/again.qel", -s $py_stream, 'the same size';
    (undef, undef, $st) = run(undef, 'cmp', '-s', $py_stream, "$dir/again.qel");
    is $st, 0, 'cmp finds the same bytes';
};

# ---- jq ---------------------------------------------------------------------------------

SKIP: {
    my $jq = in_path('jq') or skip 'jq is not installed (apt-get install jq)', 1;
    subtest 'jq reads qel decode --json' => sub {
        my @bots = ('curl', 'python-requests', 'Googlebot', 'bingbot', "caf\x{e9} crawler", 'HeadlessChrome');
        my $stream = "$dir/jq.qel";
        my $w = quillon_event_log::Stream->writer($stream, characters => 1, addresses => 'text');
        my (@names, %https, $accept, $ipv6, $ports, @oldest);
        for my $i (1 .. 500) {
            my %e = (request_time => 1763596800 + 60 * $i, dest_port => $i % 4 ? 443 : 8080,
                     device_id => '1844674407370955' . (1615 - $i % 13),
                     client_ip => $i % 5 ? '203.0.113.' . $i % 256 : sprintf('2001:db8::%x', $i));
            $e{bot_name} = $bots[ $i * 7 % 11 ] if $i * 7 % 11 < @bots;
            $e{is_https_request} = $i % 3 ? 1 : 0 if $i % 10;
            my @anomalies;
            push @anomalies, 'Missing Accept header' if $i % 7 == 0;
            push @anomalies, 'Known bot User-Agent' if $i % 4 == 1;
            $e{anomalies} = \@anomalies if @anomalies;
            $w->write_event(\%e);
            push @names, $e{bot_name} // 'null';
            $https{ !exists $e{is_https_request} ? 'absent' : $e{is_https_request} ? 'true' : 'false' }++;
            $accept++ if $i % 7 == 0;
            $ipv6++ unless $i % 5;
            $ports += $e{dest_port};
            push @oldest, $e{request_time} if $e{device_id} eq '18446744073709551615';
        }
        $w->close;
        my ($decoded, $err, $st) = run(undef, @qel, 'decode', '--json', $stream);
        is_deeply [$err, $st], ['', 0], 'qel decodes the 500 records';
        spew("$dir/jq.jsonl", $decoded);
        my @qel_lines = split /\n/, $decoded;
        is scalar @qel_lines, 500, '500 lines';

        my $jq_run = sub { my ($out, $jerr, $jst) = run("$dir/jq.jsonl", $jq, @_); is_deeply [$jerr, $jst], ['', 0], "jq @_: clean"; $out };
        my @jq_lines = split /\n/, $jq_run->('-c', '.');
        is scalar @jq_lines, 500, 'jq -c . reads every line';
        is_deeply [grep { $jq_lines[$_] ne $qel_lines[$_] } 0 .. 499], [], 'and writes each back the same';

        my $names = join '', map { my $s = "$_\n"; utf8::encode($s); $s } @names;
        is $jq_run->('-r', '.bot_name'), $names, 'jq -r .bot_name: every name in order';
        is $jq_run->('-s', 'map(select(.is_https_request == true)) | length'), "$https{true}\n",
            "records with is_https_request true: $https{true}";
        is $jq_run->('-s', 'map(select(.is_https_request == false)) | length'), "$https{false}\n",
            "records with is_https_request false: $https{false}";
        is $jq_run->('-s', 'map(select(has("is_https_request") | not)) | length'), "$https{absent}\n",
            "records without is_https_request: $https{absent}";
        is $jq_run->('-s', '[.[] | select(any(.anomalies[]?; . == "Missing Accept header"))] | length'), "$accept\n",
            "records with the anomaly \"Missing Accept header\": $accept";
        is $jq_run->('-s', '[.[] | select(.client_ip | test(":"))] | length'), "$ipv6\n", "IPv6 clients: $ipv6";
        is $jq_run->('-s', 'map(.dest_port) | add'), "$ports\n", "the sum of dest_port: $ports";
        is $jq_run->('-r', 'select(.device_id == "18446744073709551615") | .request_time'),
            join('', map { "$_\n" } @oldest), 'a uint64 compares as its full string';
        is $jq_run->('-r', 'select(.client_ip == "2001:db8::a") | .request_time'), "1763597400\n",
            'an address compares as its text';

        my %count;
        $count{$_}++ for @names;
        my $want = join '', map { my $s = sprintf "%7d %s\n", $count{$_}, $_; utf8::encode($s); $s } sort { $a cmp $b } keys %count;
        my ($counts, $cerr, $cst) = run(undef, '/bin/sh', '-c',
            sh_words($jq, '-r', '.bot_name') . ' < ' . sh_words("$dir/jq.jsonl") . ' | LC_ALL=C sort | uniq -c');
        is_deeply [$cerr, $cst], ['', 0], 'jq -r .bot_name | sort | uniq -c runs cleanly';
        is $counts, $want, 'and counts the names';
    };
}

done_testing;
