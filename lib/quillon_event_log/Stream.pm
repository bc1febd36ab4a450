package quillon_event_log::Stream;

use strict;
use warnings;

our $VERSION = '1.0';

use Carp ();
use Scalar::Util ();
use quillon_event_log::Codec ();    # loads the shared object with the readers and writers

# Errors are reported where the caller called a reader's or writer's method,
# not inside this file.
$Carp::Internal{$_}++ for qw(quillon_event_log::Stream quillon_event_log::Stream::Reader
                             quillon_event_log::Stream::Writer);

sub reader { shift; quillon_event_log::Stream::Reader->new(@_) }
sub writer { shift; quillon_event_log::Stream::Writer->new(@_) }

# The codec a reader decodes with and a writer encodes with: a codec object
# of the caller's, or one made from the codec options.
sub _codec {
    my ($opt) = @_;
    my %codec_opt = map { exists $opt->{$_} ? ($_ => delete $opt->{$_}) : () }
        qw(characters addresses unknown_fields);
    my $codec = delete $opt->{codec};
    if ($codec) {
        Carp::croak('option codec must be a quillon_event_log::Codec object')
            unless Scalar::Util::blessed($codec) && $codec->isa('quillon_event_log::Codec');
        Carp::croak('give either codec or the codec options, not both') if %codec_opt;
    } else {
        $codec = eval { quillon_event_log::Codec->new(%codec_opt) }
            or Carp::croak($@ =~ s/ at \S+ line \d+\.\n\z//r);
    }
    return $codec;
}

sub _refuse_unknown {
    my ($opt, @known) = @_;
    my ($name) = sort keys %$opt or return;
    Carp::croak(qq{unknown option "$name" (known options: } . join(', ', sort @known) . ')');
}

sub _is_handle {
    my ($x) = @_;
    return 1 if ref \$x eq 'GLOB';
    return ref $x && (Scalar::Util::reftype($x) // '') =~ /^(?:GLOB|IO)$/;
}

package quillon_event_log::Stream::Reader;

our $VERSION = '1.0';

sub CLONE_SKIP { 1 }

my @reader_options = qw(addresses characters codec fields max_record name on_error stripe unknown_fields);

sub new {
    my ($class, $source, %opt) = @_;
    Carp::croak('usage: quillon_event_log::Stream::Reader->new(SOURCE, OPTIONS...)') unless defined $source;
    my $codec = quillon_event_log::Stream::_codec(\%opt);
    my $on_error = delete $opt{on_error};
    Carp::croak('option on_error must be a code reference')
        if defined $on_error && ref $on_error ne 'CODE';
    my $max = delete $opt{max_record} // 64 * 1024 * 1024;
    Carp::croak("option max_record must be a positive integer, not \"$max\"")
        unless $max =~ /\A[1-9][0-9]{0,9}\z/ && $max <= 2147483647;
    my $name = delete $opt{name};
    my $fields = delete $opt{fields};
    if (defined $fields) {
        Carp::croak('option fields must be an array reference of field names') unless ref $fields eq 'ARRAY';
        for my $field (@$fields) {
            my $why = quillon_event_log::Codec::field_name_error($field);
            Carp::croak("option fields: $why") if defined $why;
        }
    }
    my $stripe = delete $opt{stripe} // [0, 1];
    Carp::croak('option stripe must be [INDEX, COUNT] with 0 <= INDEX < COUNT')
        unless ref $stripe eq 'ARRAY' && @$stripe == 2 && !grep({ !defined || ref || !/\A[0-9]{1,9}\z/ } @$stripe)
            && $stripe->[0] < $stripe->[1];
    quillon_event_log::Stream::_refuse_unknown(\%opt, @reader_options);

    my $handle;
    if (ref $source eq 'SCALAR' || ref $source eq 'LVALUE') {
        $handle = $source;
        $name //= 'scalar';
    } elsif (quillon_event_log::Stream::_is_handle($source)) {
        Carp::croak('tied file handles cannot be read: pass a path or a scalar reference')
            if tied *$source;
        binmode $source;
        $handle = $source;
        $name //= 'handle';
    } elsif (!ref $source) {
        open $handle, '<:raw', $source or Carp::croak("cannot open $source: $!");
        $name //= $source;
    } else {
        Carp::croak('the source must be a path, a file handle or a reference to a byte string');
    }
    return $class->_open($handle, "$name", $codec, $on_error, $max, $fields, @$stripe);
}

package quillon_event_log::Stream::Writer;

our $VERSION = '1.0';

sub CLONE_SKIP { 1 }

my @writer_options = qw(addresses characters codec gzip name unknown_fields);

# The files writers opened themselves, closed by close.
my %own_file;

sub new {
    my ($class, $dest, %opt) = @_;
    Carp::croak('usage: quillon_event_log::Stream::Writer->new(DESTINATION, OPTIONS...)') unless defined $dest;
    my $codec = quillon_event_log::Stream::_codec(\%opt);
    my $gzip = delete $opt{gzip};
    my $level = !$gzip ? -1 : $gzip =~ /\A[1-9]\z/ ? $gzip : 6;
    my $name = delete $opt{name};
    quillon_event_log::Stream::_refuse_unknown(\%opt, @writer_options);

    my ($handle, $own);
    if (quillon_event_log::Stream::_is_handle($dest)) {
        Carp::croak('tied file handles cannot be written: pass a path or an untied handle')
            if tied *$dest;
        binmode $dest;
        $handle = $dest;
        $name //= 'handle';
    } elsif (!ref $dest) {
        open $handle, '>:raw', $dest or Carp::croak("cannot open $dest for writing: $!");
        $own = 1;
        $name //= $dest;
    } else {
        Carp::croak('the destination must be a path or a file handle');
    }
    my $self = $class->_open($handle, "$name", $codec, $level);
    $own_file{Scalar::Util::refaddr($self)} = $handle if $own;
    return $self;
}

sub close {
    my ($self) = @_;
    $self->_finish;
    my $fh = delete $own_file{Scalar::Util::refaddr($self)} or return 1;
    my $name = $self->name;
    close $fh or Carp::croak("$name: cannot close: $!");
    return 1;
}

sub DESTROY {
    my ($self) = @_;
    $self->_destroy;
    delete $own_file{Scalar::Util::refaddr($self)};
}

1;
__END__

=encoding utf8

=head1 NAME

quillon_event_log::Stream - files and pipes of many event records

=head1 SYNOPSIS

  use quillon_event_log::Stream;

  # Write records, each preceded by its length
  my $out = quillon_event_log::Stream->writer('events.qel');
  $out->write_event({ bot_name => 'curl', request_time => 1763596800 });
  $out->write_record($record_object);       # a quillon_event_log::QuillonEventLog
  $out->write_bytes($wire_bytes);           # bytes you already have
  $out->close;

  # Read them back, as hashes (through the codec), objects or bytes
  my $in = quillon_event_log::Stream->reader('events.qel');   # gzip is recognised
  while (my $event = $in->next) {
      printf "%d at byte %d: %s\n", $in->index, $in->offset, $event->{bot_name} // '-';
  }

  # Codec options pass on; corrupt records can be reported and skipped
  my $json_ready = quillon_event_log::Stream->reader(\*STDIN,
      characters => 1, addresses => 'text',
      on_error   => sub { my ($e) = @_; warn "$e->{message}\n" },
  );

  # gzip on the way out
  my $gz = quillon_event_log::Stream->writer('events.qel.gz', gzip => 1);

=head1 DESCRIPTION

A stream is a sequence of records, each preceded by its byte length as a
base-128 varint: the usual framing of delimited protocol-buffer messages
(the varint length prefix that C++, Java and Python programs write before
each serialised message). Streams compressed with gzip are read
transparently: a reader recognises gzip by its first two bytes, whatever the
file is called.

Readers and writers work in blocks of 64 KiB through the protocol-buffer
runtime's own buffered, coded and gzip streams, in constant memory whatever
the length of the stream; only a single record is ever held whole.

=head1 READER

=head2 new

  my $in = quillon_event_log::Stream::Reader->new($source, %options);
  my $in = quillon_event_log::Stream->reader($source, %options);   # the same

C<$source> is a path, a file handle (set to binary mode; tied handles are
refused) or a reference to a byte string (the reader takes its own copy, so
the string may change afterwards). Options:

=over 4

=item characters, addresses, unknown_fields

Passed on to the codec that C<next> decodes with (see
L<quillon_event_log::Codec/OPTIONS>).

=item codec => $codec

A L<quillon_event_log::Codec> object to take the options from, instead.

=item on_error => sub { my ($problem) = @_; ... }

Called for each problem instead of dying (L</PROBLEMS>). Without it, the
first problem dies with the problem's message.

=item fields => [NAMES]

C<next> decodes only these fields (and no unknown fields), which is faster
when a program needs a few fields of large records. The other fields are
passed over without being checked, so a record that is broken only inside a
field not asked for is not reported. C<next_record> and C<next_bytes> are
not affected.

=item stripe => [INDEX, COUNT]

For COUNT workers sharing one stream: this reader delivers only the records
whose number, counted from 0, is INDEX modulo COUNT (C<index> still counts
every record), reports only those records' problems, and leaves a problem
that ends the stream to stripe 0. The other records are read past without
being decoded. C<qel report --jobs> uses it.

=item max_record => BYTES

The longest record accepted, 64 MiB by default; a longer one is a problem
and is skipped.

=item name => TEXT

The stream's name in messages. By default the path, C<scalar> or C<handle>.

=back

=head2 next

  my $hash = $in->next;

The next record as a hash in the codec's hash form, or C<undef> at the end of
the stream (and after a problem that ends it).

=head2 next_record

  my $record = $in->next_record;

The next record as a L<quillon_event_log::QuillonEventLog> object, parsed by
the protocol-buffer runtime, or C<undef> at the end.

=head2 next_bytes

  my $bytes = $in->next_bytes;

The next record's bytes exactly as they stand in the stream, or C<undef> at
the end. The bytes are not checked.

=head2 last_bytes

The bytes of the record that the last C<next>, C<next_record> or
C<next_bytes> read (also of one it reported as a problem), or C<undef>
before the first.

=head2 canonical

After C<next>: true when the codec, with the reader's options, encodes the
hash back to exactly the record's bytes; false when the bytes are in another
form that decodes to the same hash (fields out of order or given twice,
over-long varints, a flag above 1, a 32-bit value written with more bits,
an address in several parts). C<undef> after C<next_record>, C<next_bytes>,
a problem, or when the reader decodes only some C<fields> or drops unknown
fields. C<qel decode --json> keeps the bytes of a record that is not
canonical, so that C<qel encode> can give them back.

=head2 index, offset

Where the last record stood: C<index> is its number, 1 for the first record
of the stream, and C<offset> the byte offset of its length prefix, 0 for the
first record (counted in the decompressed data for gzip). Both are C<undef>
before the first record.

=head2 name, compressed, bytes_in

The stream's name; whether it is gzip; how many bytes were read from the
source so far (compressed bytes for gzip: the measure of progress through a
file).

=head2 close

Releases the source (a file the reader opened is closed). The reader can no
longer be used.

=head1 WRITER

=head2 new

  my $out = quillon_event_log::Stream::Writer->new($destination, %options);
  my $out = quillon_event_log::Stream->writer($destination, %options);

C<$destination> is a path (created or emptied) or a file handle (set to
binary mode). Options: the codec options or C<codec> as for the reader, used
by C<write_event>; C<< gzip => 1 >> (or a level 1 to 9) to compress; C<name>.

=head2 write_event

  $out->write_event(\%hash);

Encodes the hash with the codec (strictly: it dies naming the field, and
writes nothing, on a mistake) and writes the record.

=head2 write_record

  $out->write_record($record_object);

Writes the record's true encoding. An empty record is written as a zero
length with no bytes after it (the object's C<pack> gives 16 other bytes for
an empty record: see L<quillon_event_log::QuillonEventLog/KNOWN QUIRKS>).

=head2 write_bytes

  $out->write_bytes($bytes);

Writes bytes you already have as one record, unchecked (C<qel filter> uses it
to copy records byte for byte).

=head2 flush

Pushes everything written so far down to the file handle and flushes it
(for gzip, a sync point: what was written can be decompressed).

=head2 close

Writes what is left, ends the gzip data, and closes a file the writer opened
itself (a handle you gave stays open). The writer takes no more records.
Dropping the last reference to a writer does the same, warning instead of
dying if the data cannot be written.

=head2 count, name

How many records were written; the name in messages.

=head1 PROBLEMS

A problem is reported, to C<on_error> or by dying, with a message
C<NAME: record N at byte OFFSET: REASON>, where N counts records from 1 and
OFFSET is where the record's length prefix starts. C<on_error> receives a hash
with the keys C<file> (the name), C<index>, C<offset>, C<reason>,
C<message> and C<fatal>.

A record that does not decode (C<next>), that the runtime refuses
(C<next_record>) or that is longer than C<max_record> is skipped: C<fatal>
is 0 and reading goes on with the next record. Every other problem ends the
stream (C<fatal> is 1, and the reader returns C<undef> from then on):

  truncated length prefix
  malformed length prefix (longer than 10 bytes)
  truncated record: the prefix announces N bytes, M follow
  truncated gzip data
  corrupt gzip data: ZLIB'S MESSAGE
  read error: SYSTEM MESSAGE

The reasons of a record that does not decode are the codec's, with where the
fault lies in the record, for example
C<wire type 7 at byte 3 of the record>. Every record before a problem is
delivered.

Writers die with C<NAME: write error: SYSTEM MESSAGE> when the data cannot
be written.

=head1 THREADS

Readers and writers belong to the thread that made them: in a new thread,
the variables that held them hold references to unblessed C<undef>. A thread
makes its own readers and writers.

=head1 AUTHOR

The quillon_event_log team.

=head1 LICENSE

Copyright the quillon_event_log team's company. All rights reserved;
distribution restricted. This module is proprietary and for internal use
only; it is not free software and may not be redistributed.

=cut
