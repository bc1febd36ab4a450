#!/usr/bin/perl
# encode: what it writes for every kind of value it accepts (checked against
# the record class's pack and the pure-Perl encoder of QelTest), and every
# refusal with its exact text, in the order the checks are made.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw($CLASS hexs unhex encode_ref bytes_is family_fields field_names);
use QelRandom qw(handpicked_records);
use QelCodec qw(:all);

use quillon_event_log::Codec;

my $CODEC = 'quillon_event_log::Codec';
my $chars = $CODEC->new(characters => 1);
my $text  = $CODEC->new(addresses => 'text');
my $drop  = $CODEC->new(unknown_fields => 'drop');

sub enc { encode_event($_[0]) }

# ---- what is written ----------------------------------------------------------

{
    my $b = enc({});
    is $b, '', 'the empty hash encodes to no bytes';
    ok !utf8::is_utf8($b), 'the result is a byte string';
    my $t = enc(typical_record());
    ok !utf8::is_utf8($t), 'a whole record is a byte string too';
}

for my $case (handpicked_records()) {
    my ($name, $h) = @$case;
    my ($got, $pack);
    stderr_of { $got = enc($h); $pack = $CLASS->new($h)->pack };
    $pack = '' if $pack eq "\0" x 16;    # pack writes 16 zero bytes for no fields
    bytes_is $got, $pack, "$name: as pack writes it";
    bytes_is $got, encode_ref($h), "$name: as the reference encoder writes it";
}

is hexs(enc({ bot_name => 'ab' })), '0a026162', 'a string field';
is hexs(enc({ http_protocol_info => 'x' })), 'ea030178', 'a field with a two-byte tag';
is hexs(enc({ src_port => 300 })), '9801ac02', 'a uint32';
is hexs(enc({ device_id => '18446744073709551615' })), 'a801ffffffffffffffffff01', 'the largest uint64';
is hexs(enc({ mobile_is_app => 1, is_https_request => 0 })), 'c80101900300', 'flags';
is hexs(enc({ client_ip => { ip0 => 1, rtdom_id => 7 } })), '220408012807', 'an address';
is hexs(enc({ dest_ip => {} })), '2a00', 'an empty address is present';
is hexs(enc({ anomalies => ['a', '', 'c'] })), 'ea020161ea0200ea020163', 'a list';
is hexs(enc({ anomalies => [] })), '', 'an empty list writes nothing';
is hexs(enc({ bot_name => undef, src_port => undef, client_ip => undef, anomalies => undef })), '',
    'undef values are absent fields';
is hexs(enc({ host => 'h', bot_name => 'b', src_port => 1 })), '0a0162980101aa030168',
    'fields go in field-number order whatever the hash order';
is hexs(enc({ bot_name => 'x' x 200 })), '0ac801' . ('78' x 200), 'a length of two bytes';
{
    my $addr = { map { ("ip$_" => 4294967295) } 0 .. 3 };
    $addr->{rtdom_id} = 4294967295;
    $addr->{_unknown} = ['5:' . ('32' . '7f' . ('00' x 127))];
    my $b = enc({ client_ip => $addr });
    is hexs(substr $b, 0, 3), '229f01', 'an address body of 159 bytes gets a two-byte length';
    is length($b), 3 + 159, 'and the body is moved behind it intact';
    is_deeply decode_event($b)->{client_ip}, $addr, 'and reads back';
}

# Numbers: integers, integral floats, decimal strings with leading zeros.
{
    my %ok = (
        'integer 0'           => [0, '00'],
        'integer 127'         => [127, '7f'],
        'integer 128'         => [128, '8001'],
        'largest uint32'      => [4294967295, 'ffffffff0f'],
        'float 3.0'           => [3.0, '03'],
        'float -0.0'          => [-0.0, '00'],
        'string 00012345'     => ['00012345', 'b960'],
        'string 0'            => ['0', '00'],
        'string 4294967295'   => ['4294967295', 'ffffffff0f'],
    );
    for my $name (sort keys %ok) {
        my ($v, $hex) = @{ $ok{$name} };
        is hexs(enc({ src_port => $v })), "9801$hex", "uint32 from $name";
    }
    is hexs(enc({ device_id => 18446744073709551615 })), 'a801ffffffffffffffffff01', 'uint64 from the largest UV';
    is hexs(enc({ device_id => 2**63 })), 'a80180808080808080808001', 'uint64 from the float 2**63';
    is hexs(enc({ device_id => '000018446744073709551615' })), 'a801ffffffffffffffffff01',
        'uint64 from digits with leading zeros';
    my $dual = '12';
    { no warnings 'numeric'; my $n = $dual + 0; }
    is hexs(enc({ src_port => $dual })), '98010c', 'a string used as a number is read as its string';
    my $num = 42;
    my $s = "$num";
    is hexs(enc({ src_port => $num })), '98012a', 'a number used as a string';
}

# Flags: 1, 0, "", Perl's booleans, JSON booleans of three classes.
{
    require JSON::PP;
    my %ok = (
        '1' => 1, '0' => 0, 'string 1' => '1', 'string 0' => '0', 'empty string' => '',
        '!!1' => !!1, '!!0' => !!0, 'float 1.0' => 1.0, 'float 0.0' => 0.0,
        'JSON::PP::true' => JSON::PP::true(), 'JSON::PP::false' => JSON::PP::false(),
        'boolean true' => bless(\(my $t = 1), 'boolean'), 'boolean false' => bless(\(my $f = 0), 'boolean'),
        'Types::Serialiser::Boolean true' => bless(\(my $tt = 1), 'Types::Serialiser::Boolean'),
    );
    my %want = ('1' => 1, 'string 1' => 1, '!!1' => 1, 'float 1.0' => 1, 'JSON::PP::true' => 1,
                'boolean true' => 1, 'Types::Serialiser::Boolean true' => 1);
    for my $name (sort keys %ok) {
        is hexs(enc({ mobile_is_app => $ok{$name} })), 'c801' . ($want{$name} ? '01' : '00'), "flag from $name";
    }
    SKIP: {
        skip 'JSON::XS not installed', 2 unless eval { require JSON::XS; 1 };
        my $d = JSON::XS::decode_json('[true,false]');
        is hexs(enc({ mobile_is_app => $d->[0] })), 'c80101', "JSON::XS's true";
        is hexs(enc({ mobile_is_app => $d->[1] })), 'c80100', "JSON::XS's false";
    }
}

# Strings: numbers stringify as Perl does; UTF-8-flagged strings are taken
# as bytes when every character is one.
is hexs(enc({ bot_name => 1.5 })), '0a03312e35', 'a float as a string';
is hexs(enc({ bot_name => 10 })), '0a023130', 'an integer as a string';
is hexs(enc({ bot_name => 1e20 })), '0a0531652b3230', 'a large float as Perl prints it';
{
    my $s = "caf\xe9";
    utf8::upgrade($s);
    my $b;
    my $log = stderr_of { $b = enc({ bot_name => $s }) };
    is hexs($b), '0a04636166e9', 'an upgraded string is written as its bytes';
    is_deeply [runtime_lines($log)], [utf8_report('bot_name', 'serializing')], 'which are not UTF-8';
    my $copy = $s;
    ok utf8::is_utf8($s) && $s eq $copy, "the caller's string is left as it was";
    my $n = 12;
    enc({ bot_name => $n });
    ok !(QelTest::flags_of($n) & B::SVf_POK()), "a number stays a number after being written as a string";
}

# With characters: UTF-8; bytes as Latin-1; surrogate escapes back to bytes.
is hexs($chars->encode({ bot_name => "\x{263a}" })), '0a03e298ba', 'characters: a character as UTF-8';
is hexs($chars->encode({ bot_name => "caf\xe9" })), '0a05636166c3a9', 'characters: bytes taken as Latin-1';
is hexs($chars->encode({ bot_name => 'plain' })), '0a05706c61696e', 'characters: ASCII as it is';
is hexs($chars->encode({ bot_name => "\x{1F600}a" })), '0a05f09f988061', 'characters: four-byte UTF-8';
{
    my ($b, $err);
    my $log = stderr_of { $b = $chars->encode({ bot_name => "a\x{DCFF}\x{DC80}b", host => "\x{DCC3}\x{DCA9}" }) };
    is hexs($b), '0a0461ff8062aa0302c3a9', 'characters: U+DC80..U+DCFF are written as the raw bytes';
    is_deeply [runtime_lines($log)], [utf8_report('bot_name', 'serializing')],
        'the invalid result is reported by the runtime once, the valid one not';
}
{
    my $log = stderr_of { enc({ bot_name => "ok", host => "\xff", anomalies => ["\xc3", 'x', "\xed\xa0\x80"] }) };
    is_deeply [runtime_lines($log)],
        [utf8_report('anomalies', 'serializing'), utf8_report('anomalies', 'serializing'),
         utf8_report('host', 'serializing')],
        'invalid UTF-8 in bytes is reported per value, in the order written';
    $log = stderr_of { enc({ bot_name => "caf\xc3\xa9 \xf4\x8f\xbf\xbf" }) };
    is $log, '', 'valid UTF-8 is not reported';
    $log = stderr_of { eval { enc({ host => "\xff", src_port => 'x' }) } };
    is $log, '', 'nothing is reported when the encoding fails after the string';
}

# Addresses: blessed hashes count; text in text mode writes all five words.
is hexs(enc({ client_ip => bless { ip3 => 1 }, 'Some::Class' })), '22022001', 'a blessed hash as an address';
is hexs($text->encode({ client_ip => '203.0.113.45' })), hexs(ld(4, vi(1, 0) . vi(2, 0) . vi(3, 0) . vi(4, 3405803821) . vi(5, 0))),
    'text mode: an IPv4 address writes all five numbers';
is hexs($text->encode({ client_ip => '2001:db8::1%7' })), hexs(ld(4, vi(1, 0x20010db8) . vi(2, 0) . vi(3, 0) . vi(4, 1) . vi(5, 7))),
    'text mode: IPv6 with a route domain';
is hexs($text->encode({ client_ip => { ip0 => 5 } })), '22020805', 'text mode: a hash still works';
is hexs($text->encode({ client_ip => '::ffff:1.2.3.4' })), hexs(ld(4, vi(1, 0) . vi(2, 0) . vi(3, 0xffff) . vi(4, 0x01020304) . vi(5, 0))),
    'text mode: the mapped range keeps ip2';

# Lists: blessed arrays count.
is hexs(enc({ anomalies => bless ['x'], 'Some::List' })), 'ea020178', 'a blessed array as a list';

# `_unknown`: runs go where their positions say, at both levels.
is hexs(enc({ _unknown => ['0:3005'] })), '3005', 'an unknown field alone';
is hexs(enc({ bot_name => 'a', host => 'b', _unknown => ['0:3005', '1:f80107', '1:3334', '9:3500000000'] })),
    '3005' . '0a0161' . 'f80107' . '3334' . 'aa030162' . '3500000000',
    'runs before, between and after the known values; a position past the end goes last';
is hexs(enc({ anomalies => ['a', 'b'], _unknown => ['1:3005'] })), 'ea020161' . '3005' . 'ea020162',
    'each list element counts one';
is hexs(enc({ client_ip => { ip0 => 1, ip1 => 2, _unknown => ['1:3005'] }, _unknown => ['1:3006'] })),
    '2206' . '0801' . '3005' . '1002' . '3006',
    'an address counts one at the top; inside, its runs count its own values';
is hexs(enc({ _unknown => ['0:0D0102030A'] })), '0d0102030a', 'upper-case hex; a known number with another wire type';
is hexs(enc({ _unknown => [] })), '', 'an empty _unknown';
is hexs($drop->encode({ bot_name => 'a', _unknown => ['0:3005'], client_ip => { _unknown => ['0:3005'] } })),
    '0a0161' . '2200', 'unknown_fields => drop: _unknown is ignored at both levels';
is hexs($drop->encode({ _unknown => 'not even an array' })), '', 'drop: not even looked at';
is hexs(enc({ _unknown => ['0:' . '33' . ('33' x 99) . ('34' x 99) . '34'] })), '33' . ('33' x 99) . ('34' x 99) . '34',
    '100 nested groups are accepted';

# ---- refusals -------------------------------------------------------------------

# The argument.
{
    my %desc = (
        'undef'                => undef,
        'a string'             => 'x',
        'a number'             => 42,
        'an array reference'   => [],
        'a code reference'     => sub { },
        'a scalar reference'   => \'x',
        'a reference'          => \\'x',
        'a Foo::Bar object'    => bless([], 'Foo::Bar'),
        'a glob'               => *STDOUT,
    );
    for my $d (sort keys %desc) {
        my $v = $desc{$d};
        dies_with { encode_event($v) } "expected a hash reference, got $d";
    }
    dies_with { encode_event(\*STDOUT) } 'expected a hash reference, got a reference', 'a glob reference';
    dies_with { encode_event(qr/x/) } 'expected a hash reference, got a Regexp object';
    dies_with { encode_event(1.5) } 'expected a hash reference, got a number', 'a float';
}

# Unknown keys: after all known keys, the first in sorted order, with a
# suggestion when one is close enough.
dies_with { enc({ bot_nmae => 1 }) } 'unknown field "bot_nmae" (did you mean "bot_name"?)';
dies_with { enc({ zzz => 1 }) } 'unknown field "zzz"';
dies_with { enc({ hots => 'x' }) } 'unknown field "hots" (did you mean "host"?)', 'distance 2, length 4';
dies_with { enc({ hx => 'x' }) } 'unknown field "hx"', 'distance 2 is more than half of 2';
dies_with { enc({ srcport => 1 }) } 'unknown field "srcport" (did you mean "src_port"?)';
dies_with { enc({ mobile_app => 1 }) } 'unknown field "mobile_app" (did you mean "mobile_is_app"?)', 'distance 3';
dies_with { enc({ bot_namexxxx => 1 }) } 'unknown field "bot_namexxxx"', 'distance 4 is more than 3';
dies_with { enc({ _unknow => [] }) } 'unknown field "_unknow" (did you mean "_unknown"?)';
dies_with { enc({ b => 1, a => 1, c => 1 }) } 'unknown field "a"', 'the first in sorted order';
dies_with { enc({ "\x{e9}\n" => 1 }) } 'unknown field "\xe9\x0a"', 'bytes shown as \xhh';
dies_with { enc({ ('k' x 50) => 1 }) } 'unknown field "' . ('k' x 40) . '"...', 'cut to 40';
dies_with { enc({ zzz => 1, src_port => 'x' }) } 'src_port: "x" is not a decimal integer',
    'known keys are checked before unknown ones';
dies_with { enc({ client_ip => { ipx => 1 } }) } 'client_ip: unknown field "ipx" (did you mean "ip0"?)';
dies_with { enc({ client_ip => { bot_name => 1 } }) } 'client_ip: unknown field "bot_name"';
dies_with { enc({ client_ip => { ipx => 1 }, bot_name => [] }) } 'bot_name: expected a string, got an array reference',
    'field-number order: bot_name before client_ip';
dies_with { enc({ client_ip => { ipx => 1 }, src_port => [] }) } 'client_ip: unknown field "ipx" (did you mean "ip0"?)',
    'an address is checked whole at its place';
{
    my %h = (bot_name => 'a', extra => 1);
    delete $h{extra};
    is hexs(enc(\%h)), '0a0161', 'a deleted key is gone';
    use Hash::Util qw(lock_keys unlock_keys);
    my %r = (bot_name => 'a', host => 'b');
    lock_keys(%r, qw(bot_name host src_port));
    is hexs(enc(\%r)), '0a0161aa030162', 'a restricted hash: allowed but absent keys are no keys';
    unlock_keys(%r);
}

# Values of the wrong kind.
my %bad_desc = (
    'an array reference' => [], 'a hash reference' => {}, 'a code reference' => sub { },
    'a scalar reference' => \1, 'a Foo object' => bless({}, 'Foo'), 'a glob' => *STDERR,
);
for my $d (sort keys %bad_desc) {
    my $v = $bad_desc{$d};
    dies_with { enc({ bot_name => $v }) } "bot_name: expected a string, got $d";
    dies_with { enc({ src_port => $v }) } "src_port: expected an integer, got $d";
    dies_with { enc({ device_id => $v }) } "device_id: expected an integer, got $d";
    dies_with { enc({ mobile_is_app => $v }) } "mobile_is_app: expected a flag (1, 0, \"\" or a JSON boolean), got $d";
    dies_with { enc({ anomalies => $v }) } "anomalies: expected an array reference, got $d" unless $d eq 'an array reference';
    dies_with { enc({ anomalies => [$v] }) } "anomalies[0]: expected a string, got $d";
    next if $d eq 'a Foo object';    # a blessed hash is an address
    dies_with { enc({ client_ip => $v }) } "client_ip: expected a hash reference, got $d" unless $d eq 'a hash reference';
    dies_with { enc({ client_ip => { ip2 => $v } }) } "client_ip.ip2: expected an integer, got $d";
    dies_with { $text->encode({ dest_ip => $v }) } "dest_ip: expected an address text or a hash reference, got $d"
        unless $d eq 'a hash reference';
}
dies_with { enc({ client_ip => bless [], 'Foo' }) } 'client_ip: expected a hash reference, got a Foo object';
dies_with { $text->encode({ client_ip => bless [], 'Foo' }) }
    'client_ip: expected an address text or a hash reference, got a Foo object';
dies_with { enc({ anomalies => 'x' }) } 'anomalies: expected an array reference, got a string';
dies_with { enc({ anomalies => 5 }) } 'anomalies: expected an array reference, got a number';
dies_with { enc({ client_ip => 'x' }) } 'client_ip: expected a hash reference, got a string';
dies_with { enc({ client_ip => '1.2.3.4' }) } 'client_ip: expected a hash reference, got a string',
    'text is refused in hash mode';
dies_with { enc({ anomalies => ['a', undef] }) } 'anomalies[1]: expected a string, got undef';
dies_with { my @a; $a[2] = 'x'; enc({ anomalies => \@a }) } 'anomalies[0]: expected a string, got undef', 'a hole';
dies_with { enc({ anomaly_categories => ['a'], anomalies => [1, 2, 3, []] }) }
    'anomalies[3]: expected a string, got an array reference';

# Integers.
for my $s ('12abc', '-1', '+1', ' 1', '1 ', '0x10', '1e3', '1.5', '', "1\n", "\x{663}") {
    my $shown = $s =~ s/([^\x20-\x7e])/sprintf '\\x%02x', ord $1/ger;
    $shown = join '', map { sprintf '\\x%02x', ord } split //, do { my $u = $s; utf8::encode($u); $u } if $s eq "\x{663}";
    dies_with { enc({ src_port => $s }) } qq{src_port: "$shown" is not a decimal integer};
}
dies_with { my $s = "\xe9"; utf8::upgrade($s); enc({ src_port => $s }) } 'src_port: "\xe9" is not a decimal integer',
    'a UTF-8 string of byte characters is shown by its characters';
dies_with { enc({ src_port => '4294967296' }) } 'src_port: "4294967296" is out of range (0..4294967295)';
dies_with { enc({ src_port => 4294967296 }) } 'src_port: "4294967296" is out of range (0..4294967295)', 'as a number';
dies_with { enc({ src_port => -1 }) } 'src_port: "-1" is out of range (0..4294967295)';
dies_with { enc({ device_id => -1 }) } 'device_id: "-1" is out of range (0..18446744073709551615)';
dies_with { enc({ device_id => '18446744073709551616' }) }
    'device_id: "18446744073709551616" is out of range (0..18446744073709551615)';
dies_with { enc({ device_id => '99999999999999999999999' }) }
    'device_id: "99999999999999999999999" is out of range (0..18446744073709551615)';
dies_with { enc({ device_id => 2**64 }) } 'device_id: "1.84467440737096e+19" is out of range (0..18446744073709551615)';
dies_with { enc({ src_port => 4294967296.0 }) } 'src_port: "4294967296" is out of range (0..4294967295)', 'a float';
dies_with { enc({ src_port => -2.0 }) } 'src_port: "-2" is out of range (0..4294967295)', 'a negative float';
dies_with { enc({ src_port => 1.5 }) } 'src_port: "1.5" is not an integer';
dies_with { enc({ src_port => 9**9**9 }) } 'src_port: "Inf" is not an integer';
dies_with { enc({ src_port => -9**9**9 }) } 'src_port: "-Inf" is not an integer';
dies_with { enc({ src_port => 9**9**9 / 9**9**9 }) } 'src_port: "NaN" is not an integer';
dies_with { enc({ src_port => '1' x 50 }) } 'src_port: "' . ('1' x 40) . '"... is out of range (0..4294967295)',
    'the value is cut to 40 characters';
dies_with { enc({ client_ip => { rtdom_id => 4294967296 } }) }
    'client_ip.rtdom_id: "4294967296" is out of range (0..4294967295)';
dies_with { enc({ client_ip => { ip0 => 'x' } }) } 'client_ip.ip0: "x" is not a decimal integer';

# Flags.
for my $v ('yes', 'true', 'false', '2', '01', ' 1', 'no') {
    dies_with { enc({ mobile_is_app => $v }) } qq{mobile_is_app: "$v" is not a flag (1, 0, "" or a JSON boolean)};
}
dies_with { enc({ mobile_is_app => 2 }) } 'mobile_is_app: "2" is not a flag (1, 0, "" or a JSON boolean)';
dies_with { enc({ mobile_is_app => -1 }) } 'mobile_is_app: "-1" is not a flag (1, 0, "" or a JSON boolean)';
dies_with { enc({ mobile_is_app => 0.5 }) } 'mobile_is_app: "0.5" is not a flag (1, 0, "" or a JSON boolean)';
dies_with { enc({ is_update_request => bless(\(my $x = 1), 'Other::Boolean') }) }
    'is_update_request: expected a flag (1, 0, "" or a JSON boolean), got a Other::Boolean object';
dies_with { enc({ is_update_request => bless({}, 'JSON::PP::Boolean') }) }
    'is_update_request: expected a flag (1, 0, "" or a JSON boolean), got a JSON::PP::Boolean object',
    'a JSON boolean class around a hash is not a JSON boolean';

# Strings.
dies_with { enc({ bot_name => "\x{263a}" }) } 'bot_name: wide character U+263A in a byte string (use the characters option)';
dies_with { enc({ bot_name => "ab\x{100}" }) } 'bot_name: wide character U+0100 in a byte string (use the characters option)';
dies_with { enc({ bot_name => "\x{1F600}" }) } 'bot_name: wide character U+1F600 in a byte string (use the characters option)';
dies_with { enc({ anomalies => ['a', "\x{263a}"] }) } 'anomalies[1]: wide character U+263A in a byte string (use the characters option)';
dies_with { $chars->encode({ bot_name => "\x{D800}" }) } 'bot_name: character U+D800 cannot be written as UTF-8';
dies_with { $chars->encode({ bot_name => "a\x{DC7F}" }) } 'bot_name: character U+DC7F cannot be written as UTF-8';
dies_with { $chars->encode({ bot_name => "\x{DD00}" }) } 'bot_name: character U+DD00 cannot be written as UTF-8';
{
    no warnings;
    dies_with { $chars->encode({ bot_name => "\x{110000}" }) } 'bot_name: character U+110000 cannot be written as UTF-8';
    dies_with { $chars->encode({ bot_name => chr(0x7FFFFFFF) }) } 'bot_name: character U+7FFFFFFF cannot be written as UTF-8';
}
dies_with { $chars->encode({ anomalies => ["\x{DBFF}"] }) } 'anomalies[0]: character U+DBFF cannot be written as UTF-8';

# Addresses as text.
dies_with { $text->encode({ client_ip => '1.2.3' }) } 'client_ip: invalid address text "1.2.3"';
dies_with { $text->encode({ client_ip => '' }) } 'client_ip: invalid address text ""';
dies_with { $text->encode({ client_ip => 5 }) } 'client_ip: invalid address text "5"';
dies_with { $text->encode({ client_ip => " 1.2.3.4\n" }) } 'client_ip: invalid address text " 1.2.3.4\x0a"';
dies_with { $text->encode({ client_ip => 'x' x 70 }) } 'client_ip: invalid address text "' . ('x' x 64) . '"...';
dies_with { $text->encode({ client_ip => '1.2.3.4%4294967296' }) } 'client_ip: invalid address text "1.2.3.4%4294967296"';

# `_unknown`.
dies_with { enc({ _unknown => 'x' }) } '_unknown: expected an array reference, got a string';
dies_with { enc({ _unknown => {} }) } '_unknown: expected an array reference, got a hash reference';
dies_with { enc({ _unknown => [undef] }) } '_unknown[0]: expected a string, got undef';
dies_with { enc({ _unknown => [[]] }) } '_unknown[0]: expected a string, got an array reference';
for my $s ('x', '0', '0:', ':3005', '0:300', '0:30g5', '-1:3005', '1 :3005', '0:30 05', '0x:3005', "0:3005\n") {
    my $shown = $s =~ s/\n/\\x0a/r;
    dies_with { enc({ _unknown => [$s] }) } qq{_unknown[0]: "$shown" is not POSITION:HEX};
}
dies_with { enc({ _unknown => ['2:3005', '1:3006'] }) } '_unknown[1]: positions must not decrease';
dies_with { enc({ _unknown => ['0:0a0161'] }) } '_unknown[0]: field 1 (bot_name) belongs in its own key';
dies_with { enc({ _unknown => ['0:3005', '0:3006a80101'] }) } '_unknown[1]: field 21 (device_id) belongs in its own key',
    'the second field of a run';
dies_with { enc({ client_ip => { _unknown => ['0:0801'] } }) } 'client_ip._unknown[0]: field 1 (ip0) belongs in its own key';
dies_with { enc({ client_ip => { _unknown => 'x' } }) } 'client_ip._unknown: expected an array reference, got a string';
is hexs(enc({ client_ip => { _unknown => ['0:0a0161'] } })), '22030a0161',
    'inside an address a record field number is just unknown';
my %malformed = (
    '30'                   => 'malformed wire data at byte 1: truncated varint',
    '3005' . '30ff'        => 'malformed wire data at byte 3: truncated varint',
    '30' . ('ff' x 10) . '01' => 'malformed wire data at byte 1: varint longer than 10 bytes',
    '00'                   => 'malformed wire data at byte 0: field number 0',
    '3005' . 'ffffffffff01' => 'malformed wire data at byte 2: tag longer than 5 bytes',
    'ffffffff7f'           => 'malformed wire data at byte 0: tag longer than 5 bytes',
    '36'                   => 'malformed wire data at byte 0: wire type 6',
    '37'                   => 'malformed wire data at byte 0: wire type 7',
    '3205616263'           => 'malformed wire data at byte 1: length of field 6 runs past the end',
    '32'                   => 'malformed wire data at byte 1: truncated varint',
    '0d010203'             => 'malformed wire data at byte 1: truncated fixed32 in field 1 (bot_name)',
    '310102030405'         => 'malformed wire data at byte 1: truncated fixed64 in field 6',
    '34'                   => 'malformed wire data at byte 0: end-group tag of field 6 without a start',
    '0c'                   => 'malformed wire data at byte 0: end-group tag of field 1 (bot_name) without a start',
    '33' . '3005'          => 'malformed wire data at byte 0: group of field 6 is not closed',
    '33' . '3c'            => 'malformed wire data at byte 1: end-group tag of field 7 without a start',
    ('33' x 101) . ('34' x 101) => 'malformed wire data at byte 100: nesting deeper than 100 levels',
);
for my $hex (sort keys %malformed) {
    dies_with { enc({ _unknown => ["0:$hex"] }) } "_unknown[0]: $malformed{$hex}", "_unknown $hex";
}
dies_with { enc({ client_ip => { _unknown => ['0:' . ('33' x 100) . ('34' x 100)] } }) }
    'client_ip._unknown[0]: malformed wire data at byte 99: nesting deeper than 100 levels',
    'inside an address the limit is one level nearer';
dies_with { enc({ _unknown => ['x'], bot_name => [] }) } '_unknown[0]: "x" is not POSITION:HEX',
    '_unknown is checked before the fields';

# ---- usage ---------------------------------------------------------------------------

dies_with { quillon_event_log::Codec::encode_event() } 'Usage: quillon_event_log::Codec::encode_event(hashref)';
dies_with { quillon_event_log::Codec::encode_event({}, 1) } 'Usage: quillon_event_log::Codec::encode_event(hashref)';
dies_with { $chars->encode } 'Usage: quillon_event_log::Codec::encode(self, hashref)';
dies_with { $chars->encode({}, 1) } 'Usage: quillon_event_log::Codec::encode(self, hashref)';
dies_with { quillon_event_log::Codec::encode('quillon_event_log::Codec', {}) } 'self is not a quillon_event_log::Codec object';
dies_with { quillon_event_log::Codec::encode(bless(\(my $o = 1), 'quillon_event_log::Codec'), {}) }
    'self is not a quillon_event_log::Codec object', 'a writable scalar is not a codec';
dies_with { quillon_event_log::Codec::encode(bless([], 'quillon_event_log::Codec'), {}) }
    'self is not a quillon_event_log::Codec object', 'an array is not a codec';
dies_with { quillon_event_log::Codec::encode(undef, {}) } 'self is not a quillon_event_log::Codec object';

done_testing;
