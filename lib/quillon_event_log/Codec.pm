package quillon_event_log::Codec;

use strict;
use warnings;

our $VERSION = '1.0';

use Exporter 'import';
our @EXPORT = qw(encode_event decode_event);
our @EXPORT_OK = @EXPORT;

# encode_event, decode_event, encode and decode are XSUBs of the record
# module's shared object.
require quillon_event_log::QuillonEventLog;

# Why a name is not a field of the record, in the codec's own words (with its
# spelling suggestion), or undef when it is one: for programs that take field
# names from their users.
my $types;
sub field_name_error {
    my ($name) = @_;
    $types //= field_types();
    return undef if defined $name && !ref $name && $types->{$name};
    $name //= '';
    return qq{"$name" is not a field} if eval { encode_event({ $name => undef }); 1 };
    return $@ =~ s/ at \S+ line \d+\.\n\z//r;
}

1;
__END__

=head1 NAME

quillon_event_log::Codec - strict one-call conversion between event hashes and wire bytes

=head1 SYNOPSIS

  use quillon_event_log::Codec;       # exports encode_event and decode_event

  my $bytes = encode_event({
      bot_name  => 'python-requests',
      client_ip => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0xCB00712D, rtdom_id => 0 },
      src_port  => 51734,
      device_id => '12297829382473034410',
      anomalies => ['Known automation User-Agent'],
      is_https_request => 1,
  });
  my $event = decode_event($bytes);   # the same hash back

  # Mistakes are errors, with the field's name:
  eval { encode_event({ bot_nmae => 'x' }) };
      # unknown field "bot_nmae" (did you mean "bot_name"?) at ...
  eval { encode_event({ src_port => '0x50' }) };
      # src_port: "0x50" is not a decimal integer at ...
  eval { decode_event("\x0a\x01a\x07") };
      # malformed record at byte 3: wire type 7 at ...

  # Options: an object.
  my $codec = quillon_event_log::Codec->new(
      characters     => 1,          # text as Perl characters, written as UTF-8
      addresses      => 'text',     # addresses as "203.0.113.45%2"
      unknown_fields => 'keep',     # the default
  );
  my $hash  = $codec->decode($bytes);   # client_ip => '203.0.113.45'
  my $again = $codec->encode($hash);    # eq $bytes

  # JSON both ways
  use JSON::XS;
  my $json = JSON::XS->new->utf8->canonical;
  my $text = $json->encode($codec->decode($bytes));
  my $back = $codec->encode($json->decode($text));

=head1 DESCRIPTION

This module converts an event record of L<quillon_event_log::QuillonEventLog>
between a plain Perl hash and its protocol-buffer wire bytes in one call,
with no record object in between. It is the fast path and the recommended
interface for new code.

It is strict both ways. Encoding checks the whole hash and refuses, with a
message naming the field, any unknown key (with a spelling suggestion) and
any value that is not exactly of the field's type; it never converts
C<"abc"> to 0 or C<"true"> to false. Decoding returns a whole hash or dies
with the byte offset of the fault; it never returns part of a record.
Nothing is lost: unknown fields are kept under the reserved key C<_unknown>,
invalid UTF-8 survives the C<characters> option, and for canonical input
C<encode(decode($bytes)) eq $bytes>.

The hash form is the one of the record class's C<to_hashref> (see
L<quillon_event_log::QuillonEventLog/MAPPING>), so the two interfaces can be
mixed.

=head1 FUNCTIONAL INTERFACE

The functions use the default options (C<< characters => 0 >>,
C<< addresses => 'hash' >>, C<< unknown_fields => 'keep' >>). Both are
exported by default.

=head2 encode_event

  my $bytes = encode_event(\%hash);

The wire bytes of the record described by the hash, as a byte string.
C<encode_event({})> is C<"">, the true encoding of an empty record. Dies on
the first problem found (L</DIAGNOSTICS>), before returning anything; the
hash is only read, never changed.

=head2 decode_event

  my $hash = decode_event($bytes);

A reference to a new hash holding the record read from the bytes. Dies on
malformed input (L</DIAGNOSTICS>).

=head2 field_types, field_name_error

  my $types = quillon_event_log::Codec::field_types();
      # { bot_name => 'string', src_port => 'uint32', device_id => 'uint64',
      #   is_https_request => 'bool', client_ip => 'address', anomalies => 'string list', ... }
  my $why = quillon_event_log::Codec::field_name_error('bot_nmae');
      # 'unknown field "bot_nmae" (did you mean "bot_name"?)'; undef for a field

Not exported. C<field_types> gives the type of every field of the record;
C<field_name_error> says why a name is not a field (C<_unknown> is a key of
the hash form, not a field), for programs that take field names from their
users.

=head1 OBJECT-ORIENTED INTERFACE

=head2 new

  my $codec = quillon_event_log::Codec->new(%options);

A codec object with the given options (L</OPTIONS>); all are optional. The
object is immutable: it is a blessed reference to a read-only scalar holding
the options, cheap to make and to keep.

=head2 encode

  my $bytes = $codec->encode(\%hash);

As C<encode_event>, with the codec's options.

=head2 decode

  my $hash = $codec->decode($bytes);

As C<decode_event>, with the codec's options.

=head2 characters, addresses, unknown_fields

  my $on   = $codec->characters;        # 1 or 0
  my $mode = $codec->addresses;         # 'hash' or 'text'
  my $keep = $codec->unknown_fields;    # 'keep' or 'drop'

The options of the codec, read-only.

=head1 OPTIONS

=over 4

=item characters => BOOL

Off by default (any Perl truth value). When on, C<decode> gives the string
fields as Perl character strings, and C<encode> writes character strings as
UTF-8 (L</CHARACTERS AND BYTES>). When off, strings are bytes both ways.
Turn it on for JSON, templates and anything else that works in characters.

=item addresses => 'hash' | 'text'

C<'hash'> (the default): addresses are hashes of their words,
C<< { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 3405803821, rtdom_id => 0 } >>.
C<'text'>: C<decode> gives an address as its text, C<"203.0.113.45">, when
all five words are present and it has no unknown fields (any other address
stays a hash, so nothing is lost), and C<encode> accepts a text as well as a
hash (L</TEXT ADDRESSES>).

=item unknown_fields => 'keep' | 'drop'

C<'keep'> (the default): C<decode> puts unknown fields under C<_unknown> and
C<encode> writes them back. C<'drop'>: C<decode> leaves them out and
C<encode> ignores the key C<_unknown>.

=back

=head1 MAPPING

Keys are the field names (see C<< quillon_event_log::QuillonEventLog->fields >>)
plus C<_unknown>. C<decode> gives a key exactly for each present field (a
list only when it has elements); C<encode> writes exactly the keys given.

=head2 Decoding: what you get

  string fields        a byte string (a character string with characters => 1)
  uint32 fields        an unsigned integer
  uint64 fields        a string of decimal digits ("18446744073709551615")
  bool fields          1 or 0
  client_ip, dest_ip   a hash of the present words ip0..ip3, rtdom_id
                       (or a text with addresses => 'text', see OPTIONS)
  anomaly_categories,
  anomalies            an array reference of strings
  _unknown             an array reference of "POS:HEX" strings

Decoding accepts what the protocol-buffer runtime accepts: fields in any
order, the last value of a repeated single-value field wins, repeated
addresses merge, list elements append, a flag is true for any non-zero
varint, a uint32 is the low 32 bits of its varint, and a known field number
with another wire type than the schema's is kept as an unknown field. Such
input decodes, and encodes again in canonical form.

=head2 Encoding: what is accepted

A key whose value is C<undef> leaves its field absent.

=over 4

=item string fields

A defined scalar that is not a reference; numbers are written as Perl
prints them. Without C<characters>, a string with the UTF-8 flag is written
as its characters, one byte each, and a character above 0xFF is refused.
With C<characters>, the string is written as UTF-8 (a string without the
UTF-8 flag counts as Latin-1 characters).

=item uint32 and uint64 fields, address words

An integer in range (0..4294967295, or 0..18446744073709551615 for uint64):
a Perl integer, a floating-point number without fraction (C<443.0>), or a
string of decimal digits only (C<"00443"> is 443). If the scalar has a
string value, the string is what is checked. Refused: a sign, blanks,
C<"0x10">, C<"1e3">, C<"1.5">, C<"">, negative or too large values, numbers
with a fraction, NaN, infinities, references.

=item bool fields

C<1>, C<0> (also as the floating-point numbers 1.0 and 0.0), C<"1">,
C<"0">, C<"">, Perl's built-in booleans, and objects of
C<JSON::PP::Boolean> and C<Types::Serialiser::Boolean> (the true and false
of L<JSON::PP> and L<JSON::XS>) and of L<boolean>, by their truth. Refused:
any other number or text, C<"true"> and C<"false"> included, and other
references.

=item client_ip, dest_ip

A hash reference (a blessed one counts) whose keys are among C<ip0>,
C<ip1>, C<ip2>, C<ip3>, C<rtdom_id> and C<_unknown>, each word a uint32 as
above. With C<< addresses => 'text' >> also an address text, which writes
all five words (C<rtdom_id> 0 when the text has no C<%N>).

=item anomaly_categories, anomalies

An array reference (a blessed one counts) of strings as above; C<undef>
elements and holes are refused. An empty array writes nothing.

=back

Tied and magical hashes, arrays and values work; each value is fetched
once. The result has the known fields in field-number order, list elements
in order, and the unknown fields at their positions.

=head2 Unknown fields

Fields whose numbers the schema does not declare (and declared numbers with
another wire type) are unknown fields. C<decode> gives them under the
reserved key C<_unknown>, at the top level and inside an address hash, as an
array reference of strings C<"POS:HEX">: HEX is the lower-case hexadecimal
of the raw wire bytes of a run of consecutive unknown fields, and POS is how
many known field values came before the run in the input (each list element
and each address counts as one). The key is present only when there are
unknown fields.

  decode_event("\x0a\x01a\x32\x02\x08\x01")
      # { bot_name => 'a', _unknown => ['1:32020801'] }

C<encode> writes each run back after POS known values. POS must not
decrease; HEX (upper or lower case, even length) must be whole wire fields,
none of them a known field with its own wire type. Hashes from C<decode>
always qualify, and this is what makes the round trip exact:

=head2 The round-trip guarantee

For canonical input (what a protocol-buffer serialiser writes: known fields
once each and in field-number order, shortest varints, flags 0 or 1; unknown
fields anywhere), C<< $codec->encode($codec->decode($bytes)) eq $bytes >>
byte for byte, invalid UTF-8 included, when both calls use the same
options (with C<< unknown_fields => 'keep' >>). And for every hash that
C<encode> accepts, C<decode> of its result gives the same fields back
(numbers and flags in their canonical forms).

=head1 CHARACTERS AND BYTES

Without C<characters>, strings are bytes both ways, as in the record class;
but a character above 0xFF is refused instead of being stored as UTF-8
bytes, so encode your text first (or use the option).

With C<< characters => 1 >>:

=over 4

=item *

C<decode> turns a string field that is valid UTF-8 into a Perl character
string (pure ASCII may come without the UTF-8 flag, which is the same to
Perl). Valid means the runtime's definition: no overlong forms, no
surrogates, nothing above U+10FFFF.

=item *

A string field that is not valid UTF-8 decodes too: each byte of an invalid
sequence becomes the character U+DC00 plus the byte, so the bytes 0x80 to
0xFF become U+DC80 to U+DCFF (lone surrogates, known as surrogate escapes);
the valid parts become their characters.

=item *

C<encode> writes UTF-8 and turns U+DC80 to U+DCFF back into the single
bytes 0x80 to 0xFF, so decoding and encoding again gives the original bytes.
Any other surrogate, or a code point above U+10FFFF, is refused.

=back

Surrogate escapes survive a trip through L<JSON::XS> in its C<utf8> mode
(C<< JSON::XS->new->utf8 >>): it writes them in Perl's own extended UTF-8
(the bytes C<ED B2 80> to C<ED B3 BF>) and reads them back as the same
characters. Strict UTF-8 readers in other languages may refuse that JSON
text. Do not add C<ascii>: JSON::XS writes the escapes as C<\udc80> then,
and refuses to read them back.

Whenever a string that is not valid UTF-8 is written or read, the
protocol-buffer runtime complains; the bytes are written as they are and
nothing fails. L<quillon_event_log::RuntimeLog> decides where the
complaint goes.

=head1 TEXT ADDRESSES

With C<< addresses => 'text' >>, addresses are written and read as text:
dotted IPv4 (C<"203.0.113.45">, when C<ip0> to C<ip2> are 0), otherwise
IPv6 (C<"2001:db8::1">, C<"::ffff:203.0.113.45">), followed by C<%N> for a
non-zero routing domain. The exact rules are those of
L<quillon_event_log::IPAddr/TEXT ADDRESSES>. A decoded address is a text
only when all five words are present and the address has no unknown fields;
otherwise it stays a hash, so the round trip stays exact. C<encode> takes
either form in this mode.

=head1 DIAGNOSTICS

All errors are exceptions; Perl appends " at FILE line N.". C<FIELD> stands
for the key path of the value (C<bot_name>, C<client_ip.ip0>,
C<anomalies[3]>, C<_unknown[0]>), and C<DESC> for a description of what was
given: C<undef>, C<a string>, C<a number>, C<an array reference>, C<a hash
reference>, C<a code reference>, C<a scalar reference>, C<a reference>,
C<a Foo::Bar object> (a blessed reference, with its class) or C<a glob>.
Values shown in double quotes are Perl's string form of the value, with
bytes outside 0x20 to 0x7E as C<\xHH> and cut to 40 characters followed by
C<...>.

Encoding checks the whole hash in field-number order and reports the first
problem found; unknown keys are reported after all known keys were checked,
the first in sorted order.

=head2 Errors of new

=over 4

=item unknown option "foo" (known options: addresses, characters, unknown_fields)

=item option addresses must be "hash" or "text", not "x"

=item option unknown_fields must be "keep" or "drop", not "x"

=item odd number of options

=back

=head2 Errors of encode and encode_event

=over 4

=item expected a hash reference, got DESC

The argument is not a hash reference.

=item unknown field "bot_nmae" (did you mean "bot_name"?)

=item unknown field "zzz"

=item client_ip: unknown field "ipx" (did you mean "ip0"?)

A key that is not a field name (nor C<_unknown>). The suggestion is the
nearest field name when it is close enough (at most 3 edits, and at most
half the key's length).

=item FIELD: expected a string, got DESC

A string field or list element was given a reference, or a list element
is C<undef> or a hole (C<anomalies[1]: expected a string, got undef>).

=item FIELD: wide character U+263A in a byte string (use the characters option)

A character above 0xFF without C<characters> (the code point in at least
four hex digits).

=item FIELD: character U+D800 cannot be written as UTF-8

With C<characters>: a surrogate other than U+DC80..U+DCFF, or a code point
above U+10FFFF.

=item FIELD: expected an integer, got DESC

A number field was given a reference.

=item FIELD: "12abc" is not a decimal integer

Text that is not all decimal digits: a sign, a blank, C<"0x10">, C<"1e3">,
C<"1.5">, C<"">.

=item FIELD: "4294967296" is out of range (0..4294967295)

=item FIELD: "-1" is out of range (0..18446744073709551615)

A negative or too large number, for a uint32 and a uint64 field.

=item FIELD: "1.5" is not an integer

A floating-point number with a fraction, NaN or an infinity.

=item FIELD: "yes" is not a flag (1, 0, "" or a JSON boolean)

=item FIELD: expected a flag (1, 0, "" or a JSON boolean), got DESC

A flag was given another value, or a reference that is not a boolean
object.

=item FIELD: expected a hash reference, got DESC

An address that is not a hash reference (C<< addresses => 'hash' >>).

=item FIELD: expected an address text or a hash reference, got DESC

=item FIELD: invalid address text "TEXT"

An address in C<< addresses => 'text' >> mode that is neither a hash
reference nor a valid text.

=item FIELD: expected an array reference, got DESC

A list, or C<_unknown>, that is not an array reference.

=item _unknown[0]: "x" is not POSITION:HEX

=item _unknown[1]: positions must not decrease

=item _unknown[0]: malformed wire data at byte N: REASON

=item _unknown[0]: field 1 (bot_name) belongs in its own key

An C<_unknown> entry is not of the form C<"POS:HEX">, goes back in
position, is not whole wire fields (REASON as for decoding), or holds a
known field with its own wire type.

=back

=head2 Errors of decode and decode_event

=over 4

=item expected a byte string, got DESC

The argument is C<undef> or a reference.

=item wide character in the bytes to decode

The argument has a character above 0xFF: bytes were expected.

=item input of N bytes is longer than 2147483647

=item malformed record at byte N: REASON

N is the offset of the item that could not be read: the tag, the length that
runs past the end, or the value that is cut short. REASON is one of:

  truncated varint
  varint longer than 10 bytes
  field number 0
  tag longer than 5 bytes
  wire type 6
  wire type 7
  length of field F runs past the end
  truncated fixed32 in field F
  truncated fixed64 in field F
  end-group tag of field F without a start
  group of field F is not closed
  nesting deeper than 100 levels

F is the field number with its name for a known field (C<8 (http_request)>),
the bare number for an unknown one (C<9>), and for a field inside an
address the number, the word and the address (C<1 (ip0) in client_ip>).

=back

=head2 Usage errors

  Usage: quillon_event_log::Codec::encode_event(hashref)
  Usage: quillon_event_log::Codec::decode_event(bytes)
  Usage: quillon_event_log::Codec::encode(self, hashref)
  Usage: quillon_event_log::Codec::decode(self, bytes)

Wrong number of arguments.

=over 4

=item self is not a quillon_event_log::Codec object

C<encode> or C<decode> called on something that is not a codec made by
C<new> (for example on the class name).

=back

=head2 Log lines

Invalid UTF-8 in a string field, written or read, makes the runtime's
"String field '...' contains invalid UTF-8 data when serializing a protocol
buffer." (or "when parsing") line; see L<quillon_event_log::RuntimeLog>.

=head1 SPEED

The codec is the fast path of the distribution: one pass each way with no
record object in between. C<encode> writes straight into the buffer of the
string it returns, and C<decode> makes Perl values straight from the input
bytes into a hash of the right size. It is meant to be faster than
C<< CLASS->new(\%hash)->pack >> and C<< CLASS->new($bytes)->to_hashref >> for
every kind of record. C<make bench> in the distribution measures it.

=head1 BUGS AND LIMITATIONS

=over 4

=item *

Inputs longer than 2,147,483,647 bytes (the wire format's limit) are refused.

=item *

C<decode> re-encodes non-canonical input (repeated fields, long varints,
flags other than 0 and 1) in canonical form, so the guarantee
C<encode(decode($b)) eq $b> holds for canonical input only.

=item *

With C<< unknown_fields => 'drop' >>, unknown fields are lost by design.

=back

=head1 SEE ALSO

L<quillon_event_log::QuillonEventLog> (the record class and the hash form),
L<quillon_event_log::IPAddr> (address texts),
L<quillon_event_log::RuntimeLog>, L<JSON::XS>.

=head1 AUTHOR

The quillon_event_log team.

=head1 LICENSE

Copyright the quillon_event_log team's company. All rights reserved;
distribution restricted. This module is proprietary and for internal use
only; it is not free software and may not be redistributed.

=cut
