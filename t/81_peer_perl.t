# Interop with Debian's pure-Perl protocol-buffer library
# (Google::ProtocolBuffers), a peer written independently of the module: it
# decodes the bytes of pack to what to_hashref gives, new reads its encoding
# back to the hash it encoded, and both write the same bytes.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);
use QelRandom qw(handpicked_records);
use quillon_event_log::QuillonEventLog;

my $why = perl_peer_skip_reason();
plan skip_all => $why if defined $why;

my $PKG = 'quillon_event_log::QuillonEventLog';
my $PEER = perl_peer();

# How the two sides differ in representation only, and all that is
# normalised below:
#  - the peer's decode returns objects (QelPeer::QuillonEventLog and
#    QelPeer::IPAddr blessed hashes); peer_plain makes them plain hashes;
#  - the peer returns uint64 values as native integers, the hash form as
#    decimal strings; hash_text compares values by their string form, which
#    has the same digits.
# Strings need nothing: the peer returns the bytes of a string field as they
# are (no UTF-8 decoding), as the hash form does. Flags are 1 and 0 on both
# sides, and a list without elements has no key on both sides.
sub peer_text { hash_text(peer_plain($_[0])) }

# The bytes to hand the peer: an empty record packs to 16 zero bytes on
# purpose, while its encoding is empty.
sub peer_bytes { my $r = shift; quietly { $r->length ? $r->pack : '' } }

# ---- how the peer represents values ---------------------------------------------

{
    my $bytes = new_rec(device_id => '18446744073709551615', session_id => '9223372036854775808', support_id => '0')->pack;
    my $d = $PEER->decode($bytes);
    isa_ok $d, 'QelPeer::QuillonEventLog', 'the peer decodes to an object';
    ok !ref $d->{device_id} && is_int_sv($d->{device_id}), 'the peer gives a uint64 as a native integer (not a Math::BigInt)';
    is "$d->{device_id}", '18446744073709551615', 'the peer reads uint64 2**64-1 to the digits of the hash form';
    is "$d->{session_id}", '9223372036854775808', 'the peer reads uint64 2**63 to the digits of the hash form';
    is "$d->{support_id}", '0', 'the peer reads uint64 0 as 0';
    bytes_is $PEER->encode({ device_id => '18446744073709551615' }), unhex('a801ffffffffffffffffff01'),
        'the peer encodes a uint64 given as a decimal string like pack';
}
{
    my $d = $PEER->decode(new_rec(mobile_is_app => 1, is_https_request => 0)->pack);
    is $d->{mobile_is_app}, 1, 'the peer reads a true flag as 1';
    is $d->{is_https_request}, 0, 'the peer reads a false flag as 0';
}
{
    my $bytes = "\xe2\x98\xba\xff\0\x80";
    my $d = $PEER->decode(quietly { new_rec(bot_name => $bytes)->pack });
    ok !utf8::is_utf8($d->{bot_name}), 'the peer does not decode string fields from UTF-8';
    bytes_is $d->{bot_name}, $bytes, 'the peer returns the bytes of a string field as they are';
    for my $chars ("\x{263A}", "\x{263A}\xff") {
        bytes_is $PEER->encode({ bot_name => $chars }), new_rec(bot_name => $chars)->pack,
            sprintf 'a character string (%s) is written as its UTF-8 bytes by both', hexs(do { my $c = $chars; utf8::encode($c); $c });
    }
}
{
    my $d = $PEER->decode(new_rec(bot_name => 'b')->pack);
    ok !exists $d->{anomalies}, 'a list without elements: no key from the peer';
    is $PEER->encode({ anomalies => [] }), '', 'the peer writes nothing for an empty list';
    is_deeply $PKG->new($PEER->encode({ anomalies => [] }))->to_hashref, {}, '... and new reads no key for it either';
    is_deeply peer_plain($PEER->decode(unhex('ea0200'))), { anomalies => [''] }, 'one empty element: the peer reads [""]';
}
{
    my $d = $PEER->decode(new_rec(client_ip => {})->pack);
    isa_ok $d->{client_ip}, 'QelPeer::IPAddr', 'a present but empty address: the peer';
    is_deeply peer_plain($d), { client_ip => {} }, 'a present but empty address: the peer reads an empty hash';
    is hexs($PEER->encode({ client_ip => {} })), '2200', 'the peer writes client_ip => {} as 22 00 too';
}

# ---- unknown fields: the peer skips them -------------------------------------------

{
    my $base = { bot_name => 'b', client_ip => { ip0 => 1 } };
    my $known = encode_ref($base);
    for my $s (unknown_field_samples()) {
        my ($what, $hex) = @$s;
        my $rec = $PKG->new($known . unhex($hex));
        is hash_text($rec->to_hashref), hash_text($base), "$what: to_hashref leaves the unknown field out";
        if ($what =~ /10 bytes/) {
            # The peer skips unknown varints of at most 9 bytes; 64-bit values
            # of 2**63 and more take 10. Records with such a field reach the
            # peer in t/82 without their unknown fields.
            my $err = error_of { $PEER->decode($rec->pack) };
            like $err, qr/^Varint is too long/, "$what: the peer cannot skip it (it dies), the module keeps it";
            next;
        }
        is peer_text($PEER->decode($rec->pack)), hash_text($base), "$what: the peer skips it and reads the known fields";
    }
}

# ---- the hand-picked records ------------------------------------------------------

for my $case (handpicked_records()) {
    my ($name, $h) = @$case;
    my $rec = new_rec($h);
    my $ours = peer_bytes($rec);
    my $decoded = $PEER->decode($ours);
    is peer_text($decoded), hash_text(quietly { $rec->to_hashref }), "$name: the peer decodes pack to to_hashref";
    my $theirs = $PEER->encode($h);
    bytes_is $theirs, $ours, "$name: the peer's encoding is the bytes of pack";
    is hash_text(quietly { $PKG->new($theirs)->to_hashref }), hash_text($h), "$name: new reads the peer's encoding to what it encoded";
    is hash_text(quietly { $PKG->new($PEER->encode(peer_plain($decoded)))->to_hashref }), hash_text($h),
        "$name: what the peer decoded, encoded by the peer, reads back the same";
}

# ---- where the peer departs from protobuf ----------------------------------------

# Input that no encoder of this schema writes, on which the peer reads
# otherwise than protobuf: the module reads each as protoc does (t/80 checks
# the module against protoc on the same bytes), the peer as noted here. These
# are the peer's ways, recorded so that a change on either side shows.
my @apart = (
    ['an address given twice', '22020801' . '22021002',
     { client_ip => { ip0 => 1, ip1 => 2 } }, 'keeps only the last address', { client_ip => { ip1 => 2 } }],
    ['a uint32 of more than 32 bits', '9801' . '8580808010',
     { src_port => 5 }, 'keeps all bits', { src_port => 4294967301 }],
    ['a uint32 as a 10-byte varint', '9801' . 'ffffffffffffffffff01',
     { src_port => 4294967295 }, 'keeps all 64 bits', { src_port => '18446744073709551615' }],
    ['a uint32 field as length-delimited', '9a01' . '0105',
     {}, 'reads it as a packed list', { src_port => 5 }],
    ['an address as a group', '23' . '0801' . '24',
     {}, 'reads an empty address', { client_ip => {} }],
    ['a string field as a varint', '0805',
     {}, 'dies', qr/^Mesage is incomplete or invalid/],
    ['an address as a varint', '2005',
     {}, 'dies', qr/^Mesage is incomplete or invalid/],
    ['an unknown varint of 10 bytes', '30' . 'ffffffffffffffffff01',
     {}, 'dies', qr/^Varint is too long/],
);
for my $case (@apart) {
    my ($what, $hex, $module, $how, $peer) = @$case;
    is hash_text($PKG->new(unhex($hex))->to_hashref), hash_text($module), "$what ($hex): the module reads it as protobuf does";
    if (ref $peer eq 'Regexp') {
        like error_of { $PEER->decode(unhex($hex)) }, $peer, "$what ($hex): the peer $how";
    }
    else {
        is peer_text($PEER->decode(unhex($hex))), hash_text($peer), "$what ($hex): the peer $how";
    }
}

done_testing;
