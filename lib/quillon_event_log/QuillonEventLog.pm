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

  use quillon_event_log::QuillonEventLog;

  # A record from a hash in the hash form (see THE HASH FORM).
  my $event = quillon_event_log::QuillonEventLog->new({
      bot_name            => 'python-requests',
      profile_name        => 'bot_profile_storefront',
      virtual_server_name => 'vs_shop_https',
      # 203.0.113.45 as one 32-bit number in ip3
      client_ip           => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0xCB00712D, rtdom_id => 0 },
      src_port            => 51734,
      dest_port           => 443,
      device_id           => '12297829382473034410',     # uint64: a decimal string
      request_uri         => '/account/login',
      http_method         => 'POST',
      host                => 'shop.example.com',
      classification      => 'Malicious Bot',
      anomaly_categories  => ['Automation Tool'],
      anomalies           => ['Known automation User-Agent'],
      is_https_request    => 1,
  });

  # Fields one by one.
  $event->set_configured_mitigation_action('block');
  $event->set_actual_mitigation_action('block');
  $event->set_session_id('8374562910457730112');
  $event->add_anomalies('Missing Accept-Language header');
  print $event->bot_name, "\n" if $event->has_bot_name;

  # To wire bytes and back.
  my $bytes = $event->pack;
  printf "%d bytes\n", $event->length;
  my $copy = quillon_event_log::QuillonEventLog->new($bytes);

  # Read it all at once, or print it.
  my $h = $copy->to_hashref;
  print "$h->{device_id} $h->{anomalies}[1]\n";
  print $copy->debug_string;

=head1 DESCRIPTION

This module gives Perl programs the class C<quillon_event_log::QuillonEventLog>.
Each object holds one event record of a web traffic processor's
bot-mitigation function: who the client was (addresses with their routing
domain, ports, device, session and support identifiers), what it asked for
(host, URI, method, protocol information, the raw request), how it was
classified (bot name, signature and its category, anomalies and their
categories, classification) and what was done about it (configured and
actual mitigation and verification actions with their reasons, captcha and
challenge outcomes, mobile-application attributes).

The record is a protocol-buffer message (proto2, package
C<quillon_event_log>, messages C<IPAddr> and C<QuillonEventLog>, 59 fields),
defined in F<quillon_event_log.proto>. The module builds a record field by
field or from a Perl hash, reads it back field by field or as a hash, copies
and merges records, prints them in the protocol-buffer text form, and turns
a record into its wire bytes and back. The wire bytes are what the other
components of the traffic processor produce and consume.

Every field is optional except the two repeated string lists
C<anomaly_categories> and C<anomalies>; no field is required. An absent field
reads as its type's default: C<""> for strings, C<0> for numbers, C<"0"> for
64-bit numbers, C<0> (false) for flags and an empty address for the two
address fields. Each singular field has its own presence bit, set by every
setter (also when the value equals the default) and cleared by C<clear_FIELD>.

An object is a reference, blessed into the class, to a scalar holding the
address of the record that the object owns. The record is made by C<new> and
freed by C<DESTROY>; nothing else replaces or frees it. Every value the module
returns is a new Perl value holding a copy of the data; nothing returned
points into a record. Loading the module also provides the small class
C<quillon_event_log::IPAddr> (see L</THE ADDRESS CLASS>).

The module starts no threads, keeps no files, reads no environment and has no
configuration. C<$quillon_event_log::QuillonEventLog::VERSION> is C<"1.0">.

=head2 Method names, prototypes and empty handles

The class has 251 methods: the 15 whole-record methods of L</METHODS>, then
four accessors per field (L</FIELD ACCESSORS>). Every method checks its exact
argument count and dies with a usage error otherwise (L</DIAGNOSTICS>). Every
method but C<new> and C<fields> checks that its invocant is an object of the
class or of a class derived from it; a plain string such as the class name
is refused with "THIS is not of type quillon_event_log::QuillonEventLog".

Methods are registered with prototypes, which matter only to calls written
as plain function calls (method calls ignore them):

  "$;@"   new, anomaly_categories, anomalies
  "$$"    copy_from, merge_from, unpack, every set_FIELD, add_anomaly_categories,
          add_anomalies
  "$"     every other method

A handle holding the address 0 is an I<empty handle>: an object whose
C<DESTROY> has already been called, or a reference blessed by hand such as
C<bless \(my $x = 0), 'quillon_event_log::QuillonEventLog'>. On an empty
handle the whole-record methods and the getters do nothing and return their
empty-handle result, given with each method below. The methods C<has_FIELD>,
C<clear_FIELD>, C<set_FIELD>, C<add_FIELD> and C<FIELD_size> die with "THIS
holds no quillon_event_log::QuillonEventLog record".

=head1 METHODS

These are the 15 whole-record methods, in the order in which they are
registered.

=head2 new

  my $rec = quillon_event_log::QuillonEventLog->new;
  my $rec = quillon_event_log::QuillonEventLog->new(\%hash);
  my $rec = quillon_event_log::QuillonEventLog->new($bytes);

Prototype C<"$;@">, usage text "CLASS, ...". Makes a new object that owns a
new record. The class name must be exactly
C<quillon_event_log::QuillonEventLog>; any other name, the name of a subclass
included, dies with "invalid class %s" (the name given in place of C<%s>).
Instance methods do accept objects blessed into a subclass; only C<new>
insists on the exact name. The object is always blessed into
C<quillon_event_log::QuillonEventLog>.

The argument shapes:

=over 4

=item C<new($class)>

An empty record: every field absent.

=item C<new($class, \%hash)>

A record built from a hash in the hash form (L</THE HASH FORM>). A blessed
hash reference counts as a hash. Unknown keys are ignored and nothing is
added to the hash.

=item C<new($class, $bytes)>

Any second argument that is not a hash reference is taken as wire bytes: its
string form is parsed into the record. A parse failure is not reported; the
object keeps whatever the parse left in the record (use L</unpack> when the
outcome matters). C<undef> reads as the empty string and gives an empty
record, with Perl's uninitialised-value warning when warnings are on. A
record object given here is parsed by its string form
(C<quillon_event_log::QuillonEventLog=SCALAR(0x...)>), which is not what you
want: copy records with L</copy_from>.

=item C<new($class, $x, $y, ...)>

Three or more arguments: an empty record; the arguments after the class name
are ignored.

=back

Called as a plain function without any argument (C<&new()>), C<new> dies
with the usage error "Usage: quillon_event_log::QuillonEventLog::new(CLASS, ...)".

=head2 DESTROY

  $rec->DESTROY;     # normally left to Perl

Prototype C<"$">. Frees the record and sets the handle to 0, so a second
C<DESTROY> (an explicit call followed by Perl's own) finds an empty handle
and does nothing. After an explicit C<DESTROY> the object is an empty handle
(see L</Method names, prototypes and empty handles>).

A freed record whose encoding is at most 16 KiB is cleared and kept, up to
16 per thread, and the next C<new> of that thread starts from it: its
strings, addresses and list elements are refilled in place instead of being
allocated again. Nothing of its content survives the clearing, so this is
invisible except in speed and in the few kilobytes the kept records hold.

=head2 copy_from

  $rec->copy_from($other);
  $rec->copy_from(\%hash);

Prototype C<"$$">, usage text "svTHIS, sv". Makes the record equal to the
source: every field of the record that the source does not have becomes
absent. The source is

=over 4

=item *

an object of the class (or of a class derived from it): its record is
copied. A source with an empty handle counts as an empty record, so the
invocant is cleared. Copying a record from itself changes nothing.

=item *

a hash reference (blessed or not): a temporary record is built from it as
C<new> would (L</THE HASH FORM>), copied, and freed.

=item *

anything else (a plain string, a number, C<undef>, an array reference, an
object of another class): ignored, without error or warning.

=back

Returns nothing. On an empty handle it does nothing.

=head2 merge_from

  $rec->merge_from($other);
  $rec->merge_from(\%hash);

Prototype C<"$$">, usage text "svTHIS, sv". Merges the source, of the same
kinds as for L</copy_from>, into the record: every singular field present in
the source replaces the record's value; the two addresses are merged field by
field (an absent address is created first); the source's list elements are
appended to the record's lists (a merged list grows, it is never replaced);
the source's unknown fields are added. Fields that the source does not have
are left as they are. A source object with an empty handle, or a source of
any other kind, changes nothing. Returns nothing. On an empty handle it does
nothing.

Merging a record into itself (C<< $rec->merge_from($rec) >>, or from any
object holding the same record) is a broken precondition of the message
class: the process ends at once, see L</DIAGNOSTICS>. It cannot be caught
with C<eval>.

=head2 clear

  $rec->clear;

Prototype C<"$">. Makes every field absent, empties the lists and drops
unknown fields. Afterwards C<length> is 0. Returns nothing; does nothing on
an empty handle.

=head2 is_initialized

  my $ok = $rec->is_initialized;

Prototype C<"$">. 1 when every required field is present, else 0. The record
has no required fields, so every record answers 1. Empty handle: 0.

=head2 error_string

  my $missing = $rec->error_string;

Prototype C<"$">. The dotted paths of the missing required fields, joined by
C<", ">. For this record it is always the empty string. Empty handle: C<"">.

=head2 discard_unkown_fields

  $rec->discard_unkown_fields;

Prototype C<"$">. The name is misspelt on purpose: C<discard_unkown_fields>
is the public name of this method and is kept as it is; there is no
correctly spelt alias.

Drops the unknown fields of the record and of its address sub-records: the
fields that a parse met with a number the schema does not declare (for
example 6 or 31, the two numbers the schema leaves free). Without it, they
are kept and written again by C<pack> after the known fields. Returns
nothing; does nothing on an empty handle.

=head2 debug_string

  print $rec->debug_string;

Prototype C<"$">. The record in the protocol-buffer text form, one field per
line, in field-number order: C<name: value>, strings in double quotes with C
escapes (C<\r>, C<\n>, C<\000>, octal for bytes outside printable ASCII),
numbers in decimal, flags as C<true> or C<false>, each list element on a line
of its own, and each address as a nested block indented by two spaces:

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

=head2 short_debug_string

  print $rec->short_debug_string, "\n";

Prototype C<"$">. The same text form on one line, items separated by single
spaces, without a final newline:

  bot_name: "python-requests" client_ip { ip3: 3405803821 rtdom_id: 0 } src_port: 51734

Empty handle: C<"">.

=head2 unpack

  my $ok = $rec->unpack($bytes);

Prototype C<"$$">, usage text "svTHIS, arg". Replaces the record's contents
with the record parsed from the wire bytes in the string form of the
argument (C<undef> reads as the empty string). It never merges: fields set
before are gone. Returns 1 when the bytes parse, 0 when they do not; a
failure is never an exception, and the record then holds what was parsed
before the fault. The empty string parses to an empty record and returns 1.
Empty handle: 0.

What counts as a clean parse:

=over 4

=item *

Fields may come in any order and any number of times: a later singular
value replaces an earlier one, a later address merges into the earlier one,
list elements are appended.

=item *

A field whose number the schema does not declare, or a declared number with
another wire type, is kept as an unknown field and written again by C<pack>
after the known fields, also field number 0 (C<"\x02\x00"> parses to 1 and
packs to the same two bytes), and also inside C<client_ip> and C<dest_ip>.
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
logs "A protocol message was rejected because it was too big" on standard
error). A string running past the input keeps the bytes that were there.

=back

Inputs longer than 2,147,483,647 bytes are beyond the wire format's limit
and are not parsed as a whole.

=head2 pack

  my $bytes = $rec->pack;

Prototype C<"$">. The record's wire encoding as a new byte string (no UTF-8
flag): every present field in field-number order, then the unknown fields.
C<new> and C<unpack> read it back into an equal record, and
C<length($bytes)> equals C<< $rec->length >>.

One exception: a record without any field encodes to nothing, yet C<pack>
returns 16 bytes, all zero (C<"\0" x 16>), while C<length> returns 0. This
is intended and must not be relied on to round-trip: given back to
C<unpack>, those bytes do not parse (field number 0 does not exist), so
C<unpack> returns 0 and leaves the record empty, and C<new> makes an empty
record. Test for an empty record with C<< $rec->length == 0 >>, not with the
packed string.

Empty handle: C<undef>.

=head2 length

  my $n = $rec->length;

Prototype C<"$">. The number of bytes of the record's wire encoding, as an
integer; 0 for an empty record. Empty handle: 0.

=head2 fields

  my @names = quillon_event_log::QuillonEventLog->fields;
  my @names = $rec->fields;

Prototype C<"$">, usage text "svTHIS". The names of the record's 59 fields in
field-number order, C<bot_name> first and C<http_protocol_info> last. The
list is fixed: it does not depend on what the record holds, and it names
the fields of the record only, not those of the address. C<fields> makes no
test of its one argument, so it answers on the class name or on any value.
In scalar context it gives the last name, C<"http_protocol_info">; count the
names with C<< my $n = () = $rec->fields >>.

=head2 to_hashref

  my $h = $rec->to_hashref;

Prototype C<"$">. The whole record as a reference to a new hash in the hash
form (L</THE HASH FORM>): one key per present field. A new, empty record
gives a reference to an empty hash. Each call returns a new hash; changing
it changes neither the record nor any hash returned before.

On an empty handle the method returns a null result: not a reference, not
even a Perl value. Taken in scalar context, as in C<my $h = $rec-E<gt>to_hashref>,
C<my ($h) = ...> or C<defined $rec-E<gt>to_hashref>, it reads as C<undef>.
Do not use it where a list of values is consumed, such as C<my @h = ...>,
C<map>, C<grep> or a C<for> list: there the null entry is handed on to Perl,
which may crash. When an object may have been destroyed, read the result into
a scalar and test it with C<defined>.

=head1 FIELD ACCESSORS

Every field has four methods, named after it. The methods of a family behave
alike and differ only in the field they touch, so each family is described
once below with the table of its fields; C<FIELD> stands for a field name,
as in C<has_bot_name>, C<clear_bot_name>, C<bot_name>, C<set_bot_name>. The
accessors are registered after the 15 whole-record methods, four per field,
in field-number order.

Common rules of the singular fields (every family but the lists):

=over 4

=item *

C<has_FIELD> (prototype C<"$">, usage "svTHIS") returns 1 when the field is
present, else 0.

=item *

C<clear_FIELD> (C<"$">, "svTHIS") makes the field absent; it then reads as
its default. Returns nothing.

=item *

C<FIELD> (C<"$">, "svTHIS") returns the field's value whether or not it is
present: an absent field reads as its default. On an empty handle the getter
returns the empty list (C<undef> in scalar context).

=item *

C<set_FIELD> (C<"$$">, "svTHIS, svVAL") stores the value and sets the
presence bit, also when the value equals the default. Returns nothing.
String setters check the invocant before they read the value; the number
and flag setters convert the value first (so a tied value is fetched even
when the invocant is then refused).

=item *

C<has_FIELD>, C<clear_FIELD> and C<set_FIELD> on an empty handle die with
"THIS holds no quillon_event_log::QuillonEventLog record".

=back

=head2 String fields

  my $present = $rec->has_FIELD;      # "$"
  $rec->clear_FIELD;                  # "$"
  my $bytes   = $rec->FIELD;          # "$"
  $rec->set_FIELD($bytes);            # "$$"

The value is a byte string, default C<"">. The setter stores the bytes of its
argument's string form exactly (embedded zero bytes included; numbers as
Perl prints them, C<undef> as C<"">); the getter returns a new byte string.
See L</CONVERSIONS> for characters above 255. Several fields whose names read
like yes/no attributes are strings, not flags: C<mobile_is_human_behaviour>,
C<mobile_app_emulation_mode>, C<mobile_app_jailbroken_rooted>,
C<mobile_debugger_enabled_device>.

The 43 string fields, with their field numbers:

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

=head2 uint32 fields

  my $present = $rec->has_FIELD;      # "$"
  $rec->clear_FIELD;                  # "$"
  my $number  = $rec->FIELD;          # "$"
  $rec->set_FIELD($number);           # "$$"

Unsigned 32-bit numbers, default 0. The getter returns an unsigned integer;
the setter wraps its value modulo 2**32 (L</CONVERSIONS>).

  19 src_port                 27 request_time
  20 dest_port                28 previous_request_time
                              52 slot_number

C<request_time> and C<previous_request_time> are 32-bit numbers (seconds),
not 64-bit.

=head2 uint64 fields

  my $present = $rec->has_FIELD;      # "$"
  $rec->clear_FIELD;                  # "$"
  my $decimal = $rec->FIELD;          # "$"
  $rec->set_FIELD($decimal);          # "$$"

Unsigned 64-bit identifiers, default C<"0">. The getter returns the value as
a string of decimal digits, never as a number; the setter parses the string
form of its value (L</CONVERSIONS>). Pass these values as strings.

  21 device_id                23 support_id
  22 session_id               24 previous_support_id

=head2 bool fields

  my $present = $rec->has_FIELD;      # "$"
  $rec->clear_FIELD;                  # "$"
  my $flag    = $rec->FIELD;          # "$"
  $rec->set_FIELD($flag);             # "$$"

Flags, default false. The getter returns 1 or 0; the setter stores true
exactly when the integer value of its argument is not zero (L</CONVERSIONS>).

  25 mobile_is_app            50 is_https_request
                              59 is_update_request

=head2 Address fields

  my $present = $rec->has_FIELD;      # "$"
  $rec->clear_FIELD;                  # "$"
  my $addr    = $rec->FIELD;          # "$"  a quillon_event_log::IPAddr object
  $rec->set_FIELD($addr);             # "$$" a quillon_event_log::IPAddr object

   4 client_ip
   5 dest_ip

Each is an C<IPAddr> sub-record (L</THE ADDRESS CLASS>) with the four 32-bit
words C<ip0> to C<ip3> of a network address and the number C<rtdom_id> of
the routing domain it belongs to.

The getter returns a new C<quillon_event_log::IPAddr> object holding a copy
of the address: changing it does not change the record, and each call gives
a new object. An absent address reads as an empty one (an object with no
field set), never C<undef>, and reading it does not make it present.

The setter takes an object of C<quillon_event_log::IPAddr> (or of a class
derived from it), makes the address present and copies the object's fields
into it; the caller's object is neither changed nor taken over. Anything
else, a plain hash reference included, dies with "VAL is not of type
quillon_event_log::IPAddr" and leaves the record unchanged. An
C<IPAddr> object with an empty handle changes nothing. C<clear_FIELD> makes
the address absent and empties it.

  $rec->set_client_ip(quillon_event_log::IPAddr->new({ ip3 => 0xCB00712D, rtdom_id => 0 }));
  printf "%08x\n", $rec->client_ip->ip3;

=head2 Repeated string fields

  my $count   = $rec->FIELD_size;     # "$"
  $rec->clear_FIELD;                  # "$"
  my @all     = $rec->FIELD;          # "$;@"
  my $one     = $rec->FIELD($index);  # "$;@"
  $rec->add_FIELD($bytes);            # "$$"

  44 anomaly_categories
  45 anomalies

Ordered lists of byte strings, empty by default; they have no presence bit
and no C<has_> method. C<FIELD_size> returns the element count,
C<clear_FIELD> empties the list, C<add_FIELD> appends one element (its
argument's bytes, as a string setter stores them). Their usage texts are
"svTHIS" and "svTHIS, svVAL".

The getter without an index returns every element in order as a list (in
scalar context, the last element, or C<undef> for an empty list). With one
index it returns that element, or C<undef> when the index is negative or not
less than the count; a negative index does not count from the end. The index
is the low 32 bits of the argument's integer value, so C<4294967297> reads
as 1 and a non-numeric string as 0. With two or more indexes it dies with
"Usage: quillon_event_log::QuillonEventLog::anomalies(CLASS, [index])" (for
C<anomaly_categories>, the same text with that name); called as a plain
function without any argument, with the usage error "svTHIS, ...". On an
empty handle the getter returns the empty list, with or without an index;
the other three methods die with "THIS holds no
quillon_event_log::QuillonEventLog record".

  $rec->add_anomalies('a');
  $rec->add_anomalies('b');
  my @x = $rec->anomalies;          # ('a', 'b')
  my $b = $rec->anomalies(1);       # 'b'
  my $u = $rec->anomalies(-1);      # undef
  my $n = $rec->anomalies_size;     # 2

=head1 CONVERSIONS

The same rules apply to the setters, to the hash form (both directions) and
to the address class.

=over 4

=item uint64 values are decimal strings

The getters and C<to_hashref> return a 64-bit value as a string of decimal
digits, without sign or leading zeros: C<"0"> for zero,
C<"18446744073709551615"> for the largest value. No digit is lost on any
perl.

On the way in the value's string form is parsed like C's C<strtoull> with
base 0: leading white space is skipped; an optional C<+> or C<-> is read;
C<0x> or C<0X> starts a hexadecimal number and any other leading C<0> an
octal one, else the number is decimal; parsing stops at the first character
that does not fit; text without digits gives 0; a value beyond the 64-bit
range gives 18446744073709551615; a leading C<-> negates modulo 2**64. No
error is ever reported. For example:

  "18446744073709551615"   -> 18446744073709551615
  "0x10"                   -> 16
  "010"                    -> 8
  "-1"                     -> 18446744073709551615
  "99999999999999999999"   -> 18446744073709551615
  "12abc"                  -> 12
  "abc"                    -> 0 (and the field is present)
  1e19                     -> 1

The last line is why these values are given as strings: a number is parsed
in Perl's string form of it, and a floating-point number such as C<1e19>
(C<"1e+19">) or C<2**53> (C<"9.00719925474099e+15">) is read only up to its
first non-digit. Integers that Perl holds as integers (up to
18446744073709551615) print in full and are safe.

=item uint32 values wrap modulo 2**32

The value goes through Perl's unsigned-integer conversion and its low 32
bits are stored: C<4294967296> gives 0, C<4294967297> gives 1, C<-1> gives
4294967295, C<3.9> gives 3, C<"80abc"> gives 80 and C<"abc"> 0 (with Perl's
"isn't numeric" warning when warnings are on). A number beyond Perl's
unsigned range saturates to 2**64-1 first, so C<1e20> gives 4294967295.
C<"0x10"> gives 0: hexadecimal text is not read here.

=item flags follow the integer value, not Perl truth

A flag is stored true exactly when Perl's integer conversion of the value is
not zero. So C<2>, C<-1>, C<"1.5"> and C<" 3"> are true, while C<0.5>,
C<"0.9">, C<"0 but true">, C<"0E0">, C<"abc"> and C<""> are all false,
although several of them are true to Perl. The getters return 1 or 0.

=item strings are bytes

A string value is stored as the bytes of the Perl scalar's buffer, with no
encoding or decoding: the UTF-8 flag is ignored on input and never set on
output. A byte string is stored as its bytes; a character string (UTF-8
flag on) is stored as its internal UTF-8 encoding, so C<"\x{263A}"> comes
back as the three bytes C<"\xE2\x98\xBA"> and C<"\xFF"> from a character
string as C<"\xC3\xBF">. Decode with L<Encode> when characters are wanted.
Embedded zero bytes are kept. Bytes that are not valid UTF-8 are stored and
returned as they are; the protocol-buffer runtime only logs a complaint
about them on standard error (L</DIAGNOSTICS>).

=back

C<undef> given as a value is converted like any other value, with Perl's
uninitialised-value warning when warnings are on: C<"">, 0 or false.

=head1 THE HASH FORM

The hash form is one Perl hash per record, written by L</to_hashref> and read
by L</new>, L</copy_from> and L</merge_from>. A hash made by C<to_hashref>
from any record gives back an equal record, presence bits included.

=over 4

=item Keys

The field names of the record, exactly as returned by L</fields>. No other
keys are written, and other keys are ignored on input.

=item Present-field rule

A singular field has a key exactly when it is present, whatever its value: a
string set to C<""> has a key with C<"">, a number set to 0 a key with 0, a
flag set to false a key with 0. An absent (or cleared) field has no key. A
list has a key exactly when it holds at least one element. An address has a
key exactly when it is present, also when none of its own fields is set (the
value is then an empty hash).

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
exactly when that field of the address is set, each an unsigned integer:

  client_ip => { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 3405803821, rtdom_id => 0 }

=back

Reading a hash (C<new>, C<copy_from>, C<merge_from>): every field name is
looked up once, in field-number order; for each key that exists (a key whose
value is C<undef> exists) the value is converted as its setter would convert
it (L</CONVERSIONS>) and the field is set. Missing keys leave their fields
absent. In particular:

=over 4

=item *

An address key makes the address present whatever its value. Only when the
value is a hash reference are C<ip0> to C<rtdom_id> read from it (each that
exists is set, as a uint32; other keys are ignored); C<undef>, a string, a
number or an array reference gives a present, empty address.

=item *

A list key is used only when its value is an array reference (a blessed one
counts); one element is appended per existing array element, in index order.
An C<undef> element gives C<"">; a hole in the array (an index never
assigned) adds nothing. Any other value gives no elements.

=item *

The hash and its arrays are only read: no key or element is ever added to
them.

=back

The reading is lenient by design: it never dies on its own and reports
nothing (only a tied value's own C<FETCH> can die). Unknown keys are never
looked at, and values of the wrong kind are converted by Perl's ordinary
conversions or skipped. A hash reference with only unknown keys gives an
empty record.

Tied and restricted hashes read like plain ones. A tied hash is asked
whether each field's key C<EXISTS> and then C<FETCH>es the value of each key
it has, so it gives exactly the fields it holds, nested hashes and arrays
included. A restricted hash (L<Hash::Util>) is read without Perl's
"disallowed key" error for the field keys it does not allow. Every value with
magic (a tied element, C<$1>, a tied argument) is fetched exactly once.

With C<copy_from> the record becomes exactly what the hash describes; with
C<merge_from> the keys of the hash replace the record's singular fields,
missing keys leave them as they were, array elements are appended to the
record's lists, and an address hash is merged field by field into the
record's address:

  $rec->merge_from({ actual_mitigation_action => 'captcha', anomalies => ['Rate limit exceeded'] });

=head1 THE ADDRESS CLASS

Loading the module also provides the class C<quillon_event_log::IPAddr>. Its
objects hold one C<IPAddr> record (the same handle layout as the record's
objects) and free it when they go away. The address getters C<client_ip>
and C<dest_ip> return such objects, and the address setters read them.

=over 4

=item C<< quillon_event_log::IPAddr->new >>, C<< quillon_event_log::IPAddr->new(\%address) >>

Prototype C<"$;@">, usage text "CLASS, ...". The class name must be exactly
C<quillon_event_log::IPAddr>, else it dies with "invalid class %s". Without a
second argument it makes an empty address. With a hash reference, the keys
C<ip0>, C<ip1>, C<ip2>, C<ip3> and C<rtdom_id> that exist are set, each
converted as a uint32 (low 32 bits); other keys are ignored. Any other
second argument, or three or more arguments, gives an empty address.

=item C<has_F>, C<clear_F>, C<F>, C<set_F>

For each F of C<ip0>, C<ip1>, C<ip2>, C<ip3> and C<rtdom_id>, exactly as the
record's uint32 accessors: prototypes C<"$">, C<"$">, C<"$"> and C<"$$">,
usage texts "svTHIS" and "svTHIS, svVAL"; the getter returns the value (0
when absent), the setter wraps modulo 2**32 and converts its value before
it checks the invocant.

=item C<to_hashref>

Prototype C<"$">. A reference to a new address hash holding the present
fields only, as unsigned integers.

=item C<DESTROY>

Prototype C<"$">. Frees the address and sets the handle to 0, like the
record's C<DESTROY>.

=back

An invocant that is not an object of the class dies with "THIS is not of
type quillon_event_log::IPAddr". On an empty address handle the getters
return the empty list and C<to_hashref> returns C<undef>, while C<has_F>,
C<clear_F> and C<set_F> die with "THIS holds no quillon_event_log::IPAddr
address".

  my $a = quillon_event_log::IPAddr->new({ ip3 => 0xC6336402, rtdom_id => 2 });
  $a->set_rtdom_id(3);
  my $h = $a->to_hashref;        # { ip3 => 3325256706, rtdom_id => 3 }

=head1 DIAGNOSTICS

Errors reach Perl as exceptions with fixed texts; there are no error codes.
Perl appends its usual " at FILE line N." to each, so match them with a
pattern such as C<qr/^THIS is not of type quillon_event_log::QuillonEventLog at />.

=over 4

=item THIS is not of type quillon_event_log::QuillonEventLog

A method of the record class (any but C<new> and C<fields>) was called on
something that is not an object of the class or of a class derived from it:
a plain string such as the class name, an unblessed reference, an object of
another class.

=item THIS is not of type quillon_event_log::IPAddr

The same for the methods of C<quillon_event_log::IPAddr> (all but C<new>).

=item invalid class %s

C<new> of either class was called with a class name other than exactly
C<quillon_event_log::QuillonEventLog> (or C<quillon_event_log::IPAddr>); the
name given takes the place of C<%s>. Subclass names are refused too.

=item VAL is not of type quillon_event_log::IPAddr

C<set_client_ip> or C<set_dest_ip> was given something that is not an
object of C<quillon_event_log::IPAddr> (a hash reference, a string, an object
of another class). The record is unchanged.

=item Usage: quillon_event_log::QuillonEventLog::anomalies(CLASS, [index])

=item Usage: quillon_event_log::QuillonEventLog::anomaly_categories(CLASS, [index])

The list getter was given more than one index. This test comes after the
test of the invocant.

=item THIS holds no quillon_event_log::QuillonEventLog record

A C<has_>, C<clear_>, C<set_>, C<add_> or C<_size> method was called on an
empty handle (after C<DESTROY>, or on a handle blessed by hand around 0).

=item THIS holds no quillon_event_log::IPAddr address

C<has_F>, C<clear_F> or C<set_F> of C<quillon_event_log::IPAddr> was called
on an empty address handle. (The record's C<set_client_ip> and C<set_dest_ip>
accept an empty address object without error and change nothing.)

=item Can't serialize message of type 'quillon_event_log::QuillonEventLog' because it is missing required fields: %s

C<pack> of a record whose required fields are missing, with their names in
place of C<%s>. The record has no required fields, so this cannot occur.

=item Usage: quillon_event_log::QuillonEventLog::METHOD(ARGS)

A method was called with the wrong number of arguments. Perl's usage error
names the method actually called and its usage text:

  CLASS, ...       new (called without any argument)
  svTHIS           DESTROY, clear, is_initialized, error_string,
                   discard_unkown_fields, debug_string, short_debug_string,
                   pack, length, fields, to_hashref, has_FIELD, clear_FIELD,
                   the singular getters, FIELD_size
  svTHIS, sv       copy_from, merge_from
  svTHIS, arg      unpack
  svTHIS, svVAL    set_FIELD, add_FIELD
  svTHIS, ...      anomaly_categories, anomalies (called without any argument)

for example "Usage: quillon_event_log::QuillonEventLog::set_bot_name(svTHIS,
svVAL)". The address class gives "Usage: quillon_event_log::IPAddr::new(CLASS,
...)" and, for its other methods, "svTHIS" or "svTHIS, svVAL" likewise.
Called as plain functions, methods with a C<"$"> or C<"$$"> prototype may be
refused by the Perl compiler itself ("Not enough arguments for ..." or "Too
many arguments for ...") before they run.

=item CHECK failed: (&from) != (this):

Not an exception: C<merge_from> was asked to merge a record into itself. The
protocol-buffer runtime writes a fatal log line on standard error,

  [libprotobuf FATAL src/quillon_event_log.pb:NNNN] CHECK failed: (&from) != (this): 

and the process aborts (signal SIGABRT) before anything is merged. C<eval>
cannot catch it. Merge a copy instead:
C<< $rec->merge_from(quillon_event_log::QuillonEventLog->new($rec->pack)) >>.

=item String field '...' contains invalid UTF-8 data when serializing a protocol buffer.

=item String field '...' contains invalid UTF-8 data when parsing a protocol buffer.

Not an exception: log lines of the protocol-buffer runtime on standard error
(C<[libprotobuf ERROR ...]>), written when C<pack>, C<length> or a parse
meets a string field whose bytes are not valid UTF-8. The bytes are kept as
they are and nothing fails.

=back

Perl's own warnings (uninitialised value, "isn't numeric") appear where the
conversions of L</CONVERSIONS> meet such values and warnings are on.

=head1 THREADS

The module starts no threads and takes no locks; a record must be used by
one thread at a time (even reading its size writes a cached size).

Objects of both classes are not copied into new Perl threads: both classes
return 1 from C<CLONE_SKIP>. A thread started while records and addresses
exist, joined or detached, sees unblessed references to C<undef> in the
variables that hold objects in its parent (a method call on one dies with
Perl's "Can't call method ... on unblessed reference"); the parent's objects
are untouched, and every record is freed exactly once, by the thread that
made it. The same holds for objects passed to C<< threads->create >> as
arguments and for objects returned from a thread through C<join>. To move a
record between threads, move its bytes:

  my ($bytes) = threads->create(sub { $make_record->()->pack })->join;
  my $rec = quillon_event_log::QuillonEventLog->new($bytes);

Inside any thread, records are made, used and freed as usual; each thread
keeps its own small pool of freed records and frees it when it ends.

Storable's C<freeze>/C<thaw> and C<dclone> copy a record through its wire
bytes and an address through its five fields: the copy is a new object with
a record of its own. Do not put objects into C<threads::shared> variables
(C<shared_clone> would copy the handle, not the record).

An explicit C<< $rec->DESTROY >> frees the record and sets the handle to 0,
so Perl's own C<DESTROY> later frees nothing twice; after it the object is an
empty handle (see L</Method names, prototypes and empty handles>).

=head1 SECURITY

The records carry what clients sent (raw requests, URIs, hosts), and the
bytes given to C<new> and C<unpack> may be corrupt or hostile. What holds:

=over 4

=item *

No input crashes the process or reads outside its buffer: every input
either parses (C<unpack> returns 1) or fails (0), never an exception; the
record then holds what was read before the fault and every method works on
it. C<pack> of a record that parsed cleanly reads back to the same record.

=item *

Memory is bounded by the input: a length prefix larger than the input fails
before anything is allocated for it, inputs over 64 MiB fail, nesting is
limited to 100 levels, so a small input cannot make the module allocate much
more than its own size.

=item *

Bytes are kept as they are: strings may hold zero bytes and invalid UTF-8,
which is reported on standard error by the protocol-buffer runtime and never
refused. Treat every string you read as untrusted bytes.

=item *

Values from Perl never corrupt a record: every setter converts its value
(numbers cut to their width, 64-bit values parsed as text), dying tied
values and wrong argument counts leave the record as it was, and no method
leaks memory on any of its error paths. Arguments are converted before the
record is touched, so a tied argument whose C<FETCH> frees the very record
of the call (by an explicit C<DESTROY>) leaves the method with an empty
handle: it gives the empty-handle result or error, never writes into freed
memory.

=item *

A handle holding 0 (after an explicit C<DESTROY>, or made by hand) never
crashes a method: see L</Method names, prototypes and empty handles>.
A handle holding any other number that C<new> did not put there is outside
what the module can check: do not forge handles, and do not C<thaw>
Storable images from untrusted sources (Storable's own advice).

=item *

Merging a record into itself ends the process by design (see
L</DIAGNOSTICS>); it needs the same object on both sides, which input data
cannot bring about.

=back

=head1 SEE ALSO

F<quillon_event_log.proto> in the distribution: the schema of the record,
with every field's name, number and type.

F<README.md> and F<examples/bot_event.pl> in the distribution.

=cut
