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

1;
__END__

=head1 NAME

quillon_event_log::Codec - strict one-call conversion between event hashes and wire bytes

=cut
