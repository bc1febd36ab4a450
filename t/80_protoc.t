# Interop with Debian's protoc, a protocol-buffer tool written by others:
# protoc decodes the bytes of pack to exactly the text of debug_string, and
# protoc's encoding of text reads back through new and unpack to the fields
# written and packs to protoc's bytes again; non-canonical and broken wire
# input is read (or refused) as protoc reads it.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);
use QelRandom qw(handpicked_records);
use quillon_event_log::QuillonEventLog;

my $why = protoc_skip_reason();
plan skip_all => $why if defined $why;

my $PKG = 'quillon_event_log::QuillonEventLog';
my $MESSAGE = 'quillon_event_log.QuillonEventLog';

# The bytes to hand a peer: an empty record packs to 16 zero bytes on
# purpose, while its encoding is empty.
sub peer_bytes { my $r = shift; quietly { $r->length ? $r->pack : '' } }

# The module logs strings that are not UTF-8 on standard error; these wrap
# the calls that may meet them.
sub debug_of { my $r = shift; quietly { $r->debug_string } }
sub record_of { my $b = shift; quietly { $PKG->new($b) } }

# text_of(\%hash): the record in protoc's text form, written here without
# the module: fields in descending number order (protoc orders them itself),
# list elements in order, every byte outside printable ASCII (and " and \)
# as a \xNN escape where the module writes octal ones.
sub text_of {
    my $h = shift;
    my $esc = sub { (my $s = shift) =~ s/([^\x20-\x7e]|["\\])/sprintf '\\x%02x', ord $1/ge; qq{"$s"} };
    my $text = '';
    for my $f (reverse field_table()) {
        my ($name, undef, $kind) = @$f;
        next unless exists $h->{$name};
        my $v = $h->{$name};
        if    ($kind eq 'string') { $text .= "$name: " . $esc->($v) . "\n" }
        elsif ($kind eq 'bool')   { $text .= "$name: " . ($v ? 'true' : 'false') . "\n" }
        elsif ($kind eq 'list')   { $text .= "$name: " . $esc->($_) . "\n" for @$v }
        elsif ($kind eq 'address') {
            $text .= "$name {\n" . join('', map { "  $_: $v->{$_}\n" } grep { exists $v->{$_} } address_fields()) . "}\n";
        }
        else { $text .= "$name: $v\n" }
    }
    return $text;
}

my @records = handpicked_records();

# ---- one record per run, as a person would call protoc -------------------------

{
    my ($name, $h) = @{ $records[0] };
    my $rec = new_rec($h);
    my ($out, $status, $err) = run_protoc(["--decode=$MESSAGE", 'quillon_event_log.proto'], peer_bytes($rec));
    is $status, 0, "protoc --decode=$MESSAGE quillon_event_log.proto exits 0" or diag $err;
    is $out, debug_of($rec), "protoc --decode of the $name: the text of debug_string";

    ($out, $status, $err) = run_protoc(["--encode=$MESSAGE", 'quillon_event_log.proto'], text_of($h));
    is $status, 0, "protoc --encode=$MESSAGE quillon_event_log.proto exits 0" or diag $err;
    bytes_is peer_bytes($rec), $out, "protoc --encode of the $name: the bytes of pack";
    is hash_text($PKG->new($out)->to_hashref), hash_text($h), "new reads protoc's encoding of the $name";
}

# ---- the hand-picked records, one batch each way ---------------------------------

{
    my @recs = map { new_rec($_->[1]) } @records;
    my ($texts, $error) = protoc_decode_batch([ map { peer_bytes($_) } @recs ]);
    ok !defined $error, 'protoc decodes the batch of hand-picked records' or diag $error;
    my ($bytes, $error2) = protoc_encode_batch([ map { text_of($_->[1]) } @records ]);
    ok !defined $error2, 'protoc encodes the batch of hand-picked records' or diag $error2;
    for my $i (0 .. $#records) {
        my ($name, $h) = @{ $records[$i] };
        is $texts->[$i], debug_of($recs[$i]), "$name: protoc decodes pack to the text of debug_string";

        my $b = $bytes->[$i];
        is hash_text(record_of($b)->to_hashref), hash_text($h), "$name: new reads protoc's encoding to the fields written";
        my $r = $PKG->new;
        is quietly { $r->unpack($b) }, 1, "$name: unpack reads protoc's encoding";
        is hash_text($r->to_hashref), hash_text($h), "$name: unpack gives the fields written";
        if (length $b) {
            bytes_is quietly { $r->pack }, $b, "$name: pack gives protoc's bytes";
        }
        else {
            is $r->length, 0, "$name: protoc's encoding is empty, and so is the record";
        }
    }
}

# ---- present but empty addresses -----------------------------------------------

is hexs(new_rec(client_ip => {})->pack), '2200', 'client_ip => {} packs as 22 00';
is hexs(new_rec(dest_ip => {})->pack), '2a00', 'dest_ip => {} packs as 2a 00';
{
    my ($out) = run_protoc(["--encode=$MESSAGE", 'quillon_event_log.proto'], "client_ip {\n}\ndest_ip {\n}\n");
    is hexs($out), '22002a00', 'protoc encodes two empty addresses as 22 00 2a 00 too';
}

# ---- text in the other spellings protoc reads ---------------------------------------

{
    my @spellings = (
        ['angle brackets, hex and octal integers, single quotes',
         q{client_ip < ip0: 0x10 ip3: 037777777777 > dest_ip <> bot_name: 'say "hi"' src_port: 0xFFFFFFFF},
         { client_ip => { ip0 => 16, ip3 => 4294967295 }, dest_ip => {}, bot_name => 'say "hi"', src_port => 4294967295 }],
        ['list syntax and adjacent strings joined',
         q{anomalies: ["a", "", 'b' "c"] anomaly_categories: "x" "y"},
         { anomalies => ['a', '', 'bc'], anomaly_categories => ['xy'] }],
        ['flags spelt t, False and 1',
         q{mobile_is_app: t is_https_request: False is_update_request: 1},
         { mobile_is_app => 1, is_https_request => 0, is_update_request => 1 }],
        ['fields out of order, separators and comments',
         qq{host: "h";  # a comment\nbot_name: "b", anomalies: "2"\nanomalies: "1"\n},
         { host => 'h', bot_name => 'b', anomalies => ['2', '1'] }],
        ['every escape protoc reads',
         q{bot_name: "\a\b\f\n\r\t\v\\\\\'\"\?\0\101\x42\377\x4X"},
         { bot_name => "\a\b\f\n\r\t\x0b\\'\"?\0AB\xff\x04X" }],
        ['uint64 in hex and octal',
         q{device_id: 0xFFFFFFFFFFFFFFFF session_id: 0x8000000000000000 support_id: 01777777777777777777777},
         { device_id => '18446744073709551615', session_id => '9223372036854775808', support_id => '18446744073709551615' }],
        ['a colon before an address block',
         q{client_ip: { } dest_ip: < rtdom_id: 5 >},
         { client_ip => {}, dest_ip => { rtdom_id => 5 } }],
    );
    my ($bytes, $error) = protoc_encode_batch([ map { $_->[1] } @spellings ]);
    ok !defined $error, 'protoc encodes the batch of other spellings' or diag $error;
    for my $i (0 .. $#spellings) {
        my ($name, undef, $h) = @{ $spellings[$i] };
        my $b = $bytes->[$i];
        bytes_is $b, encode_ref($h), "$name: protoc's bytes are the fields meant";
        my $r = record_of($b);
        is hash_text($r->to_hashref), hash_text($h), "$name: new reads protoc's encoding to the fields meant";
        bytes_is quietly { $r->pack }, $b, "$name: pack gives protoc's bytes";
    }
}

# ---- unknown fields -----------------------------------------------------------

# What protoc prints for each unknown field of unknown_field_samples(): the
# number for a name; varints in decimal, fixed64 and fixed32 in hex, a group
# as a block, and length-delimited bytes as a block when they read as fields
# ("xy" is field 15, varint 121), else as a string.
my %UNKNOWN_TEXT = (
    'field 6 varint'                 => "6: 5\n",
    'field 6 varint, 10 bytes'       => "6: 18446744073709551615\n",
    'field 6 fixed64'                => "6: 0x0807060504030201\n",
    'field 6 length-delimited'       => qq{6: "abc"\n},
    'field 6 empty length-delimited' => qq{6: ""\n},
    'field 6 group'                  => qq{6 {\n  1: 1\n  7: "x"\n}\n},
    'field 6 empty group'            => "6 {\n}\n",
    'field 6 fixed32'                => "6: 0x04030201\n",
    'field 31 varint'                => "31: 7\n",
    'field 31 fixed64'               => "31: 0x0102030405060708\n",
    'field 31 length-delimited'      => "31 {\n  15: 121\n}\n",
    'field 31 group'                 => "31 {\n  2: 5\n}\n",
    'field 31 fixed32'               => "31: 0xffffffff\n",
    'field 6 group in a group'       => "6 {\n  1: 1\n  2 {\n    2: 5\n  }\n}\n",
);

{
    my @samples = (unknown_field_samples(), ['field 6 group in a group', '33' . '0801' . '13' . '1005' . '14' . '34']);
    # Around a record of two fields: bot_name "b" and client_ip { ip0: 1 }.
    my ($name_field, $addr_fields) = ('0a0162', '0801');
    my $known_text = qq{bot_name: "b"\nclient_ip {\n  ip0: 1\n}\n};
    my @cases;
    for my $s (@samples) {
        my ($what, $hex) = @$s;
        my $text = $UNKNOWN_TEXT{$what};
        die "no text for the unknown field sample '$what'\n" unless defined $text;
        (my $indented = $text) =~ s/^/  /mg;
        my $addr = '22' . hexs(varint(length unhex($addr_fields . $hex))) . $addr_fields . $hex;
        push @cases,
            ["$what, after the known fields", $name_field . '22' . '02' . $addr_fields . $hex,
             $known_text . $text, $name_field . '2202' . $addr_fields . $hex],
            ["$what, between the known fields", $name_field . $hex . '2202' . $addr_fields,
             $known_text . $text, $name_field . '2202' . $addr_fields . $hex],
            ["$what, inside the address", $name_field . $addr,
             qq{bot_name: "b"\nclient_ip {\n  ip0: 1\n$indented}\n}, $name_field . $addr];
    }
    my @recs = map { record_of(unhex($_->[1])) } @cases;
    my ($texts, $error) = protoc_decode_batch([ map { unhex($_->[1]) } @cases ]);
    ok !defined $error, 'protoc decodes the batch of records with unknown fields' or diag $error;
    for my $i (0 .. $#cases) {
        my ($what, $hex, $text, $packed) = @{ $cases[$i] };
        my $r = $recs[$i];
        is debug_of($r), $text, "$what: debug_string prints the unknown field in protoc's form";
        is $texts->[$i], debug_of($r), "$what: protoc decodes the bytes to the text of debug_string";
        is hexs(peer_bytes($r)), $packed, "$what: pack keeps the unknown field (after the known ones)";
        is hexs(peer_bytes(record_of(peer_bytes($r)))), $packed, "$what: pack, new, pack gives the same bytes";
    }
}

# ---- wire input that is not in canonical form -----------------------------------

# Bytes that no encoder of this schema writes but a parser must read as
# protobuf does: [what, hex, the bytes of pack afterwards]. Each is decoded by
# the module and by protoc (one batch), and the texts must agree.
my @odd = (
    ['an address given twice: the two are merged',            '22020801' . '22021002',        '220408011002'],
    ['a string given twice: the last one counts',             '0a0161' . '0a0162',            '0a0162'],
    ['list elements apart from each other: all are kept',     'ea020161' . '0a0178' . 'ea020162', '0a0178ea020161ea020162'],
    ['a uint32 of more than 32 bits: its low 32 bits count',  '9801' . '8580808010',          '980105'],
    ['a uint32 as a 10-byte varint (a negative int32)',       '9801' . 'ffffffffffffffffff01', '9801ffffffff0f'],
    ['a flag of 2 is true',                                   'c80102',                       'c80101'],
    ['a flag of 2**63 (10 bytes) is true',                    'c801' . '80808080808080808001', 'c80101'],
    ['a varint with a redundant last byte',                   '9801' . '8100',                '980101'],
    ['a uint64 of 2**64-1 in 10 bytes',                       'a801' . 'ffffffffffffffffff01', 'a801ffffffffffffffffff01'],
    ['a string field as a varint: unknown field 1',           '0805',                         '0805'],
    ['a uint32 field as length-delimited: unknown field 19',  '9a01' . '0105',                '9a010105'],
    ['an address as a varint: unknown field 4',              '2005',                         '2005'],
    ['an address as a group: unknown field 4',                '23' . '0801' . '24',           '23080124'],
    ['a list field as a varint: unknown field 45',            'e80205',                       'e80205'],
    ['an unknown varint with a redundant last byte',          '30' . '8100',                  '3001'],
    ['the largest field number, 536870911',                   'f8ffffff0f' . '01',            'f8ffffff0f01'],
    ['a known field number inside an unknown group',          '33' . '0a0161' . '34',         '330a016134'],
    ['an unknown group inside an address',                    '2202' . '3334',                '22023334'],
    ['a flag of 0 in 10 bytes is false',                      'c801' . '80' x 9 . '00',       'c80100'],
    ['a 10-byte varint with bits beyond 64: they are dropped', 'a801' . 'ff' x 9 . '7f',      'a801ffffffffffffffffff01'],
    ['a tag in two bytes (8a 00: field 1, length-delimited)', '8a00' . '0161',                '0a0161'],
    ['a length in two bytes',                                 '0a' . '8000',                  '0a00'],
    ['a tag of 5 bytes with bits beyond 32: they are dropped', 'f8ffffff1f' . '01',           'f8ffffff0f01'],
);
{
    my @recs = map { record_of(unhex($_->[1])) } @odd;
    my ($texts, $error) = protoc_decode_batch([ map { unhex($_->[1]) } @odd ]);
    ok !defined $error, 'protoc decodes the batch of non-canonical inputs' or diag $error;
    for my $i (0 .. $#odd) {
        my ($what, $hex, $packed) = @{ $odd[$i] };
        my $r = $PKG->new;
        is quietly { $r->unpack(unhex($hex)) }, 1, "$what: unpack reads $hex";
        is $texts->[$i], debug_of($r), "$what: protoc decodes it to the text of debug_string";
        is hexs(peer_bytes($r)), $packed, "$what: pack gives $packed";
    }
}

# Bytes that do not parse, for protoc as for the module (each its own run:
# protoc stops at the first fault of a batch).
my @broken = (
    ['a length past the end',                 '0a05616263'],
    ['a varint cut short',                    'a801ff'],
    ['a varint of 11 bytes',                  'a801' . 'ffffffffffffffffffff01'],
    ['wire type 6',                           '36'],
    ['wire type 7',                           '37'],
    ['an end-group tag outside a group',      '34'],
    ['a group closed by another number',      '33' . 'fc01'],
    ['a group never closed',                  '33' . '0801'],
    ['an address longer than the record',     '2205' . '0801'],
    ['an address whose field runs past it',   '2202' . '0a05' . '6161616161'],
    ['a length of 2**32-1',                   '0a' . 'ffffffff0f'],
    ['a group closed twice',                  '33' . '34' . '34'],
    ['a group inside an address left open',   '2203' . '330834'],
);
for my $case (@broken) {
    my ($what, $hex) = @$case;
    my ($out, $status) = run_protoc(["--decode=$MESSAGE", 'quillon_event_log.proto'], unhex($hex));
    isnt $status, 0, "$what ($hex): protoc fails";
    is quietly { $PKG->new->unpack(unhex($hex)) }, 0, "$what ($hex): unpack returns 0";
}

# The two places where the record's codec reads what protoc refuses: a field
# number 0, kept as an unknown field, and a tag written in more than five
# bytes, read as its low 32 bits like every 32-bit varint.
my @codec_only = (
    ['field number 0, length-delimited',      '0200',                       '0200'],
    ['field number 0, fixed32',               '05' . '01020304',            '0501020304'],
    ['a tag of 6 bytes',                      'f8ffffff8f00' . '01',        'f8ffffff0f01'],
);
for my $case (@codec_only) {
    my ($what, $hex, $packed) = @$case;
    my ($out, $status) = run_protoc(["--decode=$MESSAGE", 'quillon_event_log.proto'], unhex($hex));
    isnt $status, 0, "$what ($hex): protoc fails";
    my $r = $PKG->new;
    is $r->unpack(unhex($hex)), 1, "$what ($hex): unpack returns 1";
    is hexs($r->pack), $packed, "$what: pack gives $packed";
}

done_testing;
