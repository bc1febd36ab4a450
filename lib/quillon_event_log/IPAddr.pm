package quillon_event_log::IPAddr;

use strict;
use warnings;

our $VERSION = '1.0';

# The class's methods are XSUBs of the record module's shared object.
require quillon_event_log::QuillonEventLog;

sub CLONE_SKIP { 1 }

# An address travels as its hash form, "name=value" pairs joined by commas
# (present fields only), and comes back through new.
sub STORABLE_freeze {
    my ($self) = @_;
    my $fields = $self->to_hashref || {};
    return join ',', map { "$_=$fields->{$_}" } sort keys %$fields;
}

sub STORABLE_attach {
    my ($class, undef, $text) = @_;
    return bless __PACKAGE__->new({ map { split /=/, $_, 2 } split /,/, $text }), $class;
}

1;
__END__

=head1 NAME

quillon_event_log::IPAddr - network addresses of bot-mitigation event records

=head1 SYNOPSIS

  use quillon_event_log::QuillonEventLog;   # loads quillon_event_log::IPAddr too

  my $a = quillon_event_log::IPAddr->from_string('203.0.113.45%2');
  print $a->ip3, " ", $a->rtdom_id, "\n";     # 3405803821 2
  print $a->as_string, "\n";                  # 203.0.113.45%2

  my $b = quillon_event_log::IPAddr->new({ ip0 => 0x20010DB8, ip3 => 1 });
  $b->set_rtdom_id(7);
  my $h = $b->to_hashref;        # { ip0 => 536939960, ip3 => 1, rtdom_id => 7 }

  my $rec = quillon_event_log::QuillonEventLog->new;
  $rec->set_client_ip($a);                    # copies the address into the record
  print $rec->client_ip->as_string, "\n";     # 203.0.113.45%2

=head1 DESCRIPTION

An object of C<quillon_event_log::IPAddr> holds one address of an event
record, the value of the fields C<client_ip> and C<dest_ip> of
L<quillon_event_log::QuillonEventLog>. The getters C<client_ip> and
C<dest_ip> of a record return such objects (copies: changing one does not
change the record) and the setters C<set_client_ip> and C<set_dest_ip> copy
them into the record.

An address has five optional fields, each an unsigned 32-bit number with
its own presence bit:

  ip0 ip1 ip2 ip3   the 128 bits of the address, ip0 the most significant;
                    an IPv4 address sits in ip3 with ip0..ip2 zero
  rtdom_id          the routing domain the address belongs to

So C<203.0.113.45> is C<< { ip0 => 0, ip1 => 0, ip2 => 0, ip3 => 0xCB00712D } >>
and C<2001:db8::1> is
C<< { ip0 => 0x20010DB8, ip1 => 0, ip2 => 0, ip3 => 1 } >>.

The class is loaded with L<quillon_event_log::QuillonEventLog> (loading
either loads both). L<quillon_event_log::Codec> reads and writes addresses
as hashes or, with C<< addresses => 'text' >>, in the text form described
under L</TEXT ADDRESSES>.

=head1 METHODS

Every method checks its exact argument count and dies with a usage error
otherwise; every method but C<new> and C<from_string> checks that its
invocant is an address object made by this module (L</DIAGNOSTICS>).

An I<empty handle> is an object whose C<DESTROY> has already run, or a
reference to 0 blessed into the class by hand. On it the getters return the
empty list, C<to_hashref> and C<as_string> return C<undef>, and C<has_F>,
C<clear_F> and C<set_F> die with "THIS holds no quillon_event_log::IPAddr
address".

=head2 new

  my $a = quillon_event_log::IPAddr->new;
  my $a = quillon_event_log::IPAddr->new(\%address);

Without a second argument, an empty address (no field present). With a hash
reference, each of the keys C<ip0>, C<ip1>, C<ip2>, C<ip3> and C<rtdom_id>
that exists is set, converted as a uint32 (the low 32 bits of Perl's
integer value, so C<-1> gives 4294967295); other keys are ignored. Any other
second argument, or three or more arguments, gives an empty address. The
class name must be exactly C<quillon_event_log::IPAddr>, else it dies with
"invalid class NAME"; to subclass, bless the result of
C<< quillon_event_log::IPAddr->new >> into your class.

=head2 from_string

  my $a = quillon_event_log::IPAddr->from_string('2001:db8::1%3');

A new address from its text (L</TEXT ADDRESSES>), with all five fields
present (C<rtdom_id> 0 when the text has no C<%N>). Takes exactly the class
name and the text; the class name must be exactly
C<quillon_event_log::IPAddr>, else it dies with "invalid class NAME". Text
that is not an address dies with C<invalid address text "TEXT">;
C<undef> dies with C<invalid address text (undef)> and a reference with
C<invalid address text (a reference)>.

=head2 as_string

  my $text = $a->as_string;

The text of the address (L</TEXT ADDRESSES>); absent fields read as 0, so an
empty address gives C<"0.0.0.0">. Empty handle: C<undef>.

=head2 to_hashref

  my $h = $a->to_hashref;

A reference to a new hash with one key per present field, each an unsigned
integer: C<< { ip3 => 3325256706, rtdom_id => 3 } >>. An empty address gives
a reference to an empty hash. Empty handle: C<undef>.

=head2 Accessors

For each F of C<ip0>, C<ip1>, C<ip2>, C<ip3> and C<rtdom_id>:

  my $present = $a->has_F;       # 1 or 0
  $a->clear_F;                   # makes F absent (reads as 0)
  my $number  = $a->F;           # the value, 0 when absent
  $a->set_F($number);            # stores the low 32 bits, makes F present

C<set_F> converts its value as the record's uint32 setters do (Perl's
unsigned-integer value, low 32 bits: C<4294967296> gives 0, C<"0x10"> gives
0, C<"abc"> gives 0 with Perl's "isn't numeric" warning), and converts it
before it checks the invocant.

=head2 DESTROY

Frees the address; the object becomes an empty handle. Normally left to
Perl.

=head1 TEXT ADDRESSES

C<as_string> writes, and C<from_string> (and the codec's text mode) reads,
addresses as text.

=head2 Writing

=over 4

=item *

When C<ip0>, C<ip1> and C<ip2> are all 0: the dotted IPv4 address of C<ip3>,
such as C<"203.0.113.45">, C<"0.0.0.0"> or C<"255.255.255.255">.

=item *

Otherwise: the IPv6 address whose 128 bits are C<ip0:ip1:ip2:ip3>, in the
usual short form (lower case, leading zeros of each group left out, the
longest run of zero groups written C<::>): C<"2001:db8::1">, C<"fe80::1">.
Addresses of the IPv4-mapped range C<::ffff:0:0/96> are written with their
last 32 bits in dotted form: C<"::ffff:203.0.113.45">. (This is not the same
address as C<"203.0.113.45">, whose C<ip2> is 0, so the text always reads
back to the same words.)

So IPv6 addresses whose first 96 bits are zero come out in the IPv4 form:
C<::1> is written C<"0.0.0.1"> and C<::> is written C<"0.0.0.0">. Both
forms read back to the same five numbers, so nothing is lost; the
records of the traffic processor keep IPv4 in C<ip3> with the other three
words zero, and that is the form this text serves.

=item *

Then C<%N>, with N the decimal routing domain, when C<rtdom_id> is not 0:
C<"203.0.113.45%2">, C<"fe80::1%4294967295">.

=back

=head2 Reading

=over 4

=item *

A dotted IPv4 address in strict form: exactly four decimal parts, each 0 to
255 (C<"192.0.2.1">). It sets C<ip0>, C<ip1> and C<ip2> to 0.

=item *

Or any IPv6 address in standard text form, including the forms with a
dotted tail (C<"::ffff:192.0.2.1">, C<"::192.0.2.1">).

=item *

Optionally followed by C<%N>: one to ten decimal digits, value at most
4294967295 (leading zeros allowed, C<%0> means 0). Without it C<rtdom_id>
is 0.

=back

Nothing else is accepted: no blanks, no brackets (C<"[::1]">), no port, no
NUL bytes, not the empty string, no IPv4 shorthand (C<"10.1">), octal or
hexadecimal parts, no zone names (C<"fe80::1%eth0">), no C<%> without
digits, no C<%4294967296>.

In error messages, bytes of the text outside printable ASCII (0x20 to 0x7E)
are shown as C<\xHH>, and a text longer than 64 characters is cut to 64
followed by C<...>.

For every address, C<< from_string($a->as_string) >> gives back the same five
numbers (with all five present), and for every text that C<as_string>
writes, C<< from_string($text)->as_string >> is that text again.

=head1 STORABLE

Storable's C<freeze>/C<thaw> and C<dclone> copy an address through its
present fields: the copy is a new object with an address of its own, blessed
into the same class.

=head1 THREADS

Address objects are not copied into new Perl threads (the class's
C<CLONE_SKIP> returns 1): in a new thread the variables that held them hold
unblessed references to C<undef>. Pass addresses between threads as text
(C<as_string>) or as hashes (C<to_hashref>). One address object must be used
by one thread at a time.

=head1 DIAGNOSTICS

Perl appends " at FILE line N." to each message.

=over 4

=item invalid class %s

C<new> or C<from_string> was called with a class name other than exactly
C<quillon_event_log::IPAddr>, the name given in place of C<%s>.

=item invalid address text "%s"

=item invalid address text (undef)

=item invalid address text (a reference)

C<from_string> was given something that is not an address text
(L</Reading>); the text is shown as described there.

=item THIS is not of type quillon_event_log::IPAddr

A method was called on something that is not an address object: the class
name, an unblessed reference, an object of another class.

=item THIS is not a quillon_event_log::IPAddr handle made by this module

The invocant is blessed into the class but was not made by this module.

=item THIS holds no quillon_event_log::IPAddr address

C<has_F>, C<clear_F> or C<set_F> on an empty handle.

=item Usage: quillon_event_log::IPAddr::METHOD(ARGS)

Wrong number of arguments. The texts are "CLASS, ..." for C<new> called
without any argument, "CLASS, text" for C<from_string>, "svTHIS, svVAL" for
C<set_F> and "svTHIS" for the other methods, for example
"Usage: quillon_event_log::IPAddr::set_ip0(svTHIS, svVAL)".

=back

=head1 BUGS AND LIMITATIONS

C<new(\%address)> is lenient like the record class: unknown keys are
ignored and values are cut to 32 bits without a word. Use
L<quillon_event_log::Codec> to have address hashes checked.

=head1 SEE ALSO

L<quillon_event_log::QuillonEventLog>, L<quillon_event_log::Codec>.

=head1 AUTHOR

The quillon_event_log team.

=head1 LICENSE

Copyright the quillon_event_log team's company. All rights reserved;
distribution restricted. This module is proprietary and for internal use
only; it is not free software and may not be redistributed.

=cut
