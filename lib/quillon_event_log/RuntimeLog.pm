package quillon_event_log::RuntimeLog;

use strict;
use warnings;
use warnings::register;

our $VERSION = '1.0';

# The functions are XSUBs of the record module's shared object.
require quillon_event_log::QuillonEventLog;

1;
__END__

=head1 NAME

quillon_event_log::RuntimeLog - where the protocol-buffer runtime's complaints go

=head1 SYNOPSIS

  use quillon_event_log::QuillonEventLog;     # loads this module too

  # Silence the complaints and count them.
  my $previous = quillon_event_log::RuntimeLog::mode('silent');
  my $bytes = $rec->pack;
  my $n = quillon_event_log::RuntimeLog::reset_silenced();
  print "$n strings were not valid UTF-8\n" if $n;
  quillon_event_log::RuntimeLog::mode($previous);

  # Turn them into Perl warnings ...
  quillon_event_log::RuntimeLog::mode('warn');
  {
      no warnings 'quillon_event_log::RuntimeLog';   # ... but not here
      $rec->pack;
  }

  # ... or into exceptions.
  {
      local $SIG{__WARN__} = sub { die $_[0] };
      eval { $rec->unpack($bytes); 1 } or print "refused: $@";
  }

  # From the environment, before the module is loaded:
  #   QUILLON_EVENT_LOG_RUNTIME_LOG=silent perl my_script.pl

=head1 DESCRIPTION

The protocol-buffer runtime under the module writes log lines of its own
when something looks wrong but does not fail, for example when a string
field that should hold text holds bytes that are not valid UTF-8 (records
carry what clients sent, so this happens), or when an input is too big:

  [libprotobuf ERROR google/protobuf/wire_format_lite.cc:618] String field 'quillon_event_log.QuillonEventLog.http_request' contains invalid UTF-8 data when parsing a protocol buffer. Use the 'bytes' type if you intend to send raw bytes.

This module decides where those lines go. There are three modes:

=over 4

=item stderr

The default: the lines go to standard error, as the runtime writes them.

=item warn

Each line becomes one Perl warning, raised when the method that caused it
returns to Perl. The warning's text is the runtime's message, without the
C<[libprotobuf ...]> prefix and without trailing blanks, followed by Perl's
usual " at FILE line N.":

  String field 'quillon_event_log.QuillonEventLog.http_request' contains invalid UTF-8 data when parsing a protocol buffer. Use the 'bytes' type if you intend to send raw bytes. at my_script.pl line 12.

The warnings belong to the category C<quillon_event_log::RuntimeLog> and
are on by default, like Perl's default warnings: they appear without
C<use warnings>, and are turned off in a lexical scope by C<no warnings> or
C<no warnings 'quillon_event_log::RuntimeLog'>. C<$SIG{__WARN__}> sees them
like any other warning. Under
C<use warnings FATAL =E<gt> 'quillon_event_log::RuntimeLog'> the first line
dies instead. Either way the method's own work is complete by then: a
handler or a fatal warning that dies unwinds Perl code only, and the record
holds everything that was read. Lines turned off by C<no warnings> are
dropped and not counted.

=item silent

The lines are dropped and counted; C<silenced> tells how many.

=back

The bytes are stored, written and read as they are in every mode; the mode
only decides who hears about it. The mode concerns the record class, the
address class and L<quillon_event_log::Codec> alike.

=head1 FUNCTIONS

These are plain functions, not methods; none is exported.

=over 4

=item quillon_event_log::RuntimeLog::mode()

Returns the current mode: C<"stderr">, C<"warn"> or C<"silent">.

=item quillon_event_log::RuntimeLog::mode($new)

Sets the mode and returns the previous one, so a scope can restore it:

  my $old = quillon_event_log::RuntimeLog::mode('silent');
  ...;
  quillon_event_log::RuntimeLog::mode($old);

Any other value dies with
C<unknown runtime log mode "loud" (expected stderr, warn or silent)>.

=item quillon_event_log::RuntimeLog::silenced()

How many lines were dropped in C<silent> mode by this thread since it
started or since the last C<reset_silenced>.

=item quillon_event_log::RuntimeLog::reset_silenced()

Returns that count and sets it to 0.

=back

=head1 ENVIRONMENT

=over 4

=item QUILLON_EVENT_LOG_RUNTIME_LOG

Read once, when the module is loaded: C<stderr>, C<warn> or C<silent> sets
the starting mode. Any other value leaves the mode at C<stderr> and warns

  QUILLON_EVENT_LOG_RUNTIME_LOG: unknown runtime log mode "x" (expected stderr, warn or silent); using stderr

(with no " at FILE line N.": it comes while the module is loading).

Calls of C<mode> later override it.

=back

=head1 EXAMPLES

Count invalid strings in a batch without noise:

  quillon_event_log::RuntimeLog::mode('silent');
  quillon_event_log::RuntimeLog::reset_silenced();
  my @hashes = map { decode_event($_) } @records;
  my $bad = quillon_event_log::RuntimeLog::silenced();

Log them through your own logger:

  quillon_event_log::RuntimeLog::mode('warn');
  local $SIG{__WARN__} = sub { $logger->warning($_[0]) };

Refuse records with invalid strings: in C<warn> mode, a C<$SIG{__WARN__}>
handler that dies is safe. The warning is raised after the method has
finished its work, so the exception leaves no record half-written and leaks
nothing; the method's result is lost with the exception.

  quillon_event_log::RuntimeLog::mode('warn');
  my @good;
  for my $bytes (@records) {
      my $hash = eval {
          local $SIG{__WARN__} = sub { die "bad record: $_[0]" };
          decode_event($bytes);
      } or next;
      push @good, $hash;
  }

=head1 THREADS

The mode and the count belong to one Perl interpreter, that is to one
thread. A new thread starts with the mode its parent had when it was created
and with a count of 0; changing the mode in one thread does not change it in
another.

=head1 DIAGNOSTICS

=over 4

=item unknown runtime log mode "%s" (expected stderr, warn or silent)

C<mode> was given a value that is not a mode (exception).

=item QUILLON_EVENT_LOG_RUNTIME_LOG: unknown runtime log mode "%s" (expected stderr, warn or silent); using stderr

The environment variable holds a value that is not a mode (warning, at
load).

=back

=head1 BUGS AND LIMITATIONS

A process that merges a record into itself is ended by the runtime whatever
the mode (see L<quillon_event_log::QuillonEventLog/DIAGNOSTICS>).

=head1 SEE ALSO

L<quillon_event_log::QuillonEventLog/CHARACTERS AND BYTES>,
L<quillon_event_log::Codec>, L<warnings>, L<perlvar/%SIG>.

=head1 AUTHOR

The quillon_event_log team.

=head1 LICENSE

Copyright the quillon_event_log team's company. All rights reserved;
distribution restricted. This module is proprietary and for internal use
only; it is not free software and may not be redistributed.

=cut
