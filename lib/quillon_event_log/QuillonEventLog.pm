package quillon_event_log::QuillonEventLog;

use strict;
use warnings;

our $VERSION = '1.0';

require XSLoader;
XSLoader::load('quillon_event_log::QuillonEventLog', $VERSION);

# The address class and the runtime log switch live in the same shared object.
require quillon_event_log::IPAddr;
require quillon_event_log::RuntimeLog;

# A new Perl thread gets copies of every variable, and a copied handle would
# hold the same record as the original: both would free it.  So objects of
# both classes are not copied into new threads; there the variables hold
# unblessed references to undef.
sub CLONE_SKIP { 1 }

# Storable (freeze, dclone) would copy the handle, and with it the record's
# address, so two objects would free one record.  A record travels as its
# wire bytes instead and comes back as a new object of its own.
sub STORABLE_freeze {
    my ($self) = @_;
    return $self->length ? $self->pack : '';
}

sub STORABLE_attach {
    my ($class, undef, $bytes) = @_;
    return bless __PACKAGE__->new($bytes), $class;
}

1;
__END__

=head1 NAME

quillon_event_log::QuillonEventLog - bot-mitigation event records as protocol buffers

=head1 SYNOPSIS

Build a record, set and read fields:

  use quillon_event_log::QuillonEventLog;

  my $event = quillon_event_log::QuillonEventLog->new({
      bot_name         => 'python-requests',
      # 203.0.113.45 as one 32-bit number in ip3
      client_ip        => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0xCB00712D, rtdom_id => 0 },
      dest_port        => 443,
      device_id        => '12297829382473034410',   # 64-bit values: decimal strings
      request_uri      => '/account/login',
      anomalies        => ['Known automation User-Agent'],
      is_https_request => 1,
  });
  $event->set_actual_mitigation_action('block');
  $event->add_anomalies('Missing Accept-Language header');
  print $event->bot_name, "\n" if $event->has_bot_name;
  print $event->debug_string;                 # protocol-buffer text form
  my $h = $event->to_hashref;                 # the hash form

Write several records to a file and read them back. A stream of
protocol-buffer records puts each record's length in front of it as a
varint: seven bits per byte, least significant group first, the high bit
set on every byte but the last. (Perl's C<pack "w"> is a different
encoding, with the most significant group first: do not use it here.)

  sub put_varint {
      my ($n) = @_;
      my $out = '';
      while ($n >= 0x80) { $out .= chr(($n & 0x7F) | 0x80); $n >>= 7 }
      return $out . chr($n);
  }

  sub read_varint {                  # undef at a clean end of file
      my ($fh) = @_;
      my ($n, $shift, $byte) = (0, 0);
      while (read($fh, $byte, 1)) {
          $n |= (ord($byte) & 0x7F) << $shift;
          return $n if ord($byte) < 0x80;
          $shift += 7;
          die "varint too long\n" if $shift > 63;
      }
      die "truncated varint\n" if $shift;
      return undef;
  }

  open my $out, '>:raw', 'events.bin' or die "events.bin: $!";
  for my $rec ($event, quillon_event_log::QuillonEventLog->new({ bot_name => 'curl' })) {
      my $bytes = $rec->length ? $rec->pack : '';   # see KNOWN QUIRKS
      print {$out} put_varint(length $bytes), $bytes;
  }
  close $out or die "events.bin: $!";

  open my $in, '<:raw', 'events.bin' or die "events.bin: $!";
  while (defined(my $len = read_varint($in))) {
      read($in, my $bytes, $len) == $len or die "truncated record\n";
      my $rec = quillon_event_log::QuillonEventLog->new;
      $rec->unpack($bytes) or die "malformed record\n";
      print $rec->short_debug_string, "\n";
  }

The strict codec: plain hashes in, wire bytes out and back, with every
mistake reported (see L<quillon_event_log::Codec>):

  use quillon_event_log::Codec;        # exports encode_event, decode_event

  my $bytes = encode_event({ bot_name => 'curl', src_port => 51734 });
  my $hash  = decode_event($bytes);    # { bot_name => 'curl', src_port => 51734 }
  encode_event({ bot_nmae => 'curl' });
      # dies: unknown field "bot_nmae" (did you mean "bot_name"?) at ...

Records as JSON, with text as characters and addresses as text:

  use JSON::XS;
  use quillon_event_log::Codec;

  my $codec = quillon_event_log::Codec->new(characters => 1, addresses => 'text');
  my $json  = JSON::XS->new->utf8->canonical;

  my $text  = $json->encode($codec->decode($bytes));   # UTF-8 JSON text
  my $again = $codec->encode($json->decode($text));    # eq $bytes

=head1 DESCRIPTION

Each object of the class C<quillon_event_log::QuillonEventLog> holds one
event record of a web traffic processor's bot-mitigation function: who the
client was (addresses with their routing domain, ports, device, session and
support identifiers), what it asked for (host, URI, method, protocol
information, the raw request), how it was classified (bot name, signature
and its category, anomalies and their categories, classification) and what
was done about it (configured and actual mitigation and verification
actions with their reasons, captcha and challenge outcomes,
mobile-application attributes).

The record is a protocol-buffer message (proto2, package
C<quillon_event_log>, messages C<IPAddr> and C<QuillonEventLog>, 59 fields),
defined in F<quillon_event_log.proto>. Its wire bytes are what the other
components of the traffic processor produce and consume. No field is
required; 57 fields are optional single values and two
(C<anomaly_categories>, C<anomalies>) are lists of strings.

The distribution has four modules:

=over 4

=item quillon_event_log::QuillonEventLog (this manual)

The record class: build a record field by field or from a hash, read it
field by field or as a hash, copy and merge records, print them in the
protocol-buffer text form, turn them into wire bytes and back.

=item L<quillon_event_log::Codec>

C<encode_event> and C<decode_event>: one call from a plain Perl hash to wire
bytes and back, no object in between, strict about what it accepts, with
options for character strings and text addresses.

=item L<quillon_event_log::IPAddr>

The address objects of the fields C<client_ip> and C<dest_ip>, with
conversion from and to text such as C<"203.0.113.45%2">.

=item L<quillon_event_log::RuntimeLog>

Where the protocol-buffer runtime's complaints (such as strings that are not
valid UTF-8) go: standard error, Perl warnings, or nowhere.

=back

=head2 Which interface should I use?

New code should use L<quillon_event_log::Codec>: it is the fast path, it
refuses misspelt keys and values of the wrong kind instead of storing
something else, its empty record is the true empty encoding, it keeps
unknown fields visible in the hash, and it can give character strings and
text addresses ready for JSON.

Use the record class when you change a record a few fields at a time, need
its text form (C<debug_string>), merge records (C<merge_from>), or have code
that already uses it. Its conversions are lenient by design and are kept as
they are for existing callers: read L</MAPPING> and
L</KNOWN QUIRKS OF THE RECORD CLASS> before relying on them.

Both work on the same wire bytes, and the codec's hashes have the same keys
and values as the class's C<to_hashref> (plus the reserved key C<_unknown>),
so the two can be mixed:

  my $rec  = quillon_event_log::QuillonEventLog->new;
  $rec->unpack(encode_event($hash)) or die;
  my $hash = decode_event($rec->length ? $rec->pack : '');

=head1 MAPPING

=head2 The hash form

A record as a Perl hash: C<to_hashref> and the codec's decoding write it;
C<new(\%hash)>, C<copy_from>, C<merge_from> and the codec's encoding read it.

=over 4

=item Keys

The field names, as listed by L</fields>. A single-value field has a key
exactly when it is present, whatever its value (a string set to C<""> has a
key with C<"">, a flag set to false a key with 0); a list has a key exactly
when it holds at least one element; an absent or cleared field has no key.
An address has a key exactly when it is present, also when none of its own
fields is set (the value is then an empty hash). The codec adds the reserved
key C<_unknown> for unknown fields (L<quillon_event_log::Codec/"Unknown fields">).

=item Values

  string fields       a byte string
  uint32 fields       an unsigned integer
  uint64 fields       a string of decimal digits, e.g. "18446744073709551615"
  bool fields         1 or 0
  client_ip, dest_ip  a reference to an address hash
  anomaly_categories,
  anomalies           a reference to an array of byte strings, in order

=item Address hashes

The keys C<ip0>, C<ip1>, C<ip2>, C<ip3> and C<rtdom_id>, each present
exactly when that field of the address is set, each an unsigned integer.
An IPv4 address sits in C<ip3> with C<ip0> to C<ip2> zero; an IPv6 address
fills C<ip0> (most significant) to C<ip3>; C<rtdom_id> is the routing
domain:

  client_ip => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 3405803821, rtdom_id => 0 }

=back

A hash made by C<to_hashref> gives back an equal record through C<new>, and
one made by C<decode_event> from canonical bytes gives back the same bytes
through C<encode_event>.

=head2 Field types, both ways

How each field type travels between Perl and a record, for the record class
(setters, C<new(\%hash)>, getters, C<to_hashref>) and for the codec
(C<encode_event>, C<decode_event>) side by side. In short:

  type     out of a record        into a record:               into a record:
           (both interfaces)      record class                 codec
  -------  ---------------------  ---------------------------  -------------------------
  string   byte string            any value's string form,     defined non-reference
                                  as its internal bytes        scalar
  uint32   unsigned integer       low 32 bits of Perl's        integer in range, as a
                                  integer value                number or decimal digits
  uint64   decimal string         C strtoull of the string     integer in range, as a
                                  form, base 0                 number or decimal digits
  bool     1 or 0                 integer value is not 0       1, 0, "", a boolean
  address  IPAddr object (class)  IPAddr object (setter);      hash reference (or text
           or hash                any value (hash form)        with addresses => 'text')
  list     list or array ref      one string per add_,         array reference of
                                  array ref in the hash form   defined strings

In detail:

=over 4

=item string

Out: a byte string, C<""> when absent (both). With the codec's
C<characters> option, a character string instead (L</CHARACTERS AND BYTES>).

Into the record class: the bytes of the value's string form, exactly;
embedded zero bytes are kept; numbers as Perl prints them; C<undef> as
C<""> (with Perl's uninitialised-value warning); a reference as its string
form, so C<< set_bot_name({}) >> stores C<"HASH(0x...)">. The UTF-8 flag is
ignored: a character string is stored as its internal UTF-8 bytes.

Into the codec: a defined non-reference scalar (numbers stringify as Perl
prints them). A reference is refused (C<bot_name: expected a string, got a
hash reference>). Without C<characters>, a string with the UTF-8 flag is
written as its characters, each one byte, and a character above 0xFF is
refused (C<bot_name: wide character U+263A in a byte string (use the
characters option)>). With C<characters>, the text is written as UTF-8.
C<undef> leaves the field absent.

=item uint32 (also the five words of an address)

Out: an unsigned integer, 0 when absent (both).

Into the record class: Perl's unsigned-integer conversion, then the low 32
bits: C<4294967296> gives 0, C<4294967297> gives 1, C<-1> gives
4294967295, C<3.9> gives 3, C<"80abc"> gives 80 and C<"abc"> 0 (with Perl's
"isn't numeric" warning), C<"0x10"> gives 0 (hexadecimal text is not read).
A number beyond Perl's unsigned range saturates first, so C<1e20> gives
4294967295. A reference gives the low 32 bits of its address:
C<< set_dest_port([]) >> stores some large number. Nothing is refused.

Into the codec: an integer (C<IV>/C<UV>) from 0 to 4294967295; a
floating-point number that is integral and in range (C<443.0>); a string of
decimal digits only, in range (C<"00443"> is 443). Everything else is
refused: a sign, blanks, C<"0x10">, C<"1e3">, C<"1.5"> or C<""> as text
(C<src_port: "0x10" is not a decimal integer>), negative or too large values
(C<src_port: "-1" is out of range (0..4294967295)>), numbers with a fraction,
NaN and infinities (C<src_port: "1.5" is not an integer>), references
(C<src_port: expected an integer, got an array reference>).

=item uint64

Out: a string of decimal digits, without sign or leading zeros, C<"0"> when
absent (both), so no digit is lost on any perl.

Into the record class: the value's string form is parsed like C's
C<strtoull> with base 0: leading white space is skipped; an optional C<+> or
C<-> is read; C<0x> starts a hexadecimal number and any other leading C<0>
an octal one; parsing stops at the first character that does not fit; text
without digits gives 0 and still sets the field; a value beyond the 64-bit
range gives 18446744073709551615; a leading C<-> negates modulo 2**64.
Nothing is refused:

  "18446744073709551615"   -> 18446744073709551615
  "0x10"                   -> 16
  "010"                    -> 8     (octal)
  "-1"                     -> 18446744073709551615
  "99999999999999999999"   -> 18446744073709551615
  "12abc"                  -> 12
  "abc"                    -> 0     (and the field is present)
  1e20                     -> 1     (its string form is "1e+20")

A floating-point number is read in its string form, up to the first
non-digit: C<1e19> gives 1 and C<2**53> (C<"9.00719925474099e+15">) gives 9.
Integers that Perl holds as integers print in full and are safe; decimal
strings are always safe.

Into the codec: as for uint32 with the range 0..18446744073709551615
(C<device_id: "-1" is out of range (0..18446744073709551615)>); C<"010"> is
10 and C<"0x10"> is refused.

=item bool

Out: 1 or 0, 0 when absent (both).

Into the record class: true exactly when Perl's integer value of the
argument is not zero. So C<2>, C<-1>, C<"1.5"> and C<" 3"> are true, while
C<0.5>, C<"0.9">, C<"0 but true">, C<"0E0">, C<""> and every word, C<"true">
included, are false, although several of these are true to Perl.

Into the codec: 1, 0, C<"1">, C<"0">, C<"">, Perl's built-in booleans, and
objects of C<JSON::PP::Boolean> and C<Types::Serialiser::Boolean> (the true
and false of L<JSON::PP> and L<JSON::XS>) and of L<boolean>, by their truth. Anything else is
refused, C<"true"> and C<"false"> included
(C<mobile_is_app: "true" is not a flag (1, 0, "" or a JSON boolean)>).

=item address (client_ip, dest_ip)

Out of the record class: the getter returns a new
L<quillon_event_log::IPAddr> object holding a copy (an empty one when
absent, never C<undef>); C<to_hashref> gives the address hash. Out of the
codec: the address hash; with C<< addresses => 'text' >>, the text
(C<"203.0.113.45">) when all five words are present and there are no
unknown fields in it, else the hash.

Into the record class: C<set_client_ip> takes only an
C<quillon_event_log::IPAddr> object. In the hash form, a key makes the
address present whatever its value; only a hash reference is read further
(the five words as uint32, other keys ignored); C<undef>, a string or an
array reference gives a present, empty address.

Into the codec: a hash reference only (blessed ones count), whose keys must
be the five words (or C<_unknown>); with C<< addresses => 'text' >> also an
address text, which sets all five words.

=item list (anomaly_categories, anomalies)

Out: the getter returns a list; C<to_hashref> and the codec give an array
reference, with a key only when the list is not empty.

Into the record class: C<add_FIELD> appends one string; in the hash form
only an array reference is read, one element per existing array element
(C<undef> gives C<"">, a hole in the array adds nothing); any other value
gives no elements.

Into the codec: an array reference (blessed ones count) whose elements are
all defined strings; an C<undef> element or a hole is refused
(C<anomalies[1]: expected a string, got undef>).

=item keys

The record class ignores keys that are not field names, so a misspelt key
silently leaves its field absent. The codec refuses them
(C<unknown field "bot_nmae" (did you mean "bot_name"?)>).

=item undef

The record class converts an C<undef> value like any other value (C<"">, 0,
false) and sets the field. The codec treats C<undef> as "absent".

=item unknown fields

Fields of the wire bytes that the schema does not declare are kept by both:
the record class keeps them inside the record (not in C<to_hashref>) and
writes them again after the known fields; the codec shows them under the key
C<_unknown> and writes them back at their place.

=back

=head1 CHARACTERS AND BYTES

The string fields of the schema are text (protocol-buffer C<string>), but
records from the field carry what clients sent, and that is not always valid
UTF-8. The module never refuses or changes such bytes.

The record class works in bytes only. A setter stores the bytes of the
scalar's buffer and ignores the UTF-8 flag, so a character string is
stored as its internal UTF-8 encoding: C<"\x{263A}"> is stored as the three
bytes C<"\xE2\x98\xBA">, and C<"\xFF"> from a string with the UTF-8 flag as
C<"\xC3\xBF"> (while the same C<"\xFF"> without the flag is the one byte
C<"\xFF">). The getters return byte strings, never with the UTF-8 flag.
Encode text yourself before storing it and decode it after reading:

  use Encode qw(encode_utf8 decode_utf8);
  $rec->set_reason(encode_utf8($text));
  my $text = decode_utf8($rec->reason);

The codec does this for you with C<< characters => 1 >>: C<decode> gives
character strings, C<encode> writes UTF-8. Bytes that are not valid UTF-8
come out as the characters U+DC80 to U+DCFF ("surrogate escapes", one per
byte) and go back in as the same bytes, so nothing is lost
(L<quillon_event_log::Codec/"CHARACTERS AND BYTES">). Without the option the
codec works in bytes like the class, except that it refuses a character
above 0xFF instead of storing UTF-8 bytes.

When a string that is not valid UTF-8 is written or parsed, the
protocol-buffer runtime complains ("String field
'quillon_event_log.QuillonEventLog.bot_name' contains invalid UTF-8 data
..."); by default the complaint goes to standard error. Nothing fails. Use
L<quillon_event_log::RuntimeLog> to silence and count these lines or to
turn them into Perl warnings.

=head1 KNOWN QUIRKS OF THE RECORD CLASS

These behaviours are kept on purpose, because existing code depends on
them. Each has a safe alternative.

=over 4

=item C<pack> of an empty record gives 16 zero bytes

A record without any field encodes to nothing, yet C<pack> returns
C<"\0" x 16> while C<length> returns 0. Those 16 bytes do not parse back
(C<unpack> returns 0). Safe: C<< $rec->length ? $rec->pack : '' >>, or
C<encode_event({})>, which is C<"">.

=item C<new($bytes)> ignores bad bytes

C<new> does not report a parse failure; the object keeps what was parsed
before the fault (C<< new("\x0a\x05ab") >> gives a record with C<bot_name>
C<"ab">). Safe: C<< my $rec = CLASS->new; $rec->unpack($bytes) or die >>, or
C<decode_event($bytes)>, which dies with the byte offset of the fault.

=item C<to_hashref> on an empty handle returns a null

After an explicit C<DESTROY>, C<to_hashref> returns a null result, which
reads as C<undef> in plain scalar assignment but may crash Perl where a
list is consumed (C<my @h = ...>, C<map>, C<for>) and as the value of an
C<eval> block (C<my $h = eval { $obj-E<gt>to_hashref }>). Safe: test the
object first (C<< $obj->length >> and C<< defined $obj->pack >> answer on an
empty handle), assign the result straight to a scalar, or use
L<quillon_event_log::Codec>, whose C<decode_event> always returns a hash
reference or dies.

=item C<discard_unkown_fields> is spelt so

The method's public name has the typo; there is no correctly spelt alias
(C<discard_unknown_fields> is "Can't locate object method"). Safe: the
codec's C<< unknown_fields => 'drop' >>.

=item C<new> refuses subclass names

C<< My::Event->new >> dies with "invalid class My::Event" even when
C<My::Event> inherits from the class. Safe: make the object with the base
class and bless it afterwards; every other method accepts subclass objects:

  package My::Event;
  our @ISA = ('quillon_event_log::QuillonEventLog');
  sub new { my ($class, @args) = @_;
            bless quillon_event_log::QuillonEventLog->new(@args), $class }

=item invalid UTF-8 is logged on standard error

Strings that are not valid UTF-8 make the protocol-buffer runtime print
C<[libprotobuf ERROR ...]> lines on standard error, outside Perl's control by
default. Safe: L<quillon_event_log::RuntimeLog> (mode C<silent> or
C<warn>), and the codec's C<characters> option to see such strings.

=item misspelt and unknown keys are ignored by C<new(\%hash)>

C<< new({ bot_nmae => 'x' }) >> gives an empty record without a word, and
values of the wrong kind are converted (L</MAPPING>). Safe: the codec, which
refuses unknown keys with a suggestion and wrong values with the field's
name.

=back

=head1 METHOD REFERENCE

The class has 251 methods: the 15 whole-record methods, then four accessors
per field. Every method checks its exact argument count and dies with a
usage error otherwise. Every method but C<new> and C<fields> checks that its
invocant is an object made by this module, of the class or of a class
derived from it (L</DIAGNOSTICS>).

An I<empty handle> is an object whose C<DESTROY> has already run, or a
reference to 0 blessed into the class by hand
(C<bless \(my $x = 0), 'quillon_event_log::QuillonEventLog'>). On an empty
handle the whole-record methods and the getters do nothing and return their
empty-handle result, given with each method below; C<has_FIELD>,
C<clear_FIELD>, C<set_FIELD>, C<add_FIELD> and C<FIELD_size> die with "THIS
holds no quillon_event_log::QuillonEventLog record". Any other hand-made
handle is refused (L</DIAGNOSTICS>).

=head2 Whole-record methods

=head3 new

  my $rec = quillon_event_log::QuillonEventLog->new;
  my $rec = quillon_event_log::QuillonEventLog->new(\%hash);
  my $rec = quillon_event_log::QuillonEventLog->new($bytes);

Makes a new object that owns a new record. The class name must be exactly
C<quillon_event_log::QuillonEventLog>; any other name, a subclass's
included, dies with "invalid class NAME" (see
L</KNOWN QUIRKS OF THE RECORD CLASS>). The object is always blessed into
C<quillon_event_log::QuillonEventLog>.

=over 4

=item C<new($class)>

An empty record: every field absent.

=item C<new($class, \%hash)>

A record built from a hash in the hash form (L</MAPPING>). A blessed hash
reference counts as a hash. Unknown keys are ignored and nothing is added to
the hash.

=item C<new($class, $bytes)>

Any second argument that is not a hash reference is taken as wire bytes: its
string form is parsed into the record. A parse failure is not reported; the
object keeps whatever the parse left in the record (use L</unpack> when the
outcome matters). C<undef> reads as the empty string and gives an empty
record, with Perl's uninitialised-value warning. A record object given here
is parsed by its string form (C<quillon_event_log::QuillonEventLog=SCALAR(0x...)>),
which is not what you want: copy records with L</copy_from>.

=item C<new($class, $x, $y, ...)>

Three or more arguments: an empty record; the arguments after the class name
are ignored.

=back

=head3 DESTROY

  $rec->DESTROY;     # normally left to Perl

Frees the record. The object becomes an empty handle, so a second
C<DESTROY> (an explicit call followed by Perl's own) does nothing.

=head3 copy_from

  $rec->copy_from($other);
  $rec->copy_from(\%hash);

Makes the record equal to the source: every field the source does not have
becomes absent. The source is

=over 4

=item *

an object of the class (or of a class derived from it): its record is
copied. An empty handle counts as an empty record, so the invocant is
cleared. Copying a record from itself changes nothing.

=item *

a hash reference (blessed or not): a record is built from it as C<new>
would (L</MAPPING>) and copied.

=item *

anything else (a plain string, a number, C<undef>, an array reference, an
object of another class): ignored, without error or warning.

=back

Returns nothing. On an empty handle it does nothing.

=head3 merge_from

  $rec->merge_from($other);
  $rec->merge_from(\%hash);

Merges the source, of the same kinds as for L</copy_from>, into the record:
every single-value field present in the source replaces the record's value;
the two addresses are merged word by word (an absent address is created
first); the source's list elements are appended to the record's lists; the
source's unknown fields are added. Fields the source does not have are left
as they are. An empty-handle source, or a source of any other kind, changes
nothing. Returns nothing. On an empty handle it does nothing.

  $rec->merge_from({ actual_mitigation_action => 'captcha', anomalies => ['Rate limit exceeded'] });

Merging a record into itself (C<< $rec->merge_from($rec) >>) ends the
process (L</DIAGNOSTICS>); it cannot be caught with C<eval>. Merge a copy:
C<< $rec->merge_from(quillon_event_log::QuillonEventLog->new($rec->pack)) >>.

=head3 clear

  $rec->clear;

Makes every field absent, empties the lists and drops unknown fields.
Afterwards C<length> is 0. Returns nothing; does nothing on an empty handle.

=head3 is_initialized

  my $ok = $rec->is_initialized;

1 when every required field is present, else 0. The record has no required
fields, so every record answers 1. Empty handle: 0.

=head3 error_string

  my $missing = $rec->error_string;

The dotted paths of the missing required fields, joined by C<", ">: always
the empty string for this record. Empty handle: C<"">.

=head3 discard_unkown_fields

  $rec->discard_unkown_fields;

(The misspelt name is the public one; see
L</KNOWN QUIRKS OF THE RECORD CLASS>.) Drops the unknown fields of the
record and of its addresses: the fields that a parse met with a number the
schema does not declare (for example 6 or 31, the two numbers the schema
leaves free), or with another wire type than the schema's. Without it, they
are kept and written again by C<pack> after the known fields. Returns
nothing; does nothing on an empty handle.

=head3 debug_string

  print $rec->debug_string;

The record in the protocol-buffer text form, one field per line, in
field-number order: C<name: value>, strings in double quotes with C escapes
(C<\r>, C<\n>, C<\000>, octal for bytes outside printable ASCII), numbers in
decimal, flags as C<true> or C<false>, each list element on a line of its
own, and each address as a nested block indented by two spaces:

  bot_name: "python-requests"
  client_ip {
    ip3: 3405803821
    rtdom_id: 0
  }
  src_port: 51734
  device_id: 12297829382473034410
  anomalies: "Known automation User-Agent"
  is_https_request: true

Every line, the last included, ends in a newline. An empty record gives the
empty string. Empty handle: C<"">.

=head3 short_debug_string

  print $rec->short_debug_string, "\n";

The same text form on one line, items separated by single spaces, without a
final newline:

  bot_name: "python-requests" client_ip { ip3: 3405803821 rtdom_id: 0 } src_port: 51734

Empty handle: C<"">.

=head3 unpack

  my $ok = $rec->unpack($bytes);

Replaces the record's contents with the record parsed from the wire bytes
in the string form of the argument (C<undef> reads as the empty string). It
never merges: fields set before are gone. Returns 1 when the bytes parse, 0
when they do not; a failure is never an exception, and the record then holds
what was parsed before the fault. The empty string parses to an empty record
and returns 1. Empty handle: 0.

What counts as a clean parse:

=over 4

=item *

Fields may come in any order and any number of times: a later single value
replaces an earlier one, a later address merges into the earlier one, list
elements are appended.

=item *

A field whose number the schema does not declare, or a declared number with
another wire type, is kept as an unknown field and written again by C<pack>
after the known fields; so is field number 0 (C<"\x02\x00"> parses, and
packs to the same two bytes), also inside C<client_ip> and C<dest_ip>.
Groups are kept with their contents.

=item *

A 32-bit field or tag given as a longer varint (up to ten bytes) is read as
its low 32 bits; a flag is true for any non-zero varint.

=item *

The parse fails (returns 0) on: a varint of more than ten bytes; a zero
byte or an end-group tag where a field should start; wire types 6 and 7; a
length running past the input or past its enclosing address; an address
that does not end exactly at its length; an unbalanced group; nesting of
addresses and groups deeper than 100 levels; and input longer than 64 MiB
(67,108,864 bytes), which fails where it crosses that size (the runtime
logs "A protocol message was rejected because it was too big"). A string
running past the input keeps the bytes that were there.

=back

=head3 pack

  my $bytes = $rec->pack;

The record's wire encoding as a new byte string: every present field in
field-number order, then the unknown fields. C<new> and C<unpack> read it
back into an equal record, and C<length($bytes)> equals C<< $rec->length >>
-- except for an empty record, which packs to 16 zero bytes (see
L</KNOWN QUIRKS OF THE RECORD CLASS>). Empty handle: C<undef>.

=head3 length

  my $n = $rec->length;

The number of bytes of the record's wire encoding; 0 for an empty record.
Empty handle: 0.

=head3 fields

  my @names = quillon_event_log::QuillonEventLog->fields;

The names of the record's 59 fields in field-number order, C<bot_name>
first and C<http_protocol_info> last. The list is fixed; it names the
record's fields only, not the address words. C<fields> does not test its
argument, so it answers on the class name or on any value. In scalar context
it gives the last name; count the names with C<< my $n = () = $rec->fields >>.

=head3 to_hashref

  my $h = $rec->to_hashref;

The whole record as a reference to a new hash in the hash form
(L</MAPPING>): one key per present field; unknown fields are not shown. An
empty record gives a reference to an empty hash. Each call returns a new
hash. On an empty handle: a null result (see
L</KNOWN QUIRKS OF THE RECORD CLASS>).

=head2 Field accessors

Every field has four methods named after it; C<FIELD> stands for the field
name, as in C<has_bot_name>, C<clear_bot_name>, C<bot_name>,
C<set_bot_name>. The methods of a family behave alike.

For the single-value fields (every family but the lists):

=over 4

=item *

C<has_FIELD> returns 1 when the field is present, else 0.

=item *

C<clear_FIELD> makes the field absent; it then reads as its default.

=item *

C<FIELD> returns the value, or the default when the field is absent: C<"">
for strings, 0 for uint32 and flags, C<"0"> for uint64, an empty address
object for addresses. On an empty handle it returns the empty list
(C<undef> in scalar context).

=item *

C<set_FIELD> stores the value (converted as in L</MAPPING>) and makes the
field present, also when the value equals the default. Returns nothing.

=back

=head3 String fields

  $rec->set_FIELD($bytes);    my $bytes = $rec->FIELD;

Byte strings, default C<"">. Several fields whose names read like yes/no
attributes are strings, not flags: C<mobile_is_human_behaviour>,
C<mobile_app_emulation_mode>, C<mobile_app_jailbroken_rooted>,
C<mobile_debugger_enabled_device>. The 43 string fields, with their field
numbers:

   1 bot_name                               34 microservice_type
   2 profile_name                           35 captcha_status
   3 virtual_server_name                    36 browser_verification_status
   7 request_uri                            37 device_id_status
   8 http_request                           38 device_id_action
   9 bot_signature                          39 previous_initiated_action
  10 microservice_name                      40 previous_initiated_action_status
  11 microservice_matched_wildcard_url      41 mobile_os_id
  12 configured_mitigation_action_reason    42 mobile_app_emulation_mode
  13 actual_mitigation_action_reason        43 mobile_app_jailbroken_rooted
  14 actual_verification_action_reason      46 configured_mitigation_action
  15 reason                                 47 actual_mitigation_action
  16 mobile_app_display_name                48 browser_configured_verification_action
  17 mobile_app_version                     49 browser_actual_verification_action
  18 mobile_imei                            51 additional_signatures
  26 mobile_is_human_behaviour              53 host
  29 http_method                            54 request_status
  30 country_code                           55 microservice_matched_wildcard_host
  32 classification                         56 enforced_by
  33 bot_signature_category                 57 primary_anomaly_category
                                            58 mobile_debugger_enabled_device
                                            60 challenge_failure_reason
                                            61 http_protocol_info

=head3 uint32 fields

  $rec->set_FIELD($number);   my $number = $rec->FIELD;

Unsigned 32-bit numbers, default 0; the setter keeps the low 32 bits.
C<request_time> and C<previous_request_time> are seconds in 32 bits, not
64-bit values.

  19 src_port                 27 request_time
  20 dest_port                28 previous_request_time
                              52 slot_number

=head3 uint64 fields

  $rec->set_FIELD($decimal);  my $decimal = $rec->FIELD;

Unsigned 64-bit identifiers, default C<"0">, given and returned as strings
of decimal digits. Pass them as strings (L</MAPPING>).

  21 device_id                23 support_id
  22 session_id               24 previous_support_id

=head3 bool fields

  $rec->set_FIELD($flag);     my $flag = $rec->FIELD;

Flags, default false. The getter returns 1 or 0; the setter stores true
exactly when the integer value of its argument is not zero, so C<"true"> and
C<0.5> are false (L</MAPPING>).

  25 mobile_is_app            50 is_https_request
                              59 is_update_request

=head3 Address fields

  $rec->set_FIELD($addr);     my $addr = $rec->FIELD;   # quillon_event_log::IPAddr objects

   4 client_ip
   5 dest_ip

Each is an address (L<quillon_event_log::IPAddr>): the four 32-bit words
C<ip0> to C<ip3> of a network address and the routing domain C<rtdom_id>.

The getter returns a new C<quillon_event_log::IPAddr> object holding a copy
of the address: changing it does not change the record, and each call gives
a new object. An absent address reads as an empty one, never C<undef>, and
reading it does not make it present.

The setter takes a C<quillon_event_log::IPAddr> object (or one of a class
derived from it), makes the address present and copies the object's words
into it; the caller's object is not changed. Anything else, a plain hash
reference included, dies with "VAL is not of type quillon_event_log::IPAddr"
and leaves the record unchanged. An empty address handle changes nothing.
C<clear_FIELD> makes the address absent and empties it.

  $rec->set_client_ip(quillon_event_log::IPAddr->from_string('203.0.113.45'));
  print $rec->client_ip->as_string, "\n";          # 203.0.113.45

=head3 Repeated string fields

  my $count = $rec->FIELD_size;
  $rec->clear_FIELD;
  my @all   = $rec->FIELD;
  my $one   = $rec->FIELD($index);
  $rec->add_FIELD($bytes);

  44 anomaly_categories
  45 anomalies

Ordered lists of byte strings, empty by default, without presence bit and
without C<has_> method. C<FIELD_size> returns the element count,
C<clear_FIELD> empties the list, C<add_FIELD> appends one element (stored as
a string setter stores it).

The getter without an index returns every element in order (in scalar
context the last element, or C<undef> for an empty list). With one index it
returns that element, or C<undef> when the index is negative or not less
than the count; a negative index does not count from the end. The index is
the low 32 bits of the argument's integer value. On an empty handle the
getter returns the empty list.

  $rec->add_anomalies('a');
  $rec->add_anomalies('b');
  my @x = $rec->anomalies;          # ('a', 'b')
  my $b = $rec->anomalies(1);       # 'b'
  my $u = $rec->anomalies(-1);      # undef
  my $n = $rec->anomalies_size;     # 2

=head2 Reading hashes: details

C<new(\%hash)>, C<copy_from> and C<merge_from> look up every field name once,
in field-number order; for each key that exists (a key whose value is
C<undef> exists) the value is converted as its setter would convert it and
the field is set. They never die on their own and report nothing (only a
tied value's own C<FETCH> can die), and never add a key or element to the
hash or its arrays.

Tied and restricted hashes read like plain ones. A tied hash is asked
whether each field's key C<EXISTS> and then C<FETCH>es the value of each key
it has. A restricted hash (L<Hash::Util>) is read without Perl's "disallowed
key" error for field keys it does not allow. Every value with magic (a tied
element, C<$1>, a tied argument) is fetched exactly once.

=head1 DIAGNOSTICS

Errors are exceptions with fixed texts; Perl appends " at FILE line N." to
each, so match them with a pattern such as
C<qr/^THIS is not of type quillon_event_log::QuillonEventLog at />. The
texts of the other modules are listed in their own manuals.

=over 4

=item THIS is not of type quillon_event_log::QuillonEventLog

A method (any but C<new> and C<fields>) was called on something that is not
an object of the class or of a class derived from it: a plain string such as
the class name, an unblessed reference, an object of another class.

=item THIS is not a quillon_event_log::QuillonEventLog handle made by this module

The invocant is blessed into the class but was not made by C<new> (for
example C<bless \(my $x = 12345), 'quillon_event_log::QuillonEventLog'>).
A hand-made reference to 0 is an empty handle instead, not an error.

=item sv is not a quillon_event_log::QuillonEventLog handle made by this module

The same for the source of C<copy_from> or C<merge_from>.

=item THIS is not of type quillon_event_log::IPAddr

=item THIS is not a quillon_event_log::IPAddr handle made by this module

The same for the methods of L<quillon_event_log::IPAddr>.

=item VAL is not of type quillon_event_log::IPAddr

C<set_client_ip> or C<set_dest_ip> was given something that is not a
C<quillon_event_log::IPAddr> object (a hash reference, a string, an object
of another class). The record is unchanged.

=item VAL is not a quillon_event_log::IPAddr handle made by this module

C<set_client_ip> or C<set_dest_ip> was given an address object that was not
made by this module. The record is unchanged.

=item Modification of a read-only value attempted

Perl's own text, for an assignment to the scalar behind an object
(C<$$obj = 5>, C<$$obj++>). The object still holds its record.

=item invalid class %s

C<new> was called with a class name other than exactly
C<quillon_event_log::QuillonEventLog>; the name given takes the place of
C<%s>. Subclass names are refused too.

=item THIS holds no quillon_event_log::QuillonEventLog record

A C<has_>, C<clear_>, C<set_>, C<add_> or C<_size> method was called on an
empty handle (after C<DESTROY>, or on a reference to 0 blessed by hand).

=item Usage: quillon_event_log::QuillonEventLog::anomalies(CLASS, [index])

=item Usage: quillon_event_log::QuillonEventLog::anomaly_categories(CLASS, [index])

The list getter was given more than one index.

=item Usage: quillon_event_log::QuillonEventLog::METHOD(ARGS)

A method was called with the wrong number of arguments. The text names the
method and its arguments:

  CLASS, ...       new (called without any argument)
  svTHIS           DESTROY, clear, is_initialized, error_string,
                   discard_unkown_fields, debug_string, short_debug_string,
                   pack, length, fields, to_hashref, has_FIELD, clear_FIELD,
                   the single-value getters, FIELD_size
  svTHIS, sv       copy_from, merge_from
  svTHIS, arg      unpack
  svTHIS, svVAL    set_FIELD, add_FIELD
  svTHIS, ...      anomaly_categories, anomalies (called without any argument)

for example "Usage: quillon_event_log::QuillonEventLog::set_bot_name(svTHIS,
svVAL)". Called as plain functions, some methods are refused by the Perl
compiler itself ("Not enough arguments for ...", "Too many arguments for
..."; see L</Prototypes>).

=item Can't serialize message of type 'quillon_event_log::QuillonEventLog' because it is missing required fields: %s

C<pack> of a record whose required fields are missing. The record has no
required fields, so this cannot occur.

=item CHECK failed: (&from) != (this):

Not an exception: C<merge_from> was asked to merge a record into itself.
The protocol-buffer runtime writes

  [libprotobuf FATAL src/quillon_event_log.pb:NNNN] CHECK failed: (&from) != (this): 

on standard error and the process aborts (SIGABRT) before anything is
merged. C<eval> cannot catch it. Merge a copy instead (L</merge_from>).

=item String field '...' contains invalid UTF-8 data when serializing a protocol buffer. Use the 'bytes' type if you intend to send raw bytes.

=item String field '...' contains invalid UTF-8 data when parsing a protocol buffer. Use the 'bytes' type if you intend to send raw bytes.

Not exceptions: lines of the protocol-buffer runtime, written when C<pack>,
C<length> or a parse meets a string field whose bytes are not valid UTF-8,
with the field's full name (such as
C<quillon_event_log.QuillonEventLog.http_request>) in place of C<...>. By
default they go to standard error as C<[libprotobuf ERROR ...]> lines; see
L<quillon_event_log::RuntimeLog> to silence and count them or to get them as
Perl warnings. The bytes are kept and nothing fails.

=back

Perl's own warnings (uninitialised value, "isn't numeric") appear where the
conversions of L</MAPPING> meet such values and warnings are on.

=head1 THREADS

The module starts no threads and takes no locks; one record must be used by
one thread at a time (even reading its size writes a cached size). Records
of different threads are independent.

Objects of both classes are not copied into new Perl threads. A thread
started while records exist sees unblessed references to C<undef> in the
variables that hold objects in its parent (a method call on one dies with
Perl's "Can't call method ... on unblessed reference"); the parent's objects
are untouched and every record is freed once, by the thread that made it.
The same holds for objects passed to C<< threads->create >> and returned
through C<join>. To move a record between threads, move its bytes:

  my ($bytes) = threads->create(sub { $make_record->()->pack })->join;
  my $rec = quillon_event_log::QuillonEventLog->new($bytes);

Storable's C<freeze>/C<thaw> and C<dclone> copy a record through its wire
bytes, so the copy is a new object with a record of its own. Do not put
objects into C<threads::shared> variables: share the bytes or the hash
form. The runtime log switch is per thread (L<quillon_event_log::RuntimeLog>).

=head1 SECURITY

The records carry what clients sent (raw requests, URIs, hosts), and the
bytes given to C<new>, C<unpack> and C<decode_event> may be corrupt or
hostile. What holds:

=over 4

=item *

No input crashes the process or reads outside its buffer: C<unpack> parses
(returns 1) or fails (0), never dies, and the record then holds what was
read before the fault; C<decode_event> returns a whole hash or dies.

=item *

Memory is bounded by the input: a length prefix larger than the input fails
before anything is allocated for it, inputs over 64 MiB fail in the record
class, nesting is limited to 100 levels.

=item *

Strings may hold zero bytes and invalid UTF-8. Treat every string you read
as untrusted bytes (or use the codec's C<characters> option and get valid
characters with the invalid bytes escaped).

=item *

Values from Perl never corrupt a record: every value is converted or
refused, dying tied values and wrong argument counts leave the record as it
was, and arguments are converted before the record is touched.

=item *

Handles cannot be forged: a reference blessed into one of the classes by
hand is refused unless it holds 0, which is an empty handle. Storable images
of records hold wire bytes, not addresses; still, do not C<thaw> images from
untrusted sources (Storable's own advice).

=item *

Merging a record into itself ends the process (L</DIAGNOSTICS>); it needs the
same object on both sides, which input data cannot bring about.

=back

=head1 BUGS AND LIMITATIONS

=over 4

=item *

The quirks of L</KNOWN QUIRKS OF THE RECORD CLASS> are kept for existing
callers and will not change in this class.

=item *

C<merge_from> of a record into itself aborts the process.

=item *

Records are limited to 64 MiB when parsed by the record class, and the wire
format itself to 2,147,483,647 bytes.

=item *

Unknown fields are not shown by C<to_hashref>; use the codec to see them.

=back

Report problems to the quillon_event_log team.

=head1 IMPLEMENTATION DETAILS

Nothing in this section is needed to use the module.

=head2 Prototypes

Methods are registered with prototypes, which matter only to calls written
as plain function calls (method calls ignore them):

  "$;@"   new, anomaly_categories, anomalies
  "$$"    copy_from, merge_from, unpack, every set_FIELD, add_anomaly_categories,
          add_anomalies
  "$"     every other method

Called as plain functions, methods with a C<"$"> or C<"$$"> prototype may be
refused by the compiler ("Not enough arguments for ..." or "Too many
arguments for ...") before they run.

=head2 Registration order

The 15 whole-record methods are registered first, in the order of
L</Whole-record methods>; then the four accessors of each field, field by
field in field-number order. One table of fields drives the accessors,
C<fields>, C<to_hashref> and the hash form, so adding a field to the schema
adds all of them.

=head2 Handles

An object is a blessed reference to a scalar carrying the module's own mark
(Perl extension magic with a vtable of the module's, one per class) that
holds the record the object owns; the scalar's integer is the record's
address, but nothing reads it back, so a copied or made-up integer reaches
no record. The mark's set hook refuses any write to the scalar (Perl's own
"Modification of a read-only value attempted"); the scalar is not flagged
read-only, because Perl's C<bless> refuses read-only referents and
reblessing into a subclass must keep working. The record is made by C<new>
and freed by C<DESTROY>; should an object die without its C<DESTROY> (it
was reblessed into a class that has none), the mark's free hook frees the
record. A copy of the scalar in a new interpreter keeps the mark but not the
record, so it is an empty handle. Every value a
method returns is a new Perl value holding a copy of the data; nothing
returned points into a record.

=head2 The record pool

A freed record whose encoding is at most 64 KiB is cleared and kept, up to
16 per thread, and the next C<new> of that thread starts from it: its
strings, addresses and list elements are refilled in place instead of being
allocated again. Nothing of its content survives the clearing, so this is
invisible except in speed and in the memory the kept records hold (a few
kilobytes for common records). A thread frees its pool when it ends.

=head2 The output stream

C<pack> writes the encoding straight into the buffer of the Perl string it
returns, without an intermediate copy.

=head2 The wire reader

C<new($bytes)> and C<unpack> use the module's own wire reader rather than
the runtime's parser. Whatever the runtime's parser reads, it reads into the
same record; in addition it keeps field number 0 as an unknown field and
reads tags longer than five bytes as their low 32 bits. The test suite
checks it against the runtime's parser on mutated inputs.

=head1 SEE ALSO

L<quillon_event_log::Codec>, L<quillon_event_log::IPAddr>,
L<quillon_event_log::RuntimeLog>.

F<quillon_event_log.proto> in the distribution: the schema, with every
field's name, number and type. F<README.md> and F<examples/bot_event.pl>.

L<JSON::XS>, L<Storable>, L<threads>, L<Encode>.

=head1 AUTHOR

The quillon_event_log team.

=head1 LICENSE

Copyright the quillon_event_log team's company. All rights reserved;
distribution restricted. This module is proprietary and for internal use
only; it is not free software and may not be redistributed.

=cut
