#!/usr/bin/perl
# Addresses as text: quillon_event_log::IPAddr->from_string and as_string.
# Exact words for each text and exact text for each address, every refusal
# with its message, the argument checks, and round trips both ways over
# hand-picked and seeded random addresses.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use Socket qw(inet_ntop AF_INET AF_INET6);
use QelTest qw($CLASS $ADDR_CLASS address_fields error_of code_for at_re usage_re
               $IP_TYPE_RE is_string_sv);
use QelRandom;

use quillon_event_log::QuillonEventLog;

my $IP  = $ADDR_CLASS;
my @IPF = address_fields();
my %ALL_ZERO = map { $_ => 0 } @IPF;

# words(ip0, ip1, ip2, ip3, rtdom_id) as the hash form of an address.
sub words { my %h; @h{@IPF} = @_; \%h }

# bad_re($shown): the message of a refused text, shown as $shown.
sub bad_re { at_re(qq{invalid address text "$_[0]"}) }

# ===========================================================================
# Text to address to text: [text, words, text as_string gives back].
# ===========================================================================
my @PARSED = (
    # IPv4
    ['203.0.113.45',    [0, 0, 0, 3405803821, 0], '203.0.113.45'],
    ['0.0.0.0',         [0, 0, 0, 0, 0],          '0.0.0.0'],
    ['255.255.255.255', [0, 0, 0, 4294967295, 0], '255.255.255.255'],
    ['1.2.3.4',         [0, 0, 0, 16909060, 0],   '1.2.3.4'],
    ['10.0.0.1',        [0, 0, 0, 167772161, 0],  '10.0.0.1'],
    ['0.0.0.1',         [0, 0, 0, 1, 0],          '0.0.0.1'],
    # IPv6, canonical
    ['2001:db8::1',     [536939960, 0, 0, 1, 0],  '2001:db8::1'],
    ['1::',             [65536, 0, 0, 0, 0],      '1::'],
    ['::1:0:0:0',       [0, 0, 65536, 0, 0],      '::1:0:0:0'],
    ['fe80::1:2',       [4269801472, 0, 0, 65538, 0], 'fe80::1:2'],
    ['1:0:0:2::3',      [65536, 2, 0, 3, 0],      '1:0:0:2::3'],
    ['1::2:0:0:3',      [65536, 0, 131072, 3, 0], '1::2:0:0:3'],
    ['1:0:2:0:3:0:4:0', [65536, 131072, 196608, 262144, 0], '1:0:2:0:3:0:4:0'],
    ['1:2:3:4:5:6:7:8', [65538, 196612, 327686, 458760, 0], '1:2:3:4:5:6:7:8'],
    ['1:2:3:4:5:6:7::', [65538, 196612, 327686, 458752, 0], '1:2:3:4:5:6:7:0'],
    ['::2:3:4:5:6:7:8', [2, 196612, 327686, 458760, 0], '0:2:3:4:5:6:7:8'],
    ['1:0:2::',         [65536, 131072, 0, 0, 0], '1:0:2::'],
    ['ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff', [(4294967295) x 4, 0],
        'ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff'],
    ['8000::',          [2147483648, 0, 0, 0, 0], '8000::'],
    ['::1:0:0',         [0, 0, 1, 0, 0],          '::1:0:0'],
    # IPv6, other spellings of the same words
    ['2001:DB8:0:0:0:0:0:1',                    [536939960, 0, 0, 1, 0], '2001:db8::1'],
    ['2001:0db8:0000:0000:0000:0000:0000:0001', [536939960, 0, 0, 1, 0], '2001:db8::1'],
    ['0:0:0:0:0:0:0:0',                         [0, 0, 0, 0, 0],         '0.0.0.0'],
    # IPv6 whose top 96 bits are zero prints as IPv4: the same four words
    ['::',              [0, 0, 0, 0, 0],          '0.0.0.0'],
    ['::1',             [0, 0, 0, 1, 0],          '0.0.0.1'],
    ['::1.2.3.4',       [0, 0, 0, 16909060, 0],   '1.2.3.4'],
    ['::ffff:ffff',     [0, 0, 0, 4294967295, 0], '255.255.255.255'],
    # IPv4-mapped stays IPv6
    ['::ffff:203.0.113.45', [0, 0, 65535, 3405803821, 0], '::ffff:203.0.113.45'],
    ['::ffff:0.0.0.0',      [0, 0, 65535, 0, 0],          '::ffff:0.0.0.0'],
    ['::ffff:cb00:712d',    [0, 0, 65535, 3405803821, 0], '::ffff:203.0.113.45'],
    ['::FFFF:1.2.3.4',      [0, 0, 65535, 16909060, 0],   '::ffff:1.2.3.4'],
    ['::fffe:1.2.3.4',      [0, 0, 65534, 16909060, 0],   '::fffe:102:304'],
    ['::1:ffff:1.2.3.4',    [0, 0, 131071, 16909060, 0],  '::1:ffff:102:304'],
    ['1:2:3:4:5:6:1.2.3.4', [65538, 196612, 327686, 16909060, 0], '1:2:3:4:5:6:102:304'],
    # route domains
    ['1.2.3.4%0',          [0, 0, 0, 16909060, 0],          '1.2.3.4'],
    ['1.2.3.4%1',          [0, 0, 0, 16909060, 1],          '1.2.3.4%1'],
    ['1.2.3.4%4294967295', [0, 0, 0, 16909060, 4294967295], '1.2.3.4%4294967295'],
    ['1.2.3.4%0000000001', [0, 0, 0, 16909060, 1],          '1.2.3.4%1'],
    ['1.2.3.4%0000000000', [0, 0, 0, 16909060, 0],          '1.2.3.4'],
    ['1.2.3.4%007',        [0, 0, 0, 16909060, 7],          '1.2.3.4%7'],
    ['0.0.0.0%12',         [0, 0, 0, 0, 12],                '0.0.0.0%12'],
    ['2001:db8::1%5',      [536939960, 0, 0, 1, 5],         '2001:db8::1%5'],
    ['::%3',               [0, 0, 0, 0, 3],                 '0.0.0.0%3'],
    ['::ffff:1.2.3.4%99',  [0, 0, 65535, 16909060, 99],     '::ffff:1.2.3.4%99'],
    ['ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255%4294967295', [(4294967295) x 5],
        'ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff%4294967295'],
    ['0000:0000:0000:0000:0000:ffff:255.255.255.255', [0, 0, 65535, 4294967295, 0],
        '::ffff:255.255.255.255'],
);

for my $c (@PARSED) {
    my ($text, $w, $printed) = @$c;
    my $a = $IP->from_string($text);
    is ref($a), $IP, "from_string('$text'): an object of exactly $IP";
    is_deeply $a->to_hashref, words(@$w), "from_string('$text'): all five fields, exact values";
    is $a->as_string, $printed, "from_string('$text')->as_string is '$printed'";
}

# ===========================================================================
# Address to text, from addresses made field by field.
# ===========================================================================
my @PRINTED = (
    [{},                                   '0.0.0.0',        'no field present: every word reads as 0'],
    [{ ip3 => 3405803821 },                '203.0.113.45',   'only ip3'],
    [{ ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 1 }, '0.0.0.1',  'ip0..ip2 present and 0'],
    [{ rtdom_id => 0 },                    '0.0.0.0',        'rtdom_id 0 adds nothing'],
    [{ rtdom_id => 1 },                    '0.0.0.0%1',      'rtdom_id 1'],
    [{ rtdom_id => 4294967295 },           '0.0.0.0%4294967295', 'largest rtdom_id'],
    [{ ip0 => 1 },                         '0:1::',          'only ip0'],
    [{ ip1 => 1 },                         '0:0:0:1::',      'only ip1: the longer zero run wins'],
    [{ ip2 => 1 },                         '::1:0:0',        'only ip2'],
    [{ ip2 => 65535 },                     '::ffff:0.0.0.0', 'mapped range with ip3 absent'],
    [{ ip2 => 65535, ip3 => 16909060, rtdom_id => 8 }, '::ffff:1.2.3.4%8', 'mapped with a route domain'],
    [{ ip2 => 4294901760 },                '::ffff:0:0:0',   'ip2 0xffff0000 is not the mapped range'],
    [{ ip0 => 536939960, ip3 => 1 },       '2001:db8::1',    'longest zero run in the middle'],
    [{ ip0 => 536939960, ip1 => 0, ip2 => 1, ip3 => 0 }, '2001:db8::1:0:0', 'the earlier of two runs is longer'],
    [{ ip0 => 536939960, ip1 => 0, ip2 => 65536, ip3 => 0 }, '2001:db8:0:0:1::', 'the later of two runs is longer'],
    [{ ip0 => 536936448, ip1 => 1, ip2 => 0, ip3 => 65537 }, '2001::1:0:0:1:1', 'the first of two equal runs'],
    [{ ip0 => 4294967295, ip1 => 4294967295, ip2 => 4294967295, ip3 => 4294967295, rtdom_id => 4294967295 },
        'ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff%4294967295', 'every bit set: the longest text'],
    [{ ip0 => 65536, ip1 => 0, ip2 => 0, ip3 => 65536 }, '1::1:0', 'one zero word is not compressed: 1:0:0:0:0:0:1:0'],
    [{ ip0 => 65536, ip1 => 65536, ip2 => 65536, ip3 => 65536 }, '1:0:1:0:1:0:1:0', 'single zero words stay'],
    [{ ip0 => 2882400018 },                'abcd:ef12::',    'lower-case hex'],
);

for my $c (@PRINTED) {
    my ($h, $text, $what) = @$c;
    my $a = $IP->new($h);
    is $a->as_string, $text, "as_string, $what: '$text'";
}

{
    my $s = $IP->from_string('2001:db8::1%5')->as_string;
    ok is_string_sv($s), 'as_string returns a plain string';
    ok !utf8::is_utf8($s), 'as_string returns a byte string';
}

# ===========================================================================
# Refusals: [text, how the message shows it, what it is].
# ===========================================================================
my @REFUSED = (
    ['',                     '',                     'empty text'],
    ['1.2.3',                '1.2.3',                'three parts'],
    ['1.2.3.4.5',            '1.2.3.4.5',            'five parts'],
    ['1.2.3.256',            '1.2.3.256',            'part above 255'],
    ['01.2.3.4',             '01.2.3.4',             'leading zero (octal-looking)'],
    ['1.2.3.04',             '1.2.3.04',             'leading zero in the last part'],
    ['0x1.2.3.4',            '0x1.2.3.4',            'hex part'],
    ['16909060',             '16909060',             'one number'],
    ['1.2.3.',               '1.2.3.',               'trailing dot'],
    ['.1.2.3',               '.1.2.3',               'leading dot'],
    ['1..2.3',               '1..2.3',               'empty part'],
    [' 1.2.3.4',             ' 1.2.3.4',             'leading blank'],
    ['1.2.3.4 ',             '1.2.3.4 ',             'trailing blank'],
    ["1.2.3.4\n",            '1.2.3.4\x0a',          'trailing newline'],
    ['[::1]',                '[::1]',                'brackets'],
    ['::1]',                 '::1]',                 'closing bracket'],
    [':::',                  ':::',                  'three colons'],
    ['1::2::3',              '1::2::3',              'two "::"'],
    ['1:2:3:4:5:6:7:8:9',    '1:2:3:4:5:6:7:8:9',    'nine groups'],
    ['1:2:3:4:5:6:7',        '1:2:3:4:5:6:7',        'seven groups without "::"'],
    ['12345::',              '12345::',              'five hex digits'],
    ['00000::1',             '00000::1',             'five hex digits with leading zeros'],
    ['g::1',                 'g::1',                 'not a hex digit'],
    ['::ffff:1.2.3',         '::ffff:1.2.3',         'short embedded IPv4'],
    ['::ffff:1.2.3.4:5',     '::ffff:1.2.3.4:5',     'group after embedded IPv4'],
    ['::ffff:01.2.3.4',      '::ffff:01.2.3.4',      'leading zero in embedded IPv4'],
    ['1.2.3.4::',            '1.2.3.4::',            'IPv4 first'],
    ['localhost',            'localhost',            'a host name'],
    ['fe80::1%eth0',         'fe80::1%eth0',         'interface name as route domain'],
    ['1.2.3.4%',             '1.2.3.4%',             'no route domain digits'],
    ['%1',                   '%1',                   'no address'],
    ['%',                    '%',                    'only the percent sign'],
    ['1.2.3.4%4294967296',   '1.2.3.4%4294967296',   'route domain 2**32'],
    ['1.2.3.4%9999999999',   '1.2.3.4%9999999999',   'route domain of ten nines'],
    ['1.2.3.4%00000000001',  '1.2.3.4%00000000001',  'eleven route domain digits'],
    ['1.2.3.4%-1',           '1.2.3.4%-1',           'negative route domain'],
    ['1.2.3.4%+1',           '1.2.3.4%+1',           'signed route domain'],
    ['1.2.3.4% 1',           '1.2.3.4% 1',           'blank in the route domain'],
    ['1.2.3.4%1 ',           '1.2.3.4%1 ',           'blank after the route domain'],
    ['1.2.3.4%0x10',         '1.2.3.4%0x10',         'hex route domain'],
    ['1.2.3.4%1%2',          '1.2.3.4%1%2',          'two route domains'],
    ['1.2.3.4%%1',           '1.2.3.4%%1',           'two percent signs'],
    ["1.2.3.4\0",            '1.2.3.4\x00',          'NUL after the address'],
    ["1.2.3.4\0junk",        '1.2.3.4\x00junk',      'NUL and more after the address'],
    ["\0" . '1.2.3.4',       '\x001.2.3.4',          'NUL first'],
    ["::1\0",                '::1\x00',              'NUL after an IPv6 address'],
    ["1.2.3.4%1\0",          '1.2.3.4%1\x00',        'NUL after the route domain'],
    ["1.2.3.4\xff",          '1.2.3.4\xff',          'byte 0xff'],
    ["\x7f\x1f\x20\x7e",     '\x7f\x1f ~',           'the edges of the shown range'],
    ['"quoted"\\',           '"quoted"\\',           'quotes and backslash are shown as they are'],
    ['0' x 64,               '0' x 64,               '64 characters: shown whole'],
    ['0' x 65,               ('0' x 64) . '...',     '65 characters: cut to 64 and "..."'],
    ['0000:0000:0000:0000:0000:0000:0000:0000:0000', '0000:0000:0000:0000:0000:0000:0000:0000:0000',
        'nine groups of four zeros'],
    [('1' x 1000) . "\0",    ('1' x 64) . '...',     'a long text with a NUL past the cut'],
    [("\xff" x 70),          ('\xff' x 64) . '...',  'escaped bytes are cut by bytes, not by shown characters'],
);

for my $c (@REFUSED) {
    my ($text, $shown, $what) = @$c;
    my $err = error_of { $IP->from_string($text) };
    like $err, bad_re($shown), "from_string refuses $what";
}

# Numbers are taken by their string form.
{
    my $err = error_of { $IP->from_string(42) };
    like $err, bad_re('42'), 'from_string(42): refused, shown as "42"';
    $err = error_of { $IP->from_string(1.5) };
    like $err, bad_re('1.5'), 'from_string(1.5): refused, shown as "1.5"';
    $err = error_of { $IP->from_string(0) };
    like $err, bad_re('0'), 'from_string(0): refused, shown as "0"';
}

# Characters: a UTF-8 flagged string reads by its bytes, and its message shows
# the same as the same string without the flag.
{
    my $t = '2001:db8::1%5';
    utf8::upgrade($t);
    is $IP->from_string($t)->as_string, '2001:db8::1%5', 'from_string of an upgraded ASCII string';
    my $e = "1.2.3.4\xe9";
    my $u = $e;
    utf8::upgrade($u);
    like error_of { $IP->from_string($e) }, bad_re('1.2.3.4\xe9'), 'from_string of Latin-1 text: shown by its byte';
    like error_of { $IP->from_string($u) }, bad_re('1.2.3.4\xe9'), 'the same text upgraded: the same message';
    like error_of { $IP->from_string("1.2.3.4\x{263a}") }, bad_re('1.2.3.4\xe2\x98\xba'),
        'a wide character is shown by its UTF-8 bytes';
    like error_of { $IP->from_string("\x{ff10}.0.0.0") }, bad_re('\xef\xbc\x90.0.0.0'),
        'a full-width digit is refused';
}

# undef and references.
{
    like error_of { $IP->from_string(undef) }, at_re('invalid address text (undef)'), 'from_string(undef)';
    my $ref_re = at_re('invalid address text (a reference)');
    like error_of { $IP->from_string(\'1.2.3.4') }, $ref_re, 'from_string of a scalar reference';
    like error_of { $IP->from_string(['1.2.3.4']) }, $ref_re, 'from_string of an array reference';
    like error_of { $IP->from_string({ ip3 => 1 }) }, $ref_re, 'from_string of a hash reference';
    like error_of { $IP->from_string(sub { '1.2.3.4' }) }, $ref_re, 'from_string of a code reference';
    like error_of { $IP->from_string($IP->from_string('1.2.3.4')) }, $ref_re, 'from_string of an IPAddr';
    like error_of { $IP->from_string(Stringy->new('1.2.3.4')) }, $ref_re,
        'from_string of an object that stringifies to an address';
}

# Magic: a tied text is fetched once, valid or not; $1 works.
{
    tie my $t, 'CountingScalar', '10.0.0.1%3';
    is $IP->from_string($t)->as_string, '10.0.0.1%3', 'from_string of a tied scalar';
    is tied($t)->{fetches}, 1, 'from_string fetches a tied text once';
    tie my $b, 'CountingScalar', 'nope';
    like error_of { $IP->from_string($b) }, bad_re('nope'), 'from_string of a tied bad text';
    is tied($b)->{fetches}, 1, 'from_string fetches a tied bad text once';
    tie my $un, 'CountingScalar', undef;
    like error_of { $IP->from_string($un) }, at_re('invalid address text (undef)'), 'from_string of a tied undef';
    is tied($un)->{fetches}, 1, 'from_string fetches a tied undef once';
    tie my $r, 'CountingScalar', [1];
    like error_of { $IP->from_string($r) }, at_re('invalid address text (a reference)'),
        'from_string of a tied reference';
    is tied($r)->{fetches}, 1, 'from_string fetches a tied reference once';
    'addr=192.168.1.1%2;' =~ /=(.*);/ or die;
    is $IP->from_string($1)->as_string, '192.168.1.1%2', 'from_string($1)';
}

# ===========================================================================
# Arguments, classes, handles.
# ===========================================================================
{
    my $from = code_for('from_string', $IP);
    my $as   = code_for('as_string', $IP);
    like error_of { $from->() }, usage_re('from_string', 'CLASS, text', $IP), 'from_string without arguments';
    like error_of { $from->($IP) }, usage_re('from_string', 'CLASS, text', $IP), 'from_string with the class only';
    like error_of { $IP->from_string('1.2.3.4', 'x') }, usage_re('from_string', 'CLASS, text', $IP),
        'from_string with three arguments';
    like error_of { $as->() }, usage_re('as_string', 'svTHIS', $IP), 'as_string without arguments';
    like error_of { $IP->from_string('1.2.3.4')->as_string(1) }, usage_re('as_string', 'svTHIS', $IP),
        'as_string with two arguments';

    like error_of { $from->('Some::Other', '1.2.3.4') }, at_re('invalid class Some::Other'),
        'from_string with another class name';
    like error_of { My::SubIP->from_string('1.2.3.4') }, at_re('invalid class My::SubIP'),
        'from_string through a subclass: its name is refused, as new refuses it';
    like error_of { $from->($CLASS, '1.2.3.4') }, at_re("invalid class $CLASS"),
        'from_string with the record class';
    like error_of { $from->('', '1.2.3.4') }, at_re('invalid class '), 'from_string with an empty class name';
    like error_of { $from->('Some::Other', undef) }, at_re('invalid class Some::Other'),
        'the class is checked before the text';
    my $obj = $IP->from_string('1.2.3.4');
    like error_of { $obj->from_string('1.2.3.4') }, at_re("invalid class $obj"),
        'from_string called on an object: the object is not the class name';

    my $a = $IP->from_string('1.2.3.4');
    my $b = $IP->from_string('1.2.3.4');
    isnt $$a, $$b, 'two calls make two addresses';
    $a->set_ip3(16909061);
    is $b->as_string, '1.2.3.4', 'changing one leaves the other';
    is $a->as_string, '1.2.3.5', 'as_string follows the setters';
    $a->clear_ip3;
    is $a->as_string, '0.0.0.0', 'as_string after clear_ip3';
    $a->set_ip2(65535);
    is $a->as_string, '::ffff:0.0.0.0', 'as_string after set_ip2';

    like error_of { $as->($CLASS->new) }, $IP_TYPE_RE, 'as_string on a record';
    like error_of { $as->($IP) }, $IP_TYPE_RE, 'as_string on the class name';
    like error_of { $as->(undef) }, $IP_TYPE_RE, 'as_string on undef';
    like error_of { $as->(bless {}, 'Some::Other') }, $IP_TYPE_RE, 'as_string on another object';

    my $z = bless \(my $zero = 0), $IP;
    my @got = $z->as_string;
    is_deeply \@got, [undef], 'as_string on an empty handle: undef';

    is prototype("${IP}::from_string"), '$$', 'from_string has prototype $$';
    is prototype("${IP}::as_string"), '$', 'as_string has prototype $';
}

# Addresses made from text go into records and come back.
{
    my $r = $CLASS->new;
    $r->set_client_ip($IP->from_string('10.0.0.1%3'));
    $r->set_dest_ip($IP->from_string('2001:db8::2'));
    is $r->client_ip->as_string, '10.0.0.1%3', 'client_ip set from text reads back as the text';
    is $r->dest_ip->as_string, '2001:db8::2', 'dest_ip set from text reads back as the text';
    is_deeply $r->to_hashref->{client_ip}, words(0, 0, 0, 167772161, 3), 'the record holds all five words';
    is_deeply $r->to_hashref->{dest_ip}, words(536939960, 0, 0, 2, 0),
        'rtdom_id 0 from text is present in the record';
    my $back = $CLASS->new($r->pack);
    is $back->client_ip->as_string, '10.0.0.1%3', 'the text survives pack and new';
}

# ===========================================================================
# Round trips.
# ===========================================================================

# Canonical texts: as_string(from_string(x)) is x.
{
    my @canonical = grep { $_->[0] eq $_->[2] } @PARSED;
    is scalar(@canonical), 25, 'number of canonical texts in the table';
    for my $c (@canonical) {
        is $IP->from_string($c->[0])->as_string, $c->[0], "round trip of '$c->[0]'";
    }
}

# Seeded random addresses: from_string(as_string(a)) has a's five words, and
# the text matches what Perl's Socket (the same C library, called from Perl
# with the words packed by hand) makes of them.
{
    my $g = QelRandom->new(52);
    # A 32-bit word with 16-bit halves that are often zero, so zero runs of
    # every length and place turn up.
    my $half = sub { my $r = $g->below(4); $r == 0 ? 0 : $r == 1 ? 0xffff : $r == 2 ? $g->below(16) : $g->below(65536) };
    my $word = sub { $g->below(3) ? ($half->() << 16) | $half->() : $g->uint32 };
    my %kinds;
    my ($bad_words, $bad_text) = (0, 0);
    my $n = 3000;
    for my $i (1 .. $n) {
        my $kind = $g->below(4);
        my @ip = $kind == 0 ? (0, 0, 0, $word->())             # IPv4
               : $kind == 1 ? (0, 0, 0xffff, $word->())        # mapped
               :              map { $word->() } 1 .. 4;        # IPv6 (now and then IPv4 too)
        my $rt = $g->below(2) ? 0 : $g->uint32;
        my $w = words(@ip, $rt);
        my $text = $IP->new($w)->as_string;
        my $v4 = !$ip[0] && !$ip[1] && !$ip[2];
        $kinds{ $v4 ? 'ipv4' : $text =~ /^::ffff:\d/ ? 'mapped' : 'ipv6' }++;
        my $expect = $v4 ? inet_ntop(AF_INET, pack 'N', $ip[3]) : inet_ntop(AF_INET6, pack 'N4', @ip);
        $expect .= "%$rt" if $rt;
        if ($text ne $expect) {
            diag "words @ip $rt: as_string '$text', expected '$expect'" if $bad_text++ < 5;
        }
        my $back = $IP->from_string($text)->to_hashref;
        if (join(',', map { $back->{$_} } @IPF) ne join(',', map { $w->{$_} } @IPF)) {
            diag "words @ip $rt: text '$text' parses back to " . join(' ', map { $back->{$_} } @IPF)
                if $bad_words++ < 5;
        }
    }
    is $bad_text, 0, "$n random addresses: as_string matches the C library's text of the packed words";
    is $bad_words, 0, "$n random addresses: from_string(as_string) gives the same five words";
    cmp_ok $kinds{$_} || 0, '>', 300, "random addresses include $_ ones" for qw(ipv4 mapped ipv6);
}

# ===========================================================================
# No Perl value leaks, on success and on every refusal.
# ===========================================================================
my $HAVE_LEAKTRACE;
BEGIN { $HAVE_LEAKTRACE = eval { require Test::LeakTrace; Test::LeakTrace->import; 1 } }
SKIP: {
    skip 'Test::LeakTrace not installed', 1 unless $HAVE_LEAKTRACE;
    my $z = bless \(my $zero = 0), $IP;
    no_leaks_ok {
        for (1 .. 3) {
            my $a = $IP->from_string('2001:db8::1%5');
            my $s = $a->as_string;
            $s = $z->as_string;
            eval { $IP->from_string("bad\0text" x 20) };
            eval { $IP->from_string(undef) };
            eval { $IP->from_string([]) };
            eval { $IP->from_string('1.2.3.4', 2) };
            eval { My::SubIP->from_string('1.2.3.4') };
            eval { $a->as_string(1) };
            eval { code_for('as_string', $IP)->($CLASS->new) };
            my $u = "\x{263a}";
            eval { $IP->from_string($u) };
        }
    } 'from_string and as_string leak nothing, on success or refusal';
}

done_testing;

package Stringy;
use overload '""' => sub { ${ $_[0] } }, fallback => 1;
sub new { my ($class, $s) = @_; bless \$s, $class }

package My::SubIP;
BEGIN { our @ISA = ('quillon_event_log::IPAddr') }
