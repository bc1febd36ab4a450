# Storable's freeze/thaw and dclone give new objects with records of their
# own: a copied handle would hold the original's record and free it a second
# time.  Each scenario that could crash runs in a perl of its own.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);

use Storable qw(dclone freeze thaw);
use quillon_event_log::QuillonEventLog;

my $C = 'quillon_event_log::QuillonEventLog';
my %h = (bot_name => "cu\0rl", client_ip => { ip0 => 4, rtdom_id => 0 }, dest_ip => {},
         device_id => '18446744073709551615', anomalies => [ 'a', '' ]);

{
    my $rec  = $C->new(\%h);
    my $copy = dclone($rec);
    isnt ${$copy}, ${$rec}, 'dclone: the copy holds a record of its own';
    is_deeply $copy->to_hashref, \%h, 'dclone: the copy holds the same fields';
    $copy->set_bot_name('changed');
    is $rec->bot_name, "cu\0rl", 'dclone: changing the copy leaves the original';
}
{
    my $rec  = $C->new(\%h);
    my $back = thaw(freeze([ $rec, $rec ]));
    is ref $back->[0], $C, 'thaw: an object of the class';
    ok $back->[0] == $back->[1], 'thaw: one object referred to twice stays one object';
    is_deeply $back->[0]->to_hashref, \%h, 'thaw: the same fields';
    is unpack('H*', $back->[0]->pack), unpack('H*', $rec->pack), 'thaw: the same bytes';
}
{
    my $empty = dclone($C->new);
    is join(',', ref $empty, $empty->length, scalar keys %{ $empty->to_hashref }), "$C,0,0", 'dclone of an empty record';
    @Sub::ISA = ($C);
    my $sub = dclone(bless $C->new({ host => 'h' }), 'Sub');
    is join(',', ref $sub, $sub->host), 'Sub,h', 'dclone keeps a subclass';
}
{
    my $addr = $C->new(\%h)->client_ip;
    my $copy = dclone($addr);
    is ref $copy, 'quillon_event_log::IPAddr', 'dclone of an address: an address object';
    isnt ${$copy}, ${$addr}, '... with an address of its own';
    is_deeply $copy->to_hashref, { ip0 => 4, rtdom_id => 0 }, '... and the same fields, absent ones absent';
    is_deeply dclone($C->new(\%h)->dest_ip)->to_hashref, {}, 'dclone of an empty address';
}

my ($status, $out) = run_perl(<<'PERL');
use Storable qw(dclone);
use quillon_event_log::QuillonEventLog;
my $r = quillon_event_log::QuillonEventLog->new({ bot_name => 'x', client_ip => { ip0 => 1 } });
for (1 .. 100) { my $c = dclone($r); my $a = dclone($r->client_ip); }
undef $r;
print "done\n";
PERL
is $out, "done\n", 'copies and originals all go away: nothing on standard error';
is $status, 0, '... and the process exits 0';

done_testing;
