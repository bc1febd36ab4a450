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

=cut
