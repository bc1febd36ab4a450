# The module loads, reports its version and brings the address class along.
use strict;
use warnings;
use Test::More;

BEGIN { use_ok('quillon_event_log::QuillonEventLog') or BAIL_OUT('the module does not load') }

is $quillon_event_log::QuillonEventLog::VERSION, '1.0', 'VERSION is "1.0"';
is(quillon_event_log::QuillonEventLog->VERSION, '1.0', 'VERSION method answers "1.0"');

ok defined &quillon_event_log::QuillonEventLog::new, 'quillon_event_log::QuillonEventLog::new is defined';

{
    no strict 'refs';
    ok scalar(%{'quillon_event_log::IPAddr::'}), 'the stash of quillon_event_log::IPAddr exists';
}
for my $m (qw(new DESTROY to_hashref has_ip0 ip0 set_ip0 clear_ip0 rtdom_id set_rtdom_id)) {
    ok(quillon_event_log::IPAddr->can($m), "quillon_event_log::IPAddr can $m");
}

my $rec = quillon_event_log::QuillonEventLog->new;
isa_ok $rec, 'quillon_event_log::QuillonEventLog', 'new record';
my $addr = quillon_event_log::IPAddr->new;
isa_ok $addr, 'quillon_event_log::IPAddr', 'new address';
isa_ok $rec->client_ip, 'quillon_event_log::IPAddr', 'client_ip getter result';

done_testing;
