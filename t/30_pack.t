# pack, unpack and length: exact wire bytes for the cases below, unknown
# fields of every wire type, parse failures, and a sweep over encoded lengths
# checked against the pure-Perl encoder of t/lib/QelTest.pm.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);
use quillon_event_log::QuillonEventLog;

my $PKG = 'quillon_event_log::QuillonEventLog';

sub from_hex { $PKG->new(unhex(shift)) }

# ---- the empty record --------------------------------------------------------

{
    my $o = $PKG->new;
    is $o->length, 0, 'empty record: length 0';
    is encode_ref({}), '', 'empty record: the reference encoding is empty';
    my $p = $o->pack;
    is length($p), 16, 'empty record: pack gives 16 bytes';
    is hexs($p), '00' x 16, 'empty record: the 16 bytes are all zero';
    ok !utf8::is_utf8($p), 'pack result is a byte string';
    is_deeply $PKG->new($p)->to_hashref, {}, 'empty record: new(pack) is empty again';
}

# ---- single fields -----------------------------------------------------------

my @exact = (
    ['bot_name "a"',                         { bot_name => 'a' },                  '0a0161'],
    ['mobile_is_app true',                   { mobile_is_app => 1 },               'c80101'],
    ['mobile_is_app false',                  { mobile_is_app => 0 },               'c80100'],
    ['empty client_ip',                      { client_ip => {} },                  '2200'],
    ['empty dest_ip',                        { dest_ip => {} },                    '2a00'],
    ['mobile_app_display_name "x"',          { mobile_app_display_name => 'x' },   '82010178'],
    ['anomalies p, q',                       { anomalies => ['p', 'q'] },          'ea020170ea020171'],
    ['anomaly_categories then anomalies',    { anomalies => ['b'], anomaly_categories => ['a'] },
                                                                                   'e2020161ea020162'],
    ['empty bot_name',                       { bot_name => '' },                   '0a00'],
    ['request_uri',                          { request_uri => '/' },               '3a012f'],
    ['reason',                               { reason => 'r' },                    '7a0172'],
    ['classification (after the gap at 31)', { classification => 'c' },            '82020163'],
    ['http_protocol_info',                   { http_protocol_info => 'h' },        'ea030168'],
    ['src_port 0',                           { src_port => 0 },                    '980100'],
    ['src_port 300',                         { src_port => 300 },                  '9801ac02'],
    ['slot_number 4294967295',               { slot_number => 4294967295 },        'a003ffffffff0f'],
    ['device_id largest',                    { device_id => '18446744073709551615' }, 'a801ffffffffffffffffff01'],
    ['previous_support_id 1',                { previous_support_id => '1' },       'c00101'],
    ['is_update_request true',               { is_update_request => 1 },           'd80301'],
    ['client_ip all fields',                 { client_ip => { ip0 => 1, ip1 => 2, ip2 => 3, ip3 => 4, rtdom_id => 128 } },
                                                                                   '220b08011002180320042880 01' =~ s/ //gr],
);
for my $c (@exact) {
    my ($what, $h, $hex) = @$c;
    is hexs(encode_ref($h)), $hex, "reference encoder: $what";
    my $o = new_rec($h);
    is hexs($o->pack), $hex, "pack: $what";
    is $o->length, length($hex) / 2, "length: $what";
}
is new_rec(mobile_app_display_name => 'x')->length, 4, 'length of mobile_app_display_name with one character is 4';

{
    my $o = $PKG->new;
    $o->set_bot_name('a');
    is hexs($o->pack), '0a0161', 'bot_name set by its setter packs to 0a0161';
    $o->clear_bot_name;
    $o->set_mobile_is_app(1);
    is hexs($o->pack), 'c80101', 'mobile_is_app set by its setter packs to c80101';
    $o->clear;
    $o->add_anomalies('p');
    $o->add_anomalies('q');
    is hexs($o->pack), 'ea020170ea020171', 'anomalies added one by one pack to ea020170ea020171';
    $o->clear;
    my $addr = $o->client_ip;
    is hexs($o->pack), '00' x 16, 'reading client_ip does not make it present';
    $o->set_client_ip(quillon_event_log::IPAddr->new);
    is hexs($o->pack), '2200', 'an empty address set by its setter packs to 2200';
}

# ---- parsing -----------------------------------------------------------------

{
    my $o = $PKG->new;
    is $o->unpack(unhex('0a03616263')), 1, 'unpack 0a03616263 succeeds';
    is $o->bot_name, 'abc', '0a03616263: bot_name is "abc"';
    is $o->has_bot_name, 1, '0a03616263: has_bot_name is 1';
    is $o->unpack(unhex('0a03616263 0a03616263')), 1, 'unpack of bot_name twice succeeds';
    is $o->bot_name, 'abc', 'bot_name twice: "abc" once, not appended';
    is $o->unpack(unhex('0a0178 0a03616263')), 1, 'unpack of two different bot_name values succeeds';
    is $o->bot_name, 'abc', 'duplicate bot_name: the last value wins';
    is hexs($o->pack), '0a03616263', 'duplicate bot_name: packed once';
}
{
    my $o = from_hex('0801');
    is $o->has_bot_name, 0, 'field 1 as a varint: bot_name stays unset';
    is_deeply $o->to_hashref, {}, 'field 1 as a varint: no known field';
    is hexs($o->pack), '0801', 'field 1 as a varint: kept as an unknown field';
    is $PKG->new->unpack(unhex('0801')), 1, 'field 1 as a varint: the parse succeeds';
    my $p = from_hex('9a01 0131 0a0161');
    is_deeply $p->to_hashref, { bot_name => 'a' }, 'src_port as length-delimited: src_port stays unset';
    is hexs($p->pack), '0a0161' . '9a010131', 'src_port as length-delimited: kept and written after the known fields';
}
{
    my $o = from_hex('22020801 22021002');
    is_deeply $o->to_hashref, { client_ip => { ip0 => 1, ip1 => 2 } }, 'two client_ip occurrences merge into one address';
    is hexs($o->pack), '220408011002', 'two client_ip occurrences: packed as one';
    my $p = from_hex('22020801 22020803');
    is_deeply $p->to_hashref, { client_ip => { ip0 => 3 } }, 'two client_ip occurrences: the later ip0 wins';
}
{
    my $o = $PKG->new;
    is $o->unpack(unhex('22050801')), 0, 'client_ip whose length runs past the end: unpack 0';
    is $o->unpack(unhex('0a0561')), 0, 'bot_name whose length runs past the end: unpack 0';
    is $o->unpack(unhex('0a')), 0, 'a tag without its value: unpack 0';
    is $o->unpack(unhex('9801ff')), 0, 'a varint cut short: unpack 0';
    is $o->unpack(unhex('34')), 0, 'an end-group tag without its start: unpack 0';
    is $o->unpack(unhex('0f')), 0, 'wire type 7: unpack 0';
    my $q = $PKG->new;
    is $q->unpack(unhex('22020801')), 1, 'the complete client_ip parses';
}
{
    my $bytes = "\xff\xfe\xc3(\x80";
    my $o = quietly { from_hex('0a05' . hexs($bytes)) };
    is $o->bot_name, $bytes, 'invalid UTF-8 in bot_name: parsed unchanged';
    is hexs(quietly { $o->pack }), '0a05' . hexs($bytes), 'invalid UTF-8 in bot_name: packed unchanged';
    my $p = $PKG->new;
    $p->set_host($bytes);
    $p->add_anomalies("\xc0\xaf");
    is hexs(quietly { $p->pack }), 'ea0202c0af' . 'aa0305' . hexs($bytes), 'invalid UTF-8 set from Perl: packed as given';
    is quietly { $PKG->new->unpack($p->pack) }, 1, 'invalid UTF-8: the parse succeeds';
    is_deeply quietly { $PKG->new($p->pack)->to_hashref }, { host => $bytes, anomalies => ["\xc0\xaf"] },
        'invalid UTF-8: round trip';
}
{
    my $o = new_rec(bot_name => 'old', anomalies => ['x'], client_ip => { ip0 => 1 });
    is $o->unpack(new_rec(host => 'h')->pack), 1, 'unpack into a filled record succeeds';
    is_deeply $o->to_hashref, { host => 'h' }, 'unpack clears first: only the parsed fields remain';
    is $o->anomalies_size, 0, 'unpack clears first: list emptied';
    $o->set_bot_name('again');
    is $o->unpack(''), 1, 'unpack of the empty string returns 1';
    is_deeply $o->to_hashref, {}, 'unpack of the empty string leaves the record empty';
    is $o->length, 0, 'unpack of the empty string: length 0';
    $o->set_bot_name('again');
    {
        my @w;
        local $SIG{__WARN__} = sub { push @w, @_ };
        is $o->unpack(undef), 1, 'unpack(undef) returns 1';
    }
    is_deeply $o->to_hashref, {}, 'unpack(undef) empties the record';
    $o->set_host('again');
    is $o->unpack(unhex('980105 0a0278')), 0, 'unpack with a string cut short after src_port returns 0';
    is $o->has_host, 0, 'after a failed unpack the earlier contents are gone';
    is $o->src_port, 5, 'after a failed unpack the record holds what was read before the fault';
    is $o->unpack(80), 1, 'unpack of the number 80 parses its text form "80"';
    is_deeply $o->to_hashref, {}, 'unpack(80): "80" is field 7 as a varint, an unknown field';
    is hexs($o->pack), '3830', 'unpack(80): the unknown field is written back';
}
{
    my $o = new_rec(src_port => 1);
    my @r = $o->unpack('');
    is scalar @r, 1, 'unpack returns one value';
    @r = $o->pack;
    is scalar @r, 1, 'pack returns one value';
    @r = $o->length;
    is scalar @r, 1, 'length returns one value';
}

# ---- unknown fields 6 and 31, every wire type ---------------------------------

my @unknown = (
    unknown_field_samples(),
    ['field 62 varint',           'f00301'],
    ['field 1000 varint',         'c03e01'],
);
for my $u (@unknown) {
    my ($what, $hex) = @$u;
    my $o = $PKG->new;
    is $o->unpack(unhex($hex . '0a0161' . '980105')), 1, "$what before known fields: unpack 1";
    is_deeply $o->to_hashref, { bot_name => 'a', src_port => 5 }, "$what: known fields read";
    is hexs($o->pack), '0a0161' . '980105' . $hex, "$what: kept and written after the known fields";
    is $o->length, 6 + length($hex) / 2, "$what: counted by length";
    my $p = from_hex('0a0161' . $hex . '980105');
    is hexs($p->pack), '0a0161' . '980105' . $hex, "$what between known fields: written after them";
    my $q = from_hex($hex);
    is hexs($q->pack), $hex, "$what alone: written back unchanged";
    $q->discard_unkown_fields;
    is hexs($q->pack), '00' x 16, "$what alone: gone after discard_unkown_fields";
}
{
    my $o = from_hex('3005' . '0a0161' . 'f80107' . '3201' . '78');
    is hexs($o->pack), '0a0161' . '3005' . 'f80107' . '320178', 'several unknown fields keep their order';
    my $p = from_hex('2204 0801 3005');
    is hexs($p->pack), '2204' . '0801' . '3005', 'an unknown field inside client_ip is kept inside it';
}

# ---- round trips -------------------------------------------------------------

{
    my %h = (bot_name => "n\0ul", client_ip => { ip0 => 4294967295, rtdom_id => 0 }, dest_ip => { ip2 => 1 },
             src_port => 1, dest_port => 2, device_id => '3', session_id => '4', support_id => '5',
             previous_support_id => '18446744073709551615', mobile_is_app => 0, request_time => 6,
             previous_request_time => 7, slot_number => 8, is_https_request => 1, is_update_request => 0,
             anomaly_categories => ['', 'x'], anomalies => ['y'], http_protocol_info => "\xc3\xa9");
    my $o = new_rec(\%h);
    my $p = $o->pack;
    bytes_is $p, encode_ref(\%h), 'mixed record: pack equals the reference encoding';
    is $o->length, length($p), 'mixed record: length equals the packed length';
    is_deeply $PKG->new($p)->to_hashref, \%h, 'mixed record: new(pack) gives the same hash';
    my $other = new_rec(host => 'x');
    is $other->unpack($p), 1, 'mixed record: unpack into another object succeeds';
    is_deeply $other->to_hashref, \%h, 'mixed record: unpack into another object gives the same hash';
    is hexs($other->pack), hexs($p), 'mixed record: repacked to the same bytes';
}

# ---- length sweep ------------------------------------------------------------

# Records of every encoded length from 2 to 3000 bytes and within 3 bytes of
# every power of two up to 1 MiB, in two shapes: one string field, and a mix of
# every family filled up by one string (record_hash_of_length in QelTest).
my $reader = $PKG->new;
for my $len (sweep_lengths()) {
    for my $shape (['one string', 'string'], ['mixed', 'mixed']) {
        my ($what, $kind) = @$shape;
        my $h = record_hash_of_length($len, $kind);
        my $ref = encode_ref($h);
        my $o = new_rec($h);
        my $p = $o->pack;
        bytes_is $p, $ref, "$len bytes, $what: pack equals the reference encoding";
        is join(' ', $o->length, length $p), "$len $len", "$len bytes, $what: length and packed length";
        is_deeply $PKG->new($p)->to_hashref, $h, "$len bytes, $what: new(pack) gives the hash back";
        is join(' ', $reader->unpack($p), $reader->length), "1 $len", "$len bytes, $what: unpack succeeds, same length";
    }
}

done_testing;
