#!/usr/bin/perl
# decode: the hash it gives for canonical and non-canonical input, unknown
# fields as "POS:HEX" runs, the options, the runtime's UTF-8 report, and
# every refusal with its exact text and byte offset.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw($CLASS hexs unhex varint is_string_sv is_int_sv);
use QelRandom qw(handpicked_records);
use QelCodec qw(:all);

use quillon_event_log::Codec;

my $CODEC = 'quillon_event_log::Codec';
my $chars = $CODEC->new(characters => 1);
my $text  = $CODEC->new(addresses => 'text');
my $drop  = $CODEC->new(unknown_fields => 'drop');

sub dec { decode_event($_[0]) }
sub quiet_dec { my ($b, $c) = @_; my $h; stderr_of { $h = $c ? $c->decode($b) : dec($b) }; $h }

# ---- canonical input -------------------------------------------------------------

for my $case (handpicked_records()) {
    my ($name, $h) = @$case;
    my ($bytes, $want);
    stderr_of { my $r = $CLASS->new($h); $bytes = $r->pack; $want = $r->to_hashref };
    $bytes = '' if $bytes eq "\0" x 16;
    is_deeply quiet_dec($bytes), $want, "$name: as to_hashref gives it";
    is_deeply quiet_dec($bytes), $h, "$name: the hash it was made from";
}

{
    my $h = dec(vi(19, 443) . vi(21, '18446744073709551615') . vi(25, 1) . vi(50, 0) . ld(1, 'x'));
    ok is_int_sv($h->{src_port}), 'a uint32 is an integer';
    ok is_string_sv($h->{device_id}), 'a uint64 is a decimal string';
    is $h->{device_id}, '18446744073709551615', 'the largest uint64';
    ok is_int_sv($h->{mobile_is_app}) && $h->{mobile_is_app} == 1, 'true is the integer 1';
    ok is_int_sv($h->{is_https_request}) && $h->{is_https_request} == 0, 'false is the integer 0';
    ok !utf8::is_utf8($h->{bot_name}), 'strings are bytes';
    is_deeply dec(''), {}, 'no bytes: the empty hash';
    is_deeply dec(ld(4, '')), { client_ip => {} }, 'an empty address';
    is_deeply dec(ld(45, '') . ld(45, 'b')), { anomalies => ['', 'b'] }, 'list elements in order';
}

# ---- non-canonical input, read as the runtime reads it --------------------------------

is_deeply dec(vi(19, 1) . ld(1, 'a')), { bot_name => 'a', src_port => 1 }, 'fields in any order';
is_deeply dec(ld(1, 'a') . ld(1, 'b')), { bot_name => 'b' }, 'the last value of a singular field wins';
is_deeply dec(ld(4, vi(1, 1) . vi(2, 2)) . ld(4, vi(2, 3) . vi(5, 4))),
    { client_ip => { ip0 => 1, ip1 => 3, rtdom_id => 4 } }, 'addresses merge';
is_deeply dec(ld(44, 'a') . ld(1, 'x') . ld(44, 'b')), { anomaly_categories => ['a', 'b'], bot_name => 'x' },
    'list elements append across other fields';
is_deeply dec(vi(25, 2)), { mobile_is_app => 1 }, 'a flag is any non-zero varint';
is_deeply dec(vi(25, '18446744073709551615')), { mobile_is_app => 1 }, 'a flag of 10 bytes';
is_deeply dec(vi(19, '18446744073709551615')), { src_port => 4294967295 }, 'a uint32 keeps the low 32 bits';
is_deeply dec(vi(19, 4294967296 + 5)), { src_port => 5 }, 'a uint32 keeps the low 32 bits (2)';
is_deeply dec(unhex('980181808000')), { src_port => 1 }, 'a varint with redundant bytes';
is_deeply dec(unhex('0a') . unhex('8100') . 'a'), { bot_name => 'a' }, 'a length with a redundant byte';
is_deeply dec(fx32(1, 5)), { _unknown => ['0:0d05000000'] }, 'a known number with another wire type is unknown';
is_deeply dec(vi(4, 7)), { _unknown => ['0:2007'] }, 'an address number as a varint is unknown';

# ---- unknown fields ----------------------------------------------------------------------

is_deeply dec(vi(6, 5)), { _unknown => ['0:3005'] }, 'one unknown field';
is_deeply dec(vi(6, 5) . ld(1, 'a') . vi(31, 7) . grp(6, '') . ld(53, 'b') . fx32(6, 0)),
    { bot_name => 'a', host => 'b', _unknown => ['0:3005', '1:f801073334', '2:3500000000'] },
    'consecutive unknown fields make one run; POS counts the known values before it';
is_deeply dec(ld(45, 'a') . ld(45, 'b') . vi(6, 1) . ld(45, 'c')),
    { anomalies => ['a', 'b', 'c'], _unknown => ['2:3001'] }, 'list elements count one each';
is_deeply dec(ld(4, vi(1, 1) . vi(6, 9) . vi(2, 2)) . vi(6, 1)),
    { client_ip => { ip0 => 1, ip1 => 2, _unknown => ['1:3009'] }, _unknown => ['1:3001'] },
    'inside an address: its own runs and positions; the address counts one';
is_deeply dec(ld(4, ld(1, 'zz'))), { client_ip => { _unknown => ['0:0a027a7a'] } },
    'a record field number inside an address is unknown there';
is_deeply dec(grp(6, vi(1, 2) . ld(2, 'x') . grp(3, fx64(4, 0)))),
    { _unknown => ['0:' . hexs(grp(6, vi(1, 2) . ld(2, 'x') . grp(3, fx64(4, 0))))] }, 'a group is kept whole';
is_deeply dec(unhex('30ffffffffffffffffff01')), { _unknown => ['0:30ffffffffffffffffff01'] }, 'a 10-byte varint';
is_deeply $drop->decode(vi(6, 5) . ld(1, 'a') . ld(4, vi(1, 1) . vi(6, 9))), { bot_name => 'a', client_ip => { ip0 => 1 } },
    'unknown_fields => drop leaves them out at both levels';
is_deeply dec(unhex(('33' x 100) . ('34' x 100))), { _unknown => ['0:' . ('33' x 100) . ('34' x 100)] },
    '100 nested groups';
is_deeply dec(ld(4, unhex(('33' x 99) . ('34' x 99)))), { client_ip => { _unknown => ['0:' . ('33' x 99) . ('34' x 99)] } },
    '99 nested groups inside an address';

# ---- options -------------------------------------------------------------------------------

# Text addresses: only whole addresses without unknown fields.
{
    my $all = sub { my @w = @_; ld(4, join '', map { vi($_ + 1, $w[$_]) } 0 .. 4) };
    is_deeply $text->decode($all->(0, 0, 0, 3405803821, 0)), { client_ip => '203.0.113.45' }, 'text: IPv4';
    is_deeply $text->decode($all->(0, 0, 0, 0, 0)), { client_ip => '0.0.0.0' }, 'text: 0.0.0.0';
    is_deeply $text->decode($all->(0x20010db8, 0, 0, 1, 7)), { client_ip => '2001:db8::1%7' }, 'text: IPv6 and a route domain';
    is_deeply $text->decode($all->(0, 0, 0xffff, 0x01020304, 0)), { client_ip => '::ffff:1.2.3.4' }, 'text: the mapped range';
    is_deeply $text->decode(ld(4, vi(4, 1))), { client_ip => { ip3 => 1 } }, 'text: a partial address stays a hash';
    is_deeply $text->decode(ld(4, vi(1, 0) . vi(2, 0) . vi(3, 0) . vi(4, 1) . vi(5, 0) . vi(6, 1))),
        { client_ip => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 1, rtdom_id => 0, _unknown => ['5:3001'] } },
        'text: an address with unknown fields stays a hash';
    my $both = $CODEC->new(addresses => 'text', unknown_fields => 'drop');
    is_deeply $both->decode(ld(4, vi(1, 0) . vi(2, 0) . vi(3, 0) . vi(4, 1) . vi(5, 0) . vi(6, 1))),
        { client_ip => '0.0.0.1' }, 'text and drop: dropped unknown fields do not count';
    is_deeply dec($all->(0, 0, 0, 1, 0)), { client_ip => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 1, rtdom_id => 0 } },
        'hash mode: a whole address is a hash';
}

# Characters: valid UTF-8 becomes characters, other bytes surrogate escapes.
{
    my $h = $chars->decode(ld(1, "caf\xc3\xa9") . ld(2, 'plain') . ld(3, "\xf0\x9f\x98\x80"));
    is $h->{bot_name}, "caf\x{e9}", 'characters: UTF-8 decoded';
    ok utf8::is_utf8($h->{bot_name}), 'characters: flagged';
    is $h->{profile_name}, 'plain', 'characters: ASCII';
    is $h->{virtual_server_name}, "\x{1F600}", 'characters: four bytes';
    my %escaped = (
        "\xff"              => "\x{DCFF}",
        "a\x80b"            => "a\x{DC80}b",
        "\xc3"              => "\x{DCC3}",
        "\xc3(" => "\x{DCC3}(",
        "\xe2\x82"          => "\x{DCE2}\x{DC82}",
        "\xe2\x82\xac\xe2"  => "\x{20AC}\x{DCE2}",
        "\xed\xa0\x80"      => "\x{DCED}\x{DCA0}\x{DC80}",
        "\xc0\x80"          => "\x{DCC0}\x{DC80}",
        "\xf4\x90\x80\x80"  => "\x{DCF4}\x{DC90}\x{DC80}\x{DC80}",
        "\xf8\x88\x80\x80\x80" => "\x{DCF8}\x{DC88}\x{DC80}\x{DC80}\x{DC80}",
        "\xef\xbf\xbf\xf4\x8f\xbf\xbf\xff" => "\x{FFFF}\x{10FFFF}\x{DCFF}",
    );
    for my $bytes (sort keys %escaped) {
        my $got;
        my $log = stderr_of { $got = $chars->decode(ld(53, $bytes))->{host} };
        no warnings 'utf8';
        is $got, $escaped{$bytes}, 'characters: ' . hexs($bytes) . ' escaped';
        is_deeply [runtime_lines($log)], [utf8_report('host', 'parsing')], 'characters: ' . hexs($bytes) . ' reported';
    }
    my $list = quiet_dec(ld(45, "\xff") . ld(45, "\xc3\xa9"), $chars)->{anomalies};
    no warnings 'utf8';
    is_deeply $list, ["\x{DCFF}", "\x{e9}"], 'characters: list elements too';
}

# The runtime's report: once per invalid string, in input order, only when
# the whole input decodes.
{
    my $log = stderr_of { dec(ld(53, "\xff") . ld(45, "\xfe") . ld(1, "ok") . ld(45, 'fine') . ld(45, "\xc3")) };
    is_deeply [runtime_lines($log)],
        [utf8_report('host', 'parsing'), utf8_report('anomalies', 'parsing'), utf8_report('anomalies', 'parsing')],
        'each invalid string once, in input order';
    $log = stderr_of { eval { dec(ld(53, "\xff") . unhex('0a05')) } };
    is $log, '', 'nothing is reported when the input is malformed';
    $log = stderr_of { dec(ld(53, "caf\xc3\xa9")) };
    is $log, '', 'valid UTF-8 is not reported';
    my $h;
    $log = stderr_of { $h = dec(ld(1, "\xff")) };
    is $h->{bot_name}, "\xff", 'without characters the bytes are kept as they are';
    is_deeply [runtime_lines($log)], [utf8_report('bot_name', 'parsing')], 'and reported';
}

# ---- the argument ---------------------------------------------------------------------------

{
    my %desc = (
        'undef' => undef, 'an array reference' => [], 'a hash reference' => {}, 'a code reference' => sub { },
        'a scalar reference' => \'x', 'a Foo object' => bless({}, 'Foo'), 'a glob' => *STDOUT,
    );
    for my $d (sort keys %desc) {
        my $v = $desc{$d};
        dies_with { decode_event($v) } "expected a byte string, got $d";
    }
    my $s = "\x0a\x01\xe9";
    utf8::upgrade($s);
    is_deeply quiet_dec($s), { bot_name => "\xe9" }, 'a UTF-8-flagged string is read as its characters\' bytes';
    ok utf8::is_utf8($s), "the caller's string stays as it was";
    dies_with { decode_event("\x0a\x01\x{100}") } 'wide character in the bytes to decode';
    dies_with { decode_event(5) } 'malformed record at byte 1: truncated fixed32 in field 6', 'a number is its digits';
}

# ---- malformed input --------------------------------------------------------------------------

my @malformed = (
    ['0a'                  => 1, 'truncated varint'],
    ['80'                  => 0, 'truncated varint'],
    ['0a0161' . '98'       => 3, 'truncated varint'],
    ['9801' . 'ff'         => 2, 'truncated varint'],
    ['9801' . ('ff' x 10) . '01' => 2, 'varint longer than 10 bytes'],
    ['00'                  => 0, 'field number 0'],
    ['0a0161' . '0700'     => 3, 'field number 0'],
    ['ffffffff7f'          => 0, 'tag longer than 5 bytes'],
    ['ffffffffff01'        => 0, 'tag longer than 5 bytes'],
    ['36'                  => 0, 'wire type 6'],
    ['0f'                  => 0, 'wire type 7'],
    ['4205616263'          => 1, 'length of field 8 (http_request) runs past the end'],
    ['4a05616263'          => 1, 'length of field 9 (bot_signature) runs past the end'],
    ['3205616263'          => 1, 'length of field 6 runs past the end'],
    ['0a' . 'ffffffffffffffffff01' => 1, 'length of field 1 (bot_name) runs past the end'],
    ['2205' . '0801'       => 1, 'length of field 4 (client_ip) runs past the end'],
    ['2202' . '0a05'       => 3, 'length of field 1 (ip0) in client_ip runs past the end'],
    ['2202' . '3205'       => 3, 'length of field 6 in client_ip runs past the end'],
    ['2201' . '08' . '0801' => 3, 'truncated varint'],
    ['3d010203'            => 1, 'truncated fixed32 in field 7 (request_uri)'],
    ['35010203'            => 1, 'truncated fixed32 in field 6'],
    ['3101020304050607'    => 1, 'truncated fixed64 in field 6'],
    ['2203' . '0d0102'     => 3, 'truncated fixed32 in field 1 (ip0) in client_ip'],
    ['34'                  => 0, 'end-group tag of field 6 without a start'],
    ['0a0161' . '0c'       => 3, 'end-group tag of field 1 (bot_name) without a start'],
    ['2201' . '0c'         => 2, 'end-group tag of field 1 (ip0) in client_ip without a start'],
    ['33' . '3c'           => 1, 'end-group tag of field 7 without a start'],
    ['33'                  => 0, 'group of field 6 is not closed'],
    ['3005' . '33' . '0801' => 2, 'group of field 6 is not closed'],
    ['2203' . '3b' . '0801' . '0a00' => 2, 'group of field 7 in client_ip is not closed'],
    [('33' x 101) . ('34' x 101) => 100, 'nesting deeper than 100 levels'],
    ['22c801' . ('33' x 100) . ('34' x 100) => 102, 'nesting deeper than 100 levels'],
);
for my $m (@malformed) {
    my ($hex, $at, $reason) = @$m;
    dies_with { decode_event(unhex($hex)) } "malformed record at byte $at: $reason", "$hex: $reason";
}
dies_with { $chars->decode(unhex('0a05')) } 'malformed record at byte 1: length of field 1 (bot_name) runs past the end',
    'the same with options';
dies_with { $drop->decode(unhex('3005' . '33')) } 'malformed record at byte 2: group of field 6 is not closed',
    'dropped unknown fields are still checked';

# ---- usage ---------------------------------------------------------------------------------------

dies_with { quillon_event_log::Codec::decode_event() } 'Usage: quillon_event_log::Codec::decode_event(bytes)';
dies_with { quillon_event_log::Codec::decode_event('', 1) } 'Usage: quillon_event_log::Codec::decode_event(bytes)';
dies_with { $chars->decode } 'Usage: quillon_event_log::Codec::decode(self, bytes)';
dies_with { $chars->decode('', 1) } 'Usage: quillon_event_log::Codec::decode(self, bytes)';
dies_with { quillon_event_log::Codec::decode({}, '') } 'self is not a quillon_event_log::Codec object';
dies_with { quillon_event_log::Codec->decode('') } 'self is not a quillon_event_log::Codec object', 'the class name';

done_testing;
