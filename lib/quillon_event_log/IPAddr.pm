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

=cut
